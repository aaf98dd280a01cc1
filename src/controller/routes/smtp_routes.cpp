#include <array>
#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <utility>

#include "api/route_book.h"
#include "controller/routes/account_access.h"
#include "controller/routes/families.h"
#include "controller/routes/route_input.h"
#include "identity/mailer.h"

namespace tavrel::controller {
namespace {

using api::Request;
using api::Response;
using nlohmann::json;

constexpr std::array<const char*, 7> kKeys = {
    "smtp_server", "smtp_port", "smtp_user", "smtp_password", "smtp_from", "smtp_tls", "base_url"};

struct SmtpRoutes {
  AccountAccess access;
  net::SmtpClient& smtp;

  Response show(const Request& req) const {
    if (auto refusal = refuse(req)) return *refusal;
    const bool has_password = !setting("smtp_password").empty();
    return Response::ok({{"smtp_server", setting("smtp_server")},
                         {"smtp_port", setting("smtp_port", "587")},
                         {"smtp_user", setting("smtp_user")},
                         {"smtp_password", has_password ? "********" : ""},
                         {"smtp_from", setting("smtp_from")},
                         {"smtp_tls", setting("smtp_tls", "starttls")},
                         {"base_url", setting("base_url")}});
  }

  /// All of the keys in the body or, when one of them cannot be taken, none.
  Response update(const Request& req) const {
    if (auto refusal = refuse(req)) return *refusal;
    if (!req.json() || !req.json()->is_object()) return invalidJsonBody();
    std::map<std::string, std::string> given;
    for (const char* key : kKeys) {
      const auto member = req.json()->find(key);
      if (member == req.json()->end()) continue;
      if (!member->is_string() && !member->is_number_integer()) {
        return Response::error(400, std::string(key) + " must be a string");
      }
      std::string value = member->is_string() ? member->get<std::string>() : member->dump();
      if (value.find_first_of(std::string_view("\r\n\0", 3)) != std::string::npos) {
        return Response::error(400, std::string(key) + " must be a single line");
      }
      given[key] = std::move(value);
    }
    if (!access.store->setSettings(given)) return Response::error(500, "Failed to store settings");
    return Response::ok({{"status", "smtp_updated"}});
  }

  Response test(const Request& req) const {
    if (auto refusal = refuse(req)) return *refusal;
    const identity::MailSettings settings = identity::readMailSettings(*access.store);
    if (settings.server.empty()) {
      return Response::error(400, "SMTP server not configured. Save SMTP settings first.");
    }
    if (settings.from.empty()) return Response::error(400, "SMTP from address not configured");
    identity::Mailer mailer(*access.store, smtp);
    if (!mailer.sendSmtpEmail(settings.from, "Tavrel SMTP Test",
                              "<h2>SMTP Test Successful</h2><p>Your Tavrel controller SMTP "
                              "settings are working correctly.</p>")) {
      return Response::error(
          500, "SMTP connection failed. Check server, port, credentials, and TLS settings.");
    }
    return Response::ok({{"success", true}, {"message", "Test email sent to " + settings.from}});
  }

 private:
  std::string setting(const char* key, const char* fallback = "") const {
    return access.store->getSetting(key, fallback);
  }

  /// Only a signed-in cluster administrator gets further: an API key does not.
  std::optional<Response> refuse(const Request& req) const {
    if (access.store == nullptr) return noUserStore();
    const auto session = access.getSessionFromRequest(req);
    if (!session || session->role != "cluster_admin") return clusterAdminRoleRequired();
    return std::nullopt;
  }
};

}  // namespace

void addSmtpRoutes(api::RouteBook& book, const AccountAccess& access, net::SmtpClient& smtp) {
  const SmtpRoutes h{access, smtp};
  book.get("/api/v1/settings/smtp", [h](auto&, auto& req) { return h.show(req); });
  book.post("/api/v1/settings/smtp", [h](auto&, auto& req) { return h.update(req); });
  book.post("/api/v1/settings/smtp/test", [h](auto&, auto& req) { return h.test(req); });
}

}  // namespace tavrel::controller
