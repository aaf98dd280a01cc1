#include "ai/theme_config.h"

#include <string_view>

namespace tavrel::ai {
namespace {

/// A theme as it is written down: keywords separated by ", ".
struct Row {
  const char* name;
  const char* display_name;
  const char* description;
  float threshold;
  const char* target_model;
  const char* target_worker;
  const char* negative_keywords;
  const char* keywords;
};

// clang-format off
constexpr Row kRows[] = {
    {"medicine", "Medicine & Healthcare",
     "Medical topics including diseases, treatments, medications, anatomy, healthcare, patient care, clinical procedures, and medical research.",
     0.15F, "meditron:70b", "medicine", "code, programming, software, function, variable",
     "patient, doctor, diagnosis, treatment, medication, drug, symptom, disease, hospital, "
     "clinic, surgery, therapy, prescription, dosage, medical, healthcare, health, illness, "
     "condition, syndrome, disorder, cancer, diabetes, heart, blood, organ, tissue, cell, "
     "dna, gene, vaccine, antibiotic, infection, virus, bacteria, pathogen, immune, nurse, "
     "physician, specialist, oncologist, cardiologist, neurologist, radiology, mri, "
     "ct scan, x-ray, ultrasound, biopsy, lab test, side effect, contraindication, "
     "prognosis, chronic, acute, terminal"},
    {"legal", "Legal & Law",
     "Legal topics including laws, regulations, contracts, litigation, court proceedings, legal rights, compliance, and legal advice.",
     0.15F, "lawllm:13b", "legal", "code, programming, software, function",
     "law, legal, court, judge, lawyer, attorney, litigation, lawsuit, contract, agreement, "
     "clause, liability, negligence, damages, plaintiff, defendant, verdict, judgment, "
     "appeal, motion, statute, regulation, compliance, jurisdiction, testimony, evidence, "
     "witness, deposition, arbitration, mediation, settlement, tort, criminal, civil, "
     "felony, misdemeanor, prosecution, defense, bail, parole, probation, sentence, patent, "
     "trademark, copyright, intellectual property, license, rights, constitution, "
     "amendment, legislation, bill, ordinance, precedent"},
    {"code", "Programming & Code",
     "Programming and software development topics including code, algorithms, debugging, APIs, frameworks, and technical implementation.",
     0.1F, "codellama:34b", "code", "",
     "code, function, class, variable, method, api, library, framework, debug, error, "
     "exception, compile, runtime, syntax, algorithm, loop, array, list, map, dictionary, "
     "object, interface, abstract, inheritance, polymorphism, encapsulation, module, "
     "package, import, python, javascript, java, c++, rust, go, typescript, swift, react, "
     "node, django, flask, spring, docker, kubernetes, git, database, sql, nosql, mongodb, "
     "postgresql, redis, cache, http, rest, graphql, websocket, tcp, server, client, "
     "request, async, await, promise, callback, thread, process, memory"},
    {"finance", "Finance & Banking",
     "Financial topics including banking, investments, trading, accounting, taxes, and financial planning.",
     0.15F, "finllm:13b", "finance", "code, programming",
     "finance, financial, bank, banking, investment, stock, bond, equity, portfolio, "
     "trading, market, exchange, nasdaq, nyse, forex, crypto, bitcoin, ethereum, "
     "blockchain, wallet, transaction, payment, transfer, loan, mortgage, interest, rate, "
     "credit, debit, account, balance, tax, taxation, irs, audit, accounting, revenue, "
     "profit, loss, budget, expense, income, salary, wage, dividend, capital, asset, "
     "liability, depreciation, amortization, inflation, deflation, recession, gdp, economy, "
     "economic, monetary, fiscal, reserve, treasury"},
    {"science", "Science & Research",
     "Scientific topics including physics, chemistry, biology, research methodology, experiments, and scientific discoveries.",
     0.15F, "llama3.1:70b", "science", "code, programming, software",
     "science, scientific, research, experiment, hypothesis, theory, evidence, physics, "
     "chemistry, biology, astronomy, geology, ecology, botany, atom, molecule, element, "
     "compound, reaction, catalyst, enzyme, electron, proton, neutron, quantum, relativity, "
     "gravity, force, energy, mass, velocity, acceleration, momentum, wave, particle, "
     "evolution, species, ecosystem, organism, photosynthesis, metabolism, telescope, "
     "microscope, laboratory, sample, control, variable, data, peer review, publication, "
     "journal, study, methodology, analysis"},
    {"creative", "Creative Writing",
     "Creative writing topics including stories, poetry, fiction, scripts, narratives, and artistic expression.",
     0.15F, "llama3.1:70b", "creative", "code, programming, debug, function",
     "story, write, writing, creative, fiction, novel, poem, poetry, character, plot, "
     "narrative, dialogue, scene, chapter, protagonist, antagonist, conflict, resolution, "
     "climax, setting, theme, motif, metaphor, simile, imagery, symbolism, allegory, "
     "foreshadowing, script, screenplay, act, scene, stage, director, author, writer, "
     "publish, draft, edit, revision, manuscript, genre, fantasy, scifi, romance, mystery, "
     "thriller, horror, drama, comedy, satire"},
    {"general", "General",
     "General topics that don't fit into specialized categories.",
     0.0F, "", "any", "",
     ""},
};
// clang-format on

std::vector<std::string> split(std::string_view list) {
  constexpr std::string_view kSeparator = ", ";
  std::vector<std::string> words;
  while (!list.empty()) {
    const std::size_t end = list.find(kSeparator);
    words.emplace_back(list.substr(0, end));
    list.remove_prefix(end == std::string_view::npos ? list.size() : end + kSeparator.size());
  }
  return words;
}

}  // namespace

std::vector<ThemeConfig> defaultThemes() {
  std::vector<ThemeConfig> themes;
  for (const Row& row : kRows) {
    themes.push_back({row.name, row.display_name, row.description, split(row.keywords),
                      split(row.negative_keywords), row.threshold, row.target_model,
                      row.target_worker});
  }
  return themes;
}

}  // namespace tavrel::ai
