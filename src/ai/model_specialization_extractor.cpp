#include "ai/model_specialization_extractor.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <limits>
#include <utility>

#include "platform/text.h"

namespace tavrel::ai {
namespace {

constexpr const char* kGeneral = "general";

/// A theme and its keywords, in lower case and separated by ", ".
struct SpecializationRow {
  std::string_view theme;
  std::string_view keywords;
};

// In the order of names.
// clang-format off
constexpr SpecializationRow kSpecializations[] = {
    {"ansible", "ansible, playbook, ansible-vault, ansible-galaxy"},
    {"apache", "apache, httpd, apache2, mod_rewrite, htaccess"},
    {"aws", "aws, amazon web services, ec2, s3, lambda, cloudformation"},
    {"azure", "azure, microsoft azure, azure devops, azure functions"},
    {"code",
     "programming, coding, software, development, debug, algorithm, function, class, "
     "variable, compile, runtime"},
    {"communigate", "communigate, cgpro, cg pro, communigate pro, pronto, ximss, cosmo"},
    {"cpp", "c++, cpp, cmake, makefile, stl, boost"},
    {"creative",
     "creative, writing, story, fiction, poetry, art, design, music, film, photography, "
     "animation"},
    {"csharp", "c#, csharp, dotnet, .net, asp.net, unity"},
    {"data",
     "data science, machine learning, analytics, visualization, statistics, dataset, "
     "model training, neural network"},
    {"devops",
     "devops, ci/cd, deployment, infrastructure, automation, monitoring, logging, "
     "observability, sre"},
    {"docker", "docker, container, dockerfile, docker-compose, containerization"},
    {"education",
     "education, teaching, learning, curriculum, student, teacher, academic, university, "
     "school, course"},
    {"elasticsearch", "elasticsearch, elastic, kibana, logstash, elk stack"},
    {"finance",
     "financial, banking, investment, trading, stock, portfolio, forex, cryptocurrency, "
     "accounting, audit, tax"},
    {"gcp", "google cloud, gcp, bigquery, cloud run, gke"},
    {"github", "github, github actions, workflows, gh cli"},
    {"gitlab", "gitlab, gitlab-ci, .gitlab-ci.yml, gitlab runner"},
    {"golang", "golang, go language, goroutine, go mod, go build"},
    {"java", "java, jvm, maven, gradle, spring, springboot"},
    {"javascript", "javascript, nodejs, npm, react, vue, angular, typescript"},
    {"jenkins", "jenkins, jenkinsfile, ci/cd pipeline, jenkins pipeline"},
    {"kubernetes", "kubernetes, k8s, kubectl, helm, pods, deployments"},
    {"legal",
     "legal, law, court, attorney, lawyer, litigation, contract, statute, regulation, "
     "compliance, jurisdiction"},
    {"linux", "linux, ubuntu, centos, rhel, debian, fedora, systemd, bash"},
    {"macos", "macos, osx, darwin, xcode, homebrew, launchd"},
    {"medicine",
     "medical, clinical, diagnosis, treatment, patient, healthcare, physician, symptoms, "
     "disease, therapy, medication, hospital"},
    {"mongodb", "mongodb, mongo, nosql database, bson, mongoose"},
    {"mysql", "mysql, mariadb, mysqld, innodb, myisam"},
    {"nginx", "nginx, reverse proxy, load balancer, web server nginx"},
    {"postfix", "postfix, mail transfer agent, mta, smtp server, mail queue"},
    {"postgresql", "postgresql, postgres, psql, pg_, plpgsql"},
    {"python", "python, pip, pytest, django, flask, pandas, numpy"},
    {"redis", "redis, redis-cli, redis server, key-value store"},
    {"rust", "rust, cargo, rustc, tokio, async rust, ownership"},
    {"science",
     "scientific, research, experiment, hypothesis, laboratory, physics, chemistry, biology, "
     "mathematics"},
    {"security",
     "security, cybersecurity, penetration testing, vulnerability, encryption, firewall, "
     "intrusion, malware, threat"},
    {"swift", "swift, swiftui, uikit, xcode, ios development"},
    {"terraform", "terraform, hcl, infrastructure as code, tf, terragrunt"},
    {"windows", "windows, powershell, active directory, iis, windows server"},
};
// clang-format on

struct Keyword {
  std::string_view text;
  std::size_t theme = 0;      ///< number of its row
  bool only_in_name = false;  ///< the theme's own name, where that is none of the keywords
};

/// What the first two characters of a text say about which keywords it may begin with.
std::uint16_t keyOf(std::string_view text) {
  return static_cast<std::uint16_t>(static_cast<unsigned char>(text[0]) << 8U |
                                    static_cast<unsigned char>(text[1]));
}

/// The keywords of all themes, found by their first two characters: at most places of a text none
/// begins, so that one pass over it is enough for all.
class KeywordIndex {
 public:
  KeywordIndex() {
    for (std::size_t theme = 0; theme < std::size(kSpecializations); ++theme) addRow(theme);
    std::stable_sort(keywords_.begin(), keywords_.end(), [](const Keyword& a, const Keyword& b) {
      return keyOf(a.text) < keyOf(b.text);
    });
    first_.fill(kNone);
    for (std::size_t i = keywords_.size(); i-- > 0;) {
      first_[keyOf(keywords_[i].text)] = static_cast<std::uint16_t>(i);
    }
  }

  std::size_t size() const { return keywords_.size(); }

  /// Calls `found` with the number of every keyword that `text`, of two characters at least,
  /// begins with.
  template <class Found>
  void forEachAtStartOf(std::string_view text, const Found& found) const {
    const std::uint16_t key = keyOf(text);
    for (std::size_t i = first_[key]; i < keywords_.size(); ++i) {
      if (keyOf(keywords_[i].text) != key) return;
      if (text.starts_with(keywords_[i].text)) found(i);
    }
  }

  const Keyword& operator[](std::size_t number) const { return keywords_[number]; }

 private:
  static constexpr std::uint16_t kNone = std::numeric_limits<std::uint16_t>::max();

  void addRow(std::size_t theme) {
    constexpr std::string_view kSeparator = ", ";
    std::string_view rest = kSpecializations[theme].keywords;
    bool named = false;
    while (!rest.empty()) {
      const std::string_view word = rest.substr(0, rest.find(kSeparator));
      keywords_.push_back({word, theme});
      named = named || word == kSpecializations[theme].theme;
      rest.remove_prefix(std::min(rest.size(), word.size() + kSeparator.size()));
    }
    if (!named) keywords_.push_back({kSpecializations[theme].theme, theme, true});
  }

  std::vector<Keyword> keywords_;
  std::array<std::uint16_t, 65536> first_{};
};

struct Score {
  std::size_t theme = 0;
  std::size_t occurrences = 0;
  std::size_t characters = 0;  ///< of all of them
};

/// The themes that occur in the text, the best first.
std::vector<Score> rankedThemes(std::string_view text, bool is_name) {
  static const KeywordIndex index;
  std::vector<Score> scores(std::size(kSpecializations));
  for (std::size_t theme = 0; theme < scores.size(); ++theme) scores[theme].theme = theme;
  std::vector<std::size_t> end_of_last(index.size());  // occurrences of a keyword do not overlap
  const std::string lowered = platform::toLower(text);
  for (std::size_t at = 0; at + 1 < lowered.size(); ++at) {
    index.forEachAtStartOf(std::string_view(lowered).substr(at), [&](std::size_t number) {
      const Keyword& keyword = index[number];
      if (at < end_of_last[number] || (keyword.only_in_name && !is_name)) return;
      end_of_last[number] = at + keyword.text.size();
      ++scores[keyword.theme].occurrences;
      scores[keyword.theme].characters += keyword.text.size();
    });
  }
  std::erase_if(scores, [](const Score& score) { return score.occurrences == 0; });
  std::stable_sort(scores.begin(), scores.end(), [](const Score& a, const Score& b) {
    return std::pair(a.occurrences, a.characters) > std::pair(b.occurrences, b.characters);
  });
  return scores;
}

}  // namespace

std::vector<std::string> ModelSpecializationExtractor::detectThemesFromPrompt(
    std::string_view prompt) {
  std::vector<std::string> themes;
  for (const Score& score : rankedThemes(prompt, /*is_name=*/false)) {
    themes.emplace_back(kSpecializations[score.theme].theme);
  }
  return themes;
}

std::string ModelSpecializationExtractor::detectThemeFromModelName(std::string_view name) {
  const std::vector<Score> scores = rankedThemes(name, /*is_name=*/true);
  return scores.empty() ? kGeneral : std::string(kSpecializations[scores.front().theme].theme);
}

}  // namespace tavrel::ai
