// zeltocom results: the test plan runs kept in a database, and the yield of
// each plan.
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <optional>
#include <regex>

#include "commands.hpp"
#include "output.hpp"
#include "result_store.hpp"

namespace cli {
namespace {

struct ResultsOptions {
  std::string db;
  std::optional<std::string> unit;
  std::optional<std::string> since;
  std::optional<std::string> plan;
};

// Runs are kept with UTC times written alike, so that a date or a time
// given as far as it goes compares as text.
std::string SinceBound(const std::string& text) {
  static const std::regex form(R"(\d{4}-\d{2}-\d{2}(T\d{2}(:\d{2}(:\d{2}(\.\d{1,3})?)?)?)?Z?)");
  if (!std::regex_match(text, form)) {
    UsageError("--since: expected a UTC date or time such as 2026-11-24 or 2026-11-24T09:30, "
               "got '" +
               text + "'");
  }
  return text.back() == 'Z' ? text.substr(0, text.size() - 1) : text;
}

// The filters, shared by the runs and their yield; unset ones let all pass.
constexpr const char* kWhere =
    " WHERE (?1 IS NULL OR unit = ?1) AND (?2 IS NULL OR start_time >= ?2)"
    " AND (?3 IS NULL OR plan = ?3)";

void BindFilters(results::Statement& query, const ResultsOptions& options) {
  const auto value = [](const std::optional<std::string>& text) {
    return text ? Json(*text) : Json();
  };
  query.Bind(1, value(options.unit));
  query.Bind(2, options.since ? Json(SinceBound(*options.since)) : Json());
  query.Bind(3, value(options.plan));
}

Json Runs(sqlite3* db, const ResultsOptions& options) {
  results::Statement query(
      db, std::string("SELECT id, start_time, end_time, plan, unit, station, pass,"
                      " (SELECT count(*) FROM measurements m WHERE m.run_id = runs.id"
                      "  AND m.pass = 0) FROM runs") +
              kWhere + " ORDER BY start_time, id");
  BindFilters(query, options);
  Json runs = Json::array();
  while (query.Step()) {
    runs.push_back({{"id", query.Column(0)},
                    {"start", query.Column(1)},
                    {"end", query.Column(2)},
                    {"plan", query.Column(3)},
                    {"unit", query.Column(4)},
                    {"station", query.Column(5)},
                    {"pass", query.Column(6) == 1},
                    {"failed_fibers", query.Column(7)}});
  }
  return runs;
}

Json Yields(sqlite3* db, const ResultsOptions& options) {
  results::Statement query(db, std::string("SELECT plan, count(*), sum(pass) FROM runs") + kWhere +
                                   " GROUP BY plan ORDER BY plan");
  BindFilters(query, options);
  Json yields = Json::array();
  while (query.Step()) {
    const auto runs = query.Column(1).get<long long>();
    const auto passed = query.Column(2).get<long long>();
    yields.push_back({{"plan", query.Column(0)},
                      {"runs", runs},
                      {"passed", passed},
                      {"yield", static_cast<double>(passed) / static_cast<double>(runs)}});
  }
  return yields;
}

void PrintRuns(const Json& runs) {
  Table table({{"id", "RUN"},
               {"start", "START (UTC)"},
               {"plan", "PLAN"},
               {"unit", "UNIT"},
               {"station", "STATION"},
               {"result", "RESULT"},
               {"failed_fibers", "FAILED FIBERS"}});
  for (Json run : runs) {
    run["result"] = run["pass"].get<bool>() ? "PASS" : "FAIL";
    table.Add(run);
  }
  table.Print();
}

void PrintYields(const Json& yields) {
  Table table({{"plan", "PLAN"}, {"runs", "RUNS"}, {"passed", "PASSED"}, {"yield", "YIELD"}});
  for (Json plan : yields) {
    char percent[32];
    std::snprintf(percent, sizeof percent, "%.1f %%", 100 * plan["yield"].get<double>());
    // CSV keeps the fraction, which a spreadsheet formats itself.
    if (!Global().csv) plan["yield"] = percent;
    table.Add(plan);
  }
  table.Print();
}

int RunResults(ResultsOptions options) {
  if (options.db.empty()) {
    const char* fromEnvironment = std::getenv("ZELTOCOM_DB");
    if (fromEnvironment == nullptr || *fromEnvironment == '\0') {
      UsageError("no database: give --db FILE or set ZELTOCOM_DB");
    }
    options.db = fromEnvironment;
  }
  if (options.since) SinceBound(*options.since);  // bad usage before any file is read
  Json runs;
  Json yields;
  try {
    const results::Db db = results::OpenDb(options.db, results::Access::kRead);
    runs = Runs(db.get(), options);
    yields = Yields(db.get(), options);
  } catch (const results::DbError& error) {
    Failure(error.what());
  }
  if (JsonWanted()) {
    PrintJson({{"db", options.db}, {"runs", runs}, {"yield", yields}});
    return kSuccess;
  }
  PrintRuns(runs);
  std::printf(Global().csv ? "\r\n" : "\n");
  PrintYields(yields);
  return kSuccess;
}

}  // namespace

Subcommand AddResults(CLI::App& root) {
  auto options = std::make_shared<ResultsOptions>();
  CLI::App* app = root.add_subcommand("results", "the test plan runs kept in a database");
  app->footer("Lists the runs that 'zeltocom test --db FILE' kept, oldest first, then the yield\n"
              "(the share of passed runs) of each plan among them. The database is FILE of --db,\n"
              "else that of ZELTOCOM_DB. DATE is in UTC: 2026-11-24, 2026-11-24T09:30 or to the\n"
              "millisecond. With --csv the runs and the yields are two tables, an empty line\n"
              "between them; with --json one document.");
  app->add_option("--db", options->db, "the database (default: ZELTOCOM_DB)")->type_name("FILE");
  app->add_option("--unit", options->unit, "only the runs of this unit")->type_name("ID");
  app->add_option("--since", options->since, "only the runs started at DATE or later")
      ->type_name("DATE");
  app->add_option("--plan", options->plan, "only the runs of this plan")->type_name("NAME");
  return {app, [options] { return RunResults(*options); }};
}

}  // namespace cli
