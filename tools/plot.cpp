// zeltocom plot: pictures of a test plan's results.
#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <fstream>
#include <memory>
#include <optional>
#include <sstream>

#include "commands.hpp"
#include "json.hpp"
#include "library.hpp"
#include "svg.hpp"
#include "zeltocom.h"

namespace cli {
namespace {

using svg::Point;

// The CIE 1931 2-degree observer's colour-matching functions.
struct Observer {
  int nm;
  double x;
  double y;
  double z;
};
constexpr Observer kObserver[] = {
#include "cie1931.inc"
};

Point Chromaticity(double x, double y, double z) {
  const double sum = x + y + z;
  return {x / sum, y / sum};
}

std::vector<Point> SpectralLocus() {
  std::vector<Point> locus;
  for (const Observer& o : kObserver) locus.push_back(Chromaticity(o.x, o.y, o.z));
  return locus;
}

// The chromaticity of a black body at `kelvin`: Planck's law weighted by
// the colour-matching functions.
Point Planckian(double kelvin) {
  constexpr double kSecondRadiation = 1.4387769e-2;  // hc/k, m K
  double x = 0;
  double y = 0;
  double z = 0;
  for (const Observer& o : kObserver) {
    const double metres = o.nm * 1e-9;
    const double radiance =
        1 / (std::pow(metres, 5) * std::expm1(kSecondRadiation / (metres * kelvin)));
    x += o.x * radiance;
    y += o.y * radiance;
    z += o.z * radiance;
  }
  return Chromaticity(x, y, z);
}

// A fiber's point as the picture marks it.
struct Mark {
  std::string label;  // "serial:fiber"
  Point at;
  bool pass = false;
};

struct Result {
  std::string title;
  std::string subtitle;
  std::vector<Mark> marks;
};

[[noreturn]] void NotAResult(const std::string& file, const std::string& why) {
  UsageError(file + ": not a test result document: " + why);
}

const Json& Member(const Json& object, const std::string& key, const std::string& where,
                   const std::string& file) {
  if (!object.is_object() || !object.contains(key))
    NotAResult(file, where + " has no \"" + key + '"');
  return object[key];
}

std::string TextOf(const Json& value, const std::string& what, const std::string& file) {
  if (value.is_null()) return "";
  if (!value.is_string()) NotAResult(file, what + " is not a text");
  return value.get<std::string>();
}

// A fiber without a number for x or y (null) is not marked.
std::optional<Mark> MarkOf(const Json& fiber, const std::string& serial, const std::string& where,
                           const std::string& file) {
  const Json& x = Member(fiber, "x", where, file);
  const Json& y = Member(fiber, "y", where, file);
  const Json& number = Member(fiber, "fiber", where, file);
  const Json& pass = Member(fiber, "pass", where, file);
  if (!number.is_number_integer() || !pass.is_boolean() || !(x.is_number() || x.is_null()) ||
      !(y.is_number() || y.is_null())) {
    NotAResult(file, where + ": fiber must be a whole number, x and y numbers, pass true or false");
  }
  if (x.is_null() || y.is_null()) return std::nullopt;
  return Mark{serial + ':' + std::to_string(number.get<long>()),
              {x.get<double>(), y.get<double>()},
              pass.get<bool>()};
}

Result ReadResult(const std::string& file) {
  std::ifstream in(file, std::ios::binary);
  if (!in) UsageError(file + ": " + std::strerror(errno));
  const Json document = Json::parse(in, nullptr, false);
  if (document.is_discarded()) NotAResult(file, "no JSON");
  Result result;
  const std::string plan = TextOf(Member(document, "plan", "the document", file), "plan", file);
  const std::string unit = TextOf(Member(document, "unit", "the document", file), "unit", file);
  const Json& pass = Member(document, "pass", "the document", file);
  result.title = plan + (unit.empty() ? "" : ", unit " + unit) +
                 (pass.is_boolean() ? (pass.get<bool>() ? ": PASS" : ": FAIL") : "");
  const std::string station =
      document.contains("station") ? TextOf(document["station"], "station", file) : "";
  const std::string start =
      document.contains("start") ? TextOf(document["start"], "start", file) : "";
  result.subtitle = station + (station.empty() || start.empty() ? "" : ", ") + start;
  const Json& instruments = Member(document, "instruments", "the document", file);
  if (!instruments.is_array()) NotAResult(file, "instruments is not a list");
  for (std::size_t i = 0; i < instruments.size(); ++i) {
    const std::string where = "instruments[" + std::to_string(i) + "]";
    const Json& instrument = instruments[i];
    const std::string serial =
        TextOf(Member(instrument, "serial", where, file), where + ".serial", file);
    const Json& fibers = Member(instrument, "fibers", where, file);
    if (!fibers.is_array()) NotAResult(file, where + ".fibers is not a list");
    for (std::size_t f = 0; f < fibers.size(); ++f) {
      const std::string at = where + ".fibers[" + std::to_string(f) + "]";
      if (std::optional<Mark> mark = MarkOf(fibers[f], serial, at, file)) {
        result.marks.push_back(std::move(*mark));
      }
    }
  }
  return result;
}

struct Bin {
  std::string name;
  std::vector<Point> corners;
};

std::vector<std::string> Split(const std::string& text, char separator) {
  std::vector<std::string> parts;
  std::stringstream stream(text);
  for (std::string part; std::getline(stream, part, separator);) parts.push_back(part);
  return parts;
}

// The library's list of the file's bins, in a buffer that grows until the
// list fits.
std::string BinList(const std::string& file) {
  for (std::size_t room = 4096;; room *= 4) {
    std::vector<char> list(room, '\0');
    if (ZeltoCom_Binning_ListBins(file.c_str(), list.data(), static_cast<int>(room)) == -1) {
      UsageError(file + ": " + LastError());
    }
    const std::size_t length = std::strlen(list.data());
    if (length + 1 < room || room > (std::size_t{1} << 28)) return {list.data(), length};
  }
}

// The bins as the library reads them; one with a corner that is no finite
// number cannot be drawn and is left out.
std::vector<Bin> ReadBins(const std::string& file) {
  std::vector<Bin> bins;
  for (const std::string& line : Split(BinList(file), '\n')) {
    const std::size_t eq = line.find('=');
    Bin bin{line.substr(0, eq), {}};
    for (const std::string& corner : Split(line.substr(eq + 1), ';')) {
      const std::vector<std::string> xy = Split(corner, ',');
      bin.corners.push_back(
          {std::strtod(xy.at(0).c_str(), nullptr), std::strtod(xy.at(1).c_str(), nullptr)});
    }
    if (std::ranges::all_of(bin.corners,
                            [](Point p) { return std::isfinite(p.x) && std::isfinite(p.y); })) {
      bins.push_back(std::move(bin));
    }
  }
  return bins;
}

// The whole chart, or with `zoom` the span of the points and bins with a
// margin; either in the proportions of the whole.
std::pair<svg::Span, svg::Span> View(bool zoom, const Result& result,
                                     const std::vector<Bin>& bins) {
  constexpr svg::Span kWholeX{0, 0.8};
  constexpr svg::Span kWholeY{0, 0.9};
  std::vector<Point> shown;
  for (const Mark& mark : result.marks) shown.push_back(mark.at);
  for (const Bin& bin : bins) shown.insert(shown.end(), bin.corners.begin(), bin.corners.end());
  if (!zoom || shown.empty()) return {kWholeX, kWholeY};
  const auto [left, right] = std::ranges::minmax(shown, {}, &Point::x);
  const auto [bottom, top] = std::ranges::minmax(shown, {}, &Point::y);
  const double ratio = (kWholeY.high - kWholeY.low) / (kWholeX.high - kWholeX.low);
  const double width = std::max({(right.x - left.x) * 1.3, (top.y - bottom.y) * 1.3 / ratio, 0.01});
  const Point centre{(left.x + right.x) / 2, (bottom.y + top.y) / 2};
  return {{centre.x - width / 2, centre.x + width / 2},
          {centre.y - width * ratio / 2, centre.y + width * ratio / 2}};
}

// A point `pixels` away from `at`, away from the white point.
Point Outwards(const svg::Axes& axes, Point at, double pixels) {
  const Point here = axes.At(at);
  const Point white = axes.At(1.0 / 3, 1.0 / 3);
  const double dx = here.x - white.x;
  const double dy = here.y - white.y;
  const double length = std::max(1e-9, std::hypot(dx, dy));
  return {here.x + dx / length * pixels, here.y + dy / length * pixels};
}

const svg::Style kLocusStyle("#222222", "#f7f7f7", 1.2);
const svg::Style kPlanckStyle("#b15928", "", 1.2);
const svg::Style kBinStyle("#1f5fa8", "#1f5fa8", 1, 0.1);
const svg::Style kPassStyle("#1b6e20", "#43a047");
const svg::Style kFailStyle("#d32f2f", "", 2);

void DrawSpectralLocus(const svg::Axes& axes) {
  std::vector<Point> outline;
  for (const Point& p : SpectralLocus()) outline.push_back(axes.At(p));
  axes.Picture().Polygon(outline, kLocusStyle);  // closed by the line of purples
}

void DrawWavelengths(const svg::Axes& axes) {
  for (const Observer& o : kObserver) {
    const bool labelled =
        (o.nm >= 460 && o.nm <= 620 && o.nm % 10 == 0 && (o.nm <= 520 || o.nm % 20 == 0)) ||
        o.nm == 700;
    if (!labelled) continue;
    const Point p = Chromaticity(o.x, o.y, o.z);
    axes.Picture().Line(axes.At(p), Outwards(axes, p, 5), svg::Style("#222222"));
    const Point label = Outwards(axes, p, 16);
    axes.Picture().Text({label.x, label.y + 3}, std::to_string(o.nm),
                        {9, svg::Anchor::kMiddle, "#444444"});
  }
}

void DrawPlanckianLocus(const svg::Axes& axes) {
  constexpr double kFirst = 1000;
  constexpr double kLast = 20000;
  std::vector<Point> curve;
  for (int i = 0; i <= 120; ++i) {
    curve.push_back(axes.At(Planckian(kFirst * std::pow(kLast / kFirst, i / 120.0))));
  }
  axes.Picture().Polyline(curve, kPlanckStyle);
  for (const int kelvin : {1000, 1500, 2000, 3000, 4000, 6500, 10000}) {
    const Point at = axes.At(Planckian(kelvin));
    axes.Picture().Circle(at, 1.8, {"", kPlanckStyle.stroke});
    axes.Picture().Text({at.x + 3, at.y + 13}, std::to_string(kelvin) + " K",
                        {9, svg::Anchor::kStart, kPlanckStyle.stroke});
  }
}

void DrawBins(const svg::Axes& axes, const std::vector<Bin>& bins) {
  for (const Bin& bin : bins) {
    std::vector<Point> outline;
    Point centre;
    for (const Point& corner : bin.corners) {
      outline.push_back(axes.At(corner));
      centre.x += outline.back().x / static_cast<double>(bin.corners.size());
      centre.y += outline.back().y / static_cast<double>(bin.corners.size());
    }
    axes.Picture().Polygon(outline, kBinStyle);
    axes.Picture().Text({centre.x, centre.y + 4}, bin.name,
                        {10, svg::Anchor::kMiddle, kBinStyle.stroke});
  }
}

void DrawPassMark(svg::Document& picture, Point at) { picture.Circle(at, 4, kPassStyle); }

void DrawFailMark(svg::Document& picture, Point at) {
  picture.Line({at.x - 4, at.y - 4}, {at.x + 4, at.y + 4}, kFailStyle);
  picture.Line({at.x - 4, at.y + 4}, {at.x + 4, at.y - 4}, kFailStyle);
}

void DrawMarks(const svg::Axes& axes, const std::vector<Mark>& marks) {
  for (const Mark& mark : marks) {
    const Point at = axes.At(mark.at);
    if (mark.pass) {
      DrawPassMark(axes.Picture(), at);
    } else {
      DrawFailMark(axes.Picture(), at);
    }
    axes.Picture().Text({at.x + 6, at.y - 5}, mark.label, svg::Font(9));
  }
}

void DrawLegend(svg::Document& picture, Point corner, const Result& result, bool withBins) {
  const auto passed = std::ranges::count_if(result.marks, &Mark::pass);
  const auto failed = static_cast<long>(result.marks.size()) - passed;
  double y = corner.y;
  const auto item = [&](const std::string& text, const std::function<void(Point)>& sample) {
    sample({corner.x + 10, y});
    picture.Text({corner.x + 26, y + 4}, text, svg::Font(11));
    y += 20;
  };
  item("pass (" + std::to_string(passed) + ")", [&](Point at) { DrawPassMark(picture, at); });
  item("fail (" + std::to_string(failed) + ")", [&](Point at) { DrawFailMark(picture, at); });
  item("spectral locus (nm)", [&](Point at) {
    picture.Line({at.x - 8, at.y}, {at.x + 8, at.y}, kLocusStyle);
  });
  item("Planckian locus", [&](Point at) {
    picture.Line({at.x - 8, at.y}, {at.x + 8, at.y}, kPlanckStyle);
  });
  if (withBins) {
    item("bin", [&](Point at) { picture.Rect({at.x - 8, at.y - 5}, {16, 10}, kBinStyle); });
  }
}

struct PlotOptions {
  std::string json;
  std::string bins;
  std::string output;
  bool zoom = false;
};

int RunCie(const PlotOptions& options) {
  const Result result = ReadResult(options.json);
  const std::vector<Bin> bins = options.bins.empty() ? std::vector<Bin>{} : ReadBins(options.bins);
  const auto [x, y] = View(options.zoom, result, bins);
  svg::Document picture(800, 730);
  picture.Title(result.title, result.subtitle);
  const svg::Axes axes(picture, {80, 60}, {540, 607.5}, x, y);
  axes.Draw("x", "y");
  axes.BeginClip();
  DrawSpectralLocus(axes);
  DrawPlanckianLocus(axes);
  DrawBins(axes, bins);
  DrawMarks(axes, result.marks);
  if (options.zoom) DrawWavelengths(axes);
  axes.EndClip();
  // The whole chart's wavelengths stand beside it, some outside the frame.
  if (!options.zoom) DrawWavelengths(axes);
  DrawLegend(picture, {640, 80}, result, !bins.empty());
  picture.Save(options.output);
  return kSuccess;
}

}  // namespace

Subcommand AddPlot(CLI::App& root) {
  auto options = std::make_shared<PlotOptions>();
  CLI::App* app = root.add_subcommand("plot", "pictures of results, as SVG");
  app->require_subcommand(1);
  app->footer("'zeltocom plot cie --help' tells more.");
  CLI::App* cie = app->add_subcommand("cie", "the fibers' points on the CIE 1931 chart");
  cie->footer("Draws the CIE 1931 chromaticity chart (the spectral locus, the Planckian locus\n"
              "from 1000 K to 20000 K) with each fiber of the test result RESULT.json (as\n"
              "'zeltocom test PLAN --json' writes it) as a point: a green circle when it\n"
              "passed, a red cross when it failed, named serial:fiber. --bins draws the bins of\n"
              "a bin file and names them. The whole chart by default; --zoom shows the points\n"
              "and bins alone, with a margin. Writes SVG to FILE ('-': standard output).");
  cie->add_option("--json", options->json, "the test result document")
      ->required()
      ->type_name("RESULT.json");
  cie->add_option("--bins", options->bins, "draw the bins of this bin file (.vec)")
      ->type_name("FILE");
  cie->add_option("-o,--output", options->output, "the SVG file to write")
      ->required()
      ->type_name("FILE");
  cie->add_flag("--zoom", options->zoom, "show the points and bins only, not the whole chart");
  return {app, [options] { return RunCie(*options); }};
}

}  // namespace cli
