#include "plan_report.hpp"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <sstream>

#include "output.hpp"
#include "xml.hpp"

namespace cli {
namespace {

std::string ValueText(const Json& value) { return value.is_null() ? "none" : CellText(value); }

std::string Joined(const Json& texts, const std::string& separator) {
  std::string joined;
  for (const Json& text : texts) {
    joined += (joined.empty() ? "" : separator) +
              (text.is_string() ? text.get<std::string>() : FailureText(text));
  }
  return joined;
}

bool Coloured() { return StdoutIsTerminal() && std::getenv("NO_COLOR") == nullptr; }

// PASS green, anything else red, on a terminal.
std::string Verdict(const std::string& word) {
  if (!Coloured()) return word;
  return (word == "PASS" ? "\033[32m" : "\033[1;31m") + word + "\033[0m";
}

std::string FiberVerdict(const Json& fiber) {
  if (fiber["pass"].get<bool>()) return Verdict("PASS");
  return Verdict("FAIL") + " " + Joined(fiber["failed"], "; ");
}

std::string Scale(const Json& intensity) {
  return intensity["scale"] == "logarithmic" ? "log" : "lin";
}

std::string UnitName(const Json& result) {
  return result["unit"].is_null() ? "unit" : "unit " + result["unit"].get<std::string>();
}

// Seconds from "2026-11-24T09:12:03.120Z" to another such time.
double Seconds(const std::string& start, const std::string& end) {
  const auto parse = [](const std::string& text) {
    std::tm utc{};
    int millis = 0;
    if (std::sscanf(text.c_str(), "%d-%d-%dT%d:%d:%d.%dZ", &utc.tm_year, &utc.tm_mon, &utc.tm_mday,
                    &utc.tm_hour, &utc.tm_min, &utc.tm_sec, &millis) != 7) {
      return 0.0;
    }
    utc.tm_year -= 1900;
    utc.tm_mon -= 1;
    return static_cast<double>(timegm(&utc)) + millis / 1000.0;
  };
  return parse(end) - parse(start);
}

std::string Attribute(const std::string& name, const std::string& value) {
  return " " + name + "=\"" + XmlEscaped(value) + "\"";
}

// Counts of a suite: test cases, failures, errors.
struct Tally {
  int tests = 0;
  int failures = 0;
  int errors = 0;
  std::string Attributes() const {
    return Attribute("tests", std::to_string(tests)) +
           Attribute("failures", std::to_string(failures)) +
           Attribute("errors", std::to_string(errors));
  }
};

std::string TestCase(const std::string& plan, const std::string& serial, const std::string& name,
                     const std::string& element, const std::string& message) {
  std::string xml =
      "    <testcase" + Attribute("classname", plan + "." + serial) + Attribute("name", name);
  if (element.empty()) return xml + "/>\n";
  return xml + ">\n      <" + element + Attribute("message", message) +
         Attribute("type", element == "error" ? "instrument" : "limits") + ">" +
         XmlEscaped(message) + "</" + element + ">\n    </testcase>\n";
}

bool WriteFile(const std::string& path, const std::string& text, std::string* error) {
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  if (file) file << text;
  if (file) file.close();
  if (!file) *error = "cannot write " + path + ": " + std::strerror(errno);
  return static_cast<bool>(file);
}

}  // namespace

std::string FailureText(const Json& failed) {
  const Json& window = failed["window"];
  std::string text = failed["limit"].get<std::string>() + " " + ValueText(failed["value"]);
  if (failed["limit"] == "bin") return text + " not in [" + Joined(window, ", ") + "]";
  return text + " not in [" + CellText(window[0]) + ", " + CellText(window[1]) + "]";
}

void PrintReport(const Json& result) {
  if (JsonWanted()) {
    PrintJson(result);
    return;
  }
  Table table({{"serial", "SERIAL"},
               {"fiber", "FIBER"},
               {"x", "X"},
               {"y", "Y"},
               {"intensity", "INTENSITY"},
               {"raw", "RAW"},
               {"scale", "SCALE"},
               {"wavelength", "NM"},
               {"bin", "BIN"},
               {"result", "RESULT"}});
  for (const Json& instrument : result["instruments"]) {
    const Json serial = instrument["serial"].is_null() ? instrument["path"] : instrument["serial"];
    if (!instrument["error"].is_null()) {
      table.Add({{"serial", serial},
                 {"result", Verdict("ERROR") + " " + instrument["error"].get<std::string>()}});
    }
    for (const Json& fiber : instrument["fibers"]) {
      table.Add({{"serial", serial},
                 {"fiber", fiber["fiber"]},
                 {"x", fiber["x"]},
                 {"y", fiber["y"]},
                 {"intensity", fiber["intensity"]["linear"]},
                 {"raw", fiber["intensity"]["raw"]},
                 {"scale", Scale(fiber["intensity"])},
                 {"wavelength", fiber["wavelength"]},
                 {"bin", fiber["bin"]},
                 {"result", FiberVerdict(fiber)}});
    }
  }
  std::printf("%s: %s, station %s\n", result["plan"].get<std::string>().c_str(),
              UnitName(result).c_str(), result["station"].get<std::string>().c_str());
  table.Print();
  for (const Json& sequence : result.value("sequences", Json::array())) {
    std::printf("sequence %s fiber %d: %s Hz, duty cycle %s: %s\n",
                sequence["instrument"].get<std::string>().c_str(), sequence["fiber"].get<int>(),
                ValueText(sequence["frequency"]).c_str(), ValueText(sequence["duty_cycle"]).c_str(),
                FiberVerdict(sequence).c_str());
  }
  std::printf("%s: %s\n", UnitName(result).c_str(),
              Verdict(result["pass"].get<bool>() ? "PASS" : "FAIL").c_str());
}

bool WriteCsv(const Json& result, const std::string& path, std::string* error) {
  std::string text =
      "unit,plan,serial,fiber,x,y,intensity_linear,intensity_raw,scale,wavelength,bin,pass,"
      "failed\r\n";
  const auto row = [&text, &result](const std::vector<Json>& cells) {
    std::string line = CsvField(result["unit"].is_null() ? "" : CellText(result["unit"])) + "," +
                       CsvField(CellText(result["plan"]));
    for (const Json& cell : cells) line += "," + CsvField(cell.is_null() ? "" : CellText(cell));
    text += line + "\r\n";
  };
  for (const Json& instrument : result["instruments"]) {
    const Json& serial = instrument["serial"];
    if (!instrument["error"].is_null()) {
      row({serial, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, "false",
           "error: " + instrument["error"].get<std::string>()});
    }
    for (const Json& fiber : instrument["fibers"]) {
      const Json& intensity = fiber["intensity"];
      row({serial, fiber["fiber"], fiber["x"], fiber["y"], intensity["linear"], intensity["raw"],
           intensity["scale"], fiber["wavelength"], fiber["bin"], fiber["pass"],
           Joined(fiber["failed"], "; ")});
    }
  }
  return WriteFile(path, text, error);
}

bool WriteJUnit(const Json& raw, const std::string& path, std::string* error) {
  // Through JSON and back: every text is valid UTF-8 then, as XML needs.
  const Json result = Json::parse(raw.dump(-1, ' ', false, Json::error_handler_t::replace));
  const std::string plan = result["plan"].get<std::string>();
  Tally tally;
  std::string cases;
  for (const Json& instrument : result["instruments"]) {
    const std::string serial =
        CellText(instrument["serial"].is_null() ? instrument["path"] : instrument["serial"]);
    if (!instrument["error"].is_null()) {
      ++tally.tests;
      ++tally.errors;
      cases += TestCase(plan, serial, serial, "error", instrument["error"].get<std::string>());
    }
    for (const Json& fiber : instrument["fibers"]) {
      const bool pass = fiber["pass"].get<bool>();
      ++tally.tests;
      tally.failures += pass ? 0 : 1;
      cases += TestCase(plan, serial, serial + " fiber " + CellText(fiber["fiber"]),
                        pass ? "" : "failure", Joined(fiber["failed"], "; "));
    }
  }
  for (const Json& sequence : result.value("sequences", Json::array())) {
    const bool pass = sequence["pass"].get<bool>();
    ++tally.tests;
    tally.failures += pass ? 0 : 1;
    const std::string serial = sequence["instrument"].get<std::string>();
    cases += TestCase(plan, serial, serial + " fiber " + CellText(sequence["fiber"]) + " sequence",
                      pass ? "" : "failure", Joined(sequence["failed"], "; "));
  }
  const std::string unit = result["unit"].is_null() ? plan : result["unit"].get<std::string>();
  char time[32];
  std::snprintf(time, sizeof time, "%.3f",
                Seconds(result["start"].get<std::string>(), result["end"].get<std::string>()));
  std::ostringstream xml;
  xml << "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
      << "<testsuites" << Attribute("name", plan) << tally.Attributes() << Attribute("time", time)
      << ">\n"
      << "  <testsuite" << Attribute("name", unit) << tally.Attributes()
      << Attribute("timestamp", result["start"].get<std::string>())
      << Attribute("hostname", result["station"].get<std::string>()) << Attribute("time", time)
      << ">\n"
      << "    <properties>\n"
      << "      <property" << Attribute("name", "plan") << Attribute("value", plan) << "/>\n"
      << "      <property" << Attribute("name", "station")
      << Attribute("value", result["station"].get<std::string>()) << "/>\n"
      << "    </properties>\n"
      << cases << "  </testsuite>\n</testsuites>\n";
  return WriteFile(path, xml.str(), error);
}

}  // namespace cli
