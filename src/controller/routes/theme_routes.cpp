#include <nlohmann/json.hpp>
#include <utility>

#include "ai/ai_control.h"
#include "ai/model_specialization_extractor.h"
#include "ai/theme_detector.h"
#include "api/route_book.h"
#include "controller/routes/families.h"
#include "controller/routes/route_input.h"
#include "platform/json_fields.h"

namespace tavrel::controller {
namespace {

using api::Request;
using api::Response;
using nlohmann::json;

struct ThemeRoutes {
  ai::LazyThemeDetector& detector;
  const ai::AiControl& control;

  Response list() const {
    const auto themes = detector.getOrCreate();
    json array = platform::jsonArray(themes->getThemes());
    const std::size_t count = array.size();
    return Response::ok(
        {{"themes", std::move(array)}, {"count", count}, {"stats", themes->getStats()}});
  }

  Response add(const Request& req) const {
    if (!req.json()) return invalidJsonBody();
    ai::ThemeConfig theme = ai::ThemeConfig::fromJson(*req.json());
    if (theme.name.empty()) return Response::error(400, "Theme name is required");
    json reply = {{"success", true}, {"theme", theme.name}};
    if (!detector.getOrCreate()->addTheme(std::move(theme))) {
      return Response::error(400, "Too many keywords");
    }
    return Response::ok(reply);
  }

  Response remove(const Request& req) const {
    if (!req.json()) return invalidJsonBody();
    const auto themes = detector.get();
    if (themes == nullptr) return notInitialized();
    const std::string name = req.json()->value("name", "");
    themes->removeTheme(name);
    return Response::ok({{"success", true}, {"deleted", name}});
  }

  Response detect(const Request& req) const {
    if (!req.json()) return invalidJsonBody();
    const std::string content = req.json()->value("content", "");
    const bool use_llm = req.json()->value("use_llm", true);
    if (content.empty()) return Response::error(400, "Content is required");
    const bool finer = req.json()->value("specializations", false);
    json reply = forDetection()->detectTheme(content, use_llm).toJson();
    if (finer) {
      reply["specializations"] = ai::ModelSpecializationExtractor::detectThemesFromPrompt(content);
    }
    return Response::ok(reply);
  }

  Response load(const Request& req) const {
    if (!req.json()) return invalidJsonBody();
    const std::string path = req.json()->value("path", "");
    if (path.empty()) return Response::error(400, "Path is required");
    const bool loaded = detector.getOrCreate()->loadThemesFromFile(path);
    return Response::ok({{"success", loaded}, {"path", path}});
  }

  Response save(const Request& req) const {
    if (!req.json()) return invalidJsonBody();
    const auto themes = detector.get();
    if (themes == nullptr) return notInitialized();
    const std::string path = req.json()->value("path", "");
    if (path.empty()) return Response::error(400, "Path is required");
    return Response::ok({{"success", themes->saveThemesToFile(path)}, {"path", path}});
  }

 private:
  static Response notInitialized() {
    return Response::error(400, "Theme detector not initialized");
  }

  /// Only a detector that is created here, while the decision model is in use, may ask that model.
  std::shared_ptr<ai::ThemeDetector> forDetection() const {
    const cluster::AIControlConfig config = control.config();
    if (config.mode == cluster::AIControlMode::kNone) return detector.getOrCreate();
    return detector.getOrCreate(config.ollama_url, config.model, config.decision_timeout_ms);
  }
};

}  // namespace

void addThemeRoutes(api::RouteBook& book, ai::LazyThemeDetector& detector,
                    const ai::AiControl& control) {
  const ThemeRoutes h{detector, control};
  book.get("/api/v1/themes", [h](auto&, auto&) { return h.list(); });
  book.post("/api/v1/themes", [h](auto&, auto& req) { return h.add(req); });
  book.post("/api/v1/themes/delete", [h](auto&, auto& req) { return h.remove(req); });
  book.post("/api/v1/themes/detect", [h](auto&, auto& req) { return h.detect(req); });
  book.post("/api/v1/themes/load", [h](auto&, auto& req) { return h.load(req); });
  book.post("/api/v1/themes/save", [h](auto&, auto& req) { return h.save(req); });
}

}  // namespace tavrel::controller
