#include "plan.hpp"

#include <toml++/toml.h>
#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <map>
#include <set>

#include "args.hpp"
#include "library.hpp"
#include "zeltocom.h"

namespace cli {
namespace {

// The keys each table of a plan takes; any other is a typo worth stopping at.
const std::map<std::string, std::set<std::string>>& KnownKeys() {
  static const std::map<std::string, std::set<std::string>> known = {
      {"", {"name", "station", "baud", "instrument", "limits", "fiber", "sequence"}},
      {"instrument", {"serial", "path", "fibers", "capture_range", "pwm"}},
      {"limits", {"x", "y", "intensity", "wavelength", "bins", "accept"}},
      {"fiber", {"instrument", "fiber", "x", "y", "intensity", "wavelength", "accept"}},
      {"sequence", {"instrument", "fiber", "frequency", "duty_cycle"}},
  };
  return known;
}

class PlanReader {
 public:
  explicit PlanReader(std::string file) : file_(std::move(file)) {}

  Plan Read() {
    if (std::FILE* readable = std::fopen(file_.c_str(), "r")) {
      std::fclose(readable);
    } else {
      UsageError(file_ + ": " + std::strerror(errno));
    }
    toml::table root;
    try {
      root = toml::parse_file(file_);
    } catch (const toml::parse_error& error) {
      // toml++ says where, and names the key when it has read one.
      UsageError(file_ + ":" + std::to_string(error.source().begin.line) + ": " +
                 std::string(error.description()));
    }
    CheckKeys(root, "");
    Plan plan;
    plan.name = RequiredString(root, "", "name");
    plan.station = OptionalString(root, "", "station");
    plan.baud = static_cast<int>(Whole(root, "", "baud", 0, 0, 921600));
    for (const toml::table* entry : Entries(root, "instrument")) {
      plan.instruments.push_back(ReadInstrument(*entry));
    }
    if (plan.instruments.empty()) Bad(root.source(), "instrument", "the plan lists no instrument");
    CheckNamedOnce(root, plan.instruments);
    if (const toml::node* limits = root.get("limits")) {
      const toml::table& table = Table(*limits, "limits");
      CheckKeys(table, "limits");
      plan.limits = ReadLimits(table, "limits");
      plan.bins = BinFile(table);
    }
    for (const toml::table* entry : Entries(root, "fiber")) {
      plan.fibers.push_back(ReadFiberLimits(*entry, plan));
    }
    for (const toml::table* entry : Entries(root, "sequence")) {
      plan.sequences.push_back(ReadSequence(*entry, plan));
    }
    const bool accepts = plan.limits.accept || std::any_of(plan.fibers.begin(), plan.fibers.end(),
                                                           [](const FiberLimits& fiber) {
                                                             return fiber.limits.accept.has_value();
                                                           });
    if (accepts && plan.bins.empty()) {
      Bad(root.source(), "limits.bins", "accept names bins, but the plan has no bin file");
    }
    return plan;
  }

 private:
  [[noreturn]] void Bad(const toml::source_region& where, const std::string& key,
                        const std::string& text) const {
    UsageError(file_ + ":" + std::to_string(where.begin.line) + ": " + key + ": " + text);
  }

  static std::string Dotted(const std::string& table, const std::string& key) {
    return table.empty() ? key : table + "." + key;
  }

  void CheckKeys(const toml::table& table, const std::string& name) const {
    const std::set<std::string>& known = KnownKeys().at(name);
    for (const auto& [key, value] : table) {
      if (known.count(std::string(key.str())) == 0) {
        Bad(key.source(), Dotted(name, std::string(key.str())), "unknown key");
      }
    }
  }

  const toml::table& Table(const toml::node& node, const std::string& key) const {
    if (!node.is_table()) Bad(node.source(), key, "expected a table ([" + key + "])");
    return *node.as_table();
  }

  // The tables of an array of tables ([[name]]), each checked for its keys.
  std::vector<const toml::table*> Entries(const toml::table& root, const std::string& name) const {
    std::vector<const toml::table*> entries;
    const toml::node* node = root.get(name);
    if (node == nullptr) return entries;
    const toml::array* array = node->as_array();
    if (array == nullptr || !array->is_array_of_tables()) {
      Bad(node->source(), name, "expected [[" + name + "]] entries");
    }
    for (const toml::node& entry : *array) {
      entries.push_back(entry.as_table());
      CheckKeys(*entries.back(), name);
    }
    return entries;
  }

  std::string OptionalString(const toml::table& table, const std::string& name,
                             const std::string& key) const {
    const toml::node* node = table.get(key);
    if (node == nullptr) return "";
    if (!node->is_string() || node->as_string()->get().empty()) {
      Bad(node->source(), Dotted(name, key), "expected a text that is not empty");
    }
    return node->as_string()->get();
  }

  std::string RequiredString(const toml::table& table, const std::string& name,
                             const std::string& key) const {
    std::string text = OptionalString(table, name, key);
    if (text.empty()) Bad(table.source(), Dotted(name, key), "missing");
    return text;
  }

  long Whole(const toml::table& table, const std::string& name, const std::string& key,
             long otherwise, long min, long max) const {
    const toml::node* node = table.get(key);
    if (node == nullptr) return otherwise;
    const std::optional<int64_t> value = node->is_integer() ? node->value<int64_t>() : std::nullopt;
    if (!value || *value < min || *value > max) {
      Bad(node->source(), Dotted(name, key),
          "expected a whole number from " + std::to_string(min) + " to " + std::to_string(max));
    }
    return static_cast<long>(*value);
  }

  std::optional<Window> ReadWindow(const toml::table& table, const std::string& name,
                                   const std::string& key) const {
    const toml::node* node = table.get(key);
    if (node == nullptr) return std::nullopt;
    const toml::array* array = node->as_array();
    std::optional<double> low;
    std::optional<double> high;
    if (array != nullptr && array->size() == 2) {
      low = (*array)[0].value<double>();
      high = (*array)[1].value<double>();
    }
    if (!low || !high || !std::isfinite(*low) || !std::isfinite(*high) || *low > *high) {
      Bad(node->source(), Dotted(name, key), "expected [low, high], two numbers, low <= high");
    }
    return Window{*low, *high};
  }

  std::optional<std::vector<std::string>> ReadNames(const toml::table& table,
                                                    const std::string& name,
                                                    const std::string& key) const {
    const toml::node* node = table.get(key);
    if (node == nullptr) return std::nullopt;
    const toml::array* array = node->as_array();
    std::vector<std::string> names;
    if (array != nullptr) {
      for (const toml::node& item : *array) {
        if (!item.is_string()) break;
        names.push_back(item.as_string()->get());
      }
    }
    if (array == nullptr || names.size() != array->size() || names.empty()) {
      Bad(node->source(), Dotted(name, key), "expected a list of bin names, [\"A1\", ...]");
    }
    return names;
  }

  Limits ReadLimits(const toml::table& table, const std::string& name) const {
    Limits limits;
    limits.x = ReadWindow(table, name, "x");
    limits.y = ReadWindow(table, name, "y");
    limits.intensity = ReadWindow(table, name, "intensity");
    limits.wavelength = ReadWindow(table, name, "wavelength");
    limits.accept = ReadNames(table, name, "accept");
    return limits;
  }

  // Relative to the plan; the library reads and checks it now, so that a
  // bad one stops the plan before any instrument is touched.
  std::string BinFile(const toml::table& limits) const {
    const std::string name = OptionalString(limits, "limits", "bins");
    if (name.empty()) return "";
    const std::filesystem::path path = std::filesystem::path(file_).parent_path() / name;
    char bin[256] = "";
    if (ZeltoCom_Binning_FindBin(path.c_str(), bin, sizeof bin, 0.0F, 0.0F) == -1) {
      Bad(limits.get("bins")->source(), "limits.bins", path.string() + ": " + LastError());
    }
    return path.string();
  }

  // "1-8", "1,3,5-7", 4 or [1, 3]: each fiber once, in the order given.
  std::vector<int> ReadFibers(const toml::table& table) const {
    const toml::node* node = table.get("fibers");
    if (node == nullptr) return {};
    std::vector<std::pair<long, long>> spans;
    try {
      if (const auto text = node->value_exact<std::string>()) {
        for (std::size_t start = 0; start <= text->size();) {
          std::size_t end = text->find(',', start);
          if (end == std::string::npos) end = text->size();
          spans.push_back(ParseSpan(text->substr(start, end - start), "\"" + *text + "\"", 1, 99));
          start = end + 1;
        }
      } else if (const toml::array* array = node->as_array()) {
        for (const toml::node& item : *array) {
          const long fiber = item.value_exact<int64_t>().value_or(0);
          spans.push_back(ParseSpan(std::to_string(fiber), "a fiber", 1, 99));
        }
      } else {
        const long fiber = node->value_exact<int64_t>().value_or(0);
        spans.push_back(ParseSpan(std::to_string(fiber), "the fiber", 1, 99));
      }
    } catch (const Stop& stop) {
      Bad(node->source(), "instrument.fibers", stop.text);
    }
    std::vector<int> fibers;
    for (const auto& [first, last] : spans) {
      for (long fiber = first; fiber <= last; ++fiber) {
        if (std::find(fibers.begin(), fibers.end(), fiber) != fibers.end()) {
          Bad(node->source(), "instrument.fibers", "fiber " + std::to_string(fiber) + " twice");
        }
        fibers.push_back(static_cast<int>(fiber));
      }
    }
    if (fibers.empty()) Bad(node->source(), "instrument.fibers", "no fiber listed");
    return fibers;
  }

  PlanInstrument ReadInstrument(const toml::table& table) const {
    PlanInstrument instrument;
    instrument.serial = OptionalString(table, "instrument", "serial");
    instrument.path = OptionalString(table, "instrument", "path");
    if (instrument.serial.empty() == instrument.path.empty()) {
      Bad(table.source(), "instrument", "give either serial or path");
    }
    instrument.fibers = ReadFibers(table);
    instrument.captureRange =
        static_cast<int>(Whole(table, "instrument", "capture_range", 0, 0, 6));
    if (const toml::node* pwm = table.get("pwm")) {
      if (!pwm->is_boolean()) Bad(pwm->source(), "instrument.pwm", "expected true or false");
      instrument.pwm = pwm->as_boolean()->get();
    }
    return instrument;
  }

  void CheckNamedOnce(const toml::table& root, const std::vector<PlanInstrument>& instruments) {
    std::set<std::string> names;
    for (const PlanInstrument& instrument : instruments) {
      if (!names.insert(instrument.Name()).second) {
        Bad(root.source(), "instrument", instrument.Name() + " is listed twice");
      }
    }
  }

  // The instrument an entry names by its serial number or path; an entry of
  // a plan with one instrument may leave it out.
  std::size_t InstrumentOf(const toml::table& table, const std::string& name,
                           const Plan& plan) const {
    const std::string named = OptionalString(table, name, "instrument");
    if (named.empty() && plan.instruments.size() == 1) return 0;
    if (named.empty()) Bad(table.source(), name + ".instrument", "missing");
    for (std::size_t i = 0; i < plan.instruments.size(); ++i) {
      if (plan.instruments[i].Name() == named) return i;
    }
    Bad(table.get("instrument")->source(), name + ".instrument",
        named + " is no [[instrument]] of the plan (by its serial or path)");
  }

  int FiberOf(const toml::table& table, const std::string& name,
              const PlanInstrument& instrument) const {
    if (table.get("fiber") == nullptr) Bad(table.source(), name + ".fiber", "missing");
    const int fiber = static_cast<int>(Whole(table, name, "fiber", 0, 1, 99));
    const std::vector<int>& listed = instrument.fibers;
    if (!listed.empty() && std::find(listed.begin(), listed.end(), fiber) == listed.end()) {
      Bad(table.get("fiber")->source(), name + ".fiber",
          "fiber " + std::to_string(fiber) + " is not among the fibers of " + instrument.Name());
    }
    return fiber;
  }

  FiberLimits ReadFiberLimits(const toml::table& table, const Plan& plan) const {
    const std::size_t instrument = InstrumentOf(table, "fiber", plan);
    const int fiber = FiberOf(table, "fiber", plan.instruments[instrument]);
    for (const FiberLimits& earlier : plan.fibers) {
      if (earlier.instrument == instrument && earlier.fiber == fiber) {
        Bad(table.source(), "fiber",
            "a second entry for fiber " + std::to_string(fiber) + " of " +
                plan.instruments[instrument].Name());
      }
    }
    return {instrument, fiber, ReadLimits(table, "fiber")};
  }

  SequenceCheck ReadSequence(const toml::table& table, const Plan& plan) const {
    const std::size_t instrument = InstrumentOf(table, "sequence", plan);
    SequenceCheck check{instrument, FiberOf(table, "sequence", plan.instruments[instrument]),
                        ReadWindow(table, "sequence", "frequency"),
                        ReadWindow(table, "sequence", "duty_cycle")};
    if (!check.frequency) Bad(table.source(), "sequence.frequency", "missing");
    if (check.frequency->low <= 0) {
      Bad(table.get("frequency")->source(), "sequence.frequency", "must be above 0 Hz");
    }
    if (check.dutyCycle && (check.dutyCycle->low < 0 || check.dutyCycle->high > 1)) {
      Bad(table.get("duty_cycle")->source(), "sequence.duty_cycle",
          "expected a share from 0 to 1 (0.5: lit half the time)");
    }
    return check;
  }

  const std::string file_;
};

}  // namespace

Limits Plan::LimitsOf(std::size_t instrument, int fiber) const {
  Limits merged = limits;
  for (const FiberLimits& entry : fibers) {
    if (entry.instrument != instrument || entry.fiber != fiber) continue;
    const Limits& own = entry.limits;
    if (own.x) merged.x = own.x;
    if (own.y) merged.y = own.y;
    if (own.intensity) merged.intensity = own.intensity;
    if (own.wavelength) merged.wavelength = own.wavelength;
    if (own.accept) merged.accept = own.accept;
  }
  return merged;
}

Plan ReadPlan(const std::string& file) { return PlanReader(file).Read(); }

}  // namespace cli
