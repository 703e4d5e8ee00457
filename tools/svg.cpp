#include "svg.hpp"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>

#include "args.hpp"
#include "xml.hpp"

namespace cli::svg {
namespace {

// Pixels to a hundredth: finer shows nowhere, and keeps the text short.
std::string Number(double value) {
  // Far beyond any picture, still a number a renderer reads.
  constexpr double kFar = 1e9;
  char text[48];
  std::snprintf(text, sizeof text, "%.2f", std::isnan(value) ? 0 : std::clamp(value, -kFar, kFar));
  std::string number = text;
  number.erase(number.find_last_not_of('0') + 1);
  if (number.back() == '.') number.pop_back();
  return number == "-0" ? "0" : number;
}

std::string PointList(const std::vector<Point>& points) {
  std::string list;
  for (const Point& point : points) {
    if (!list.empty()) list += ' ';
    list += Number(point.x) + ',' + Number(point.y);
  }
  return list;
}

const char* AnchorName(Anchor anchor) {
  switch (anchor) {
    case Anchor::kMiddle: return "middle";
    case Anchor::kEnd: return "end";
    case Anchor::kStart: break;
  }
  return "start";
}

// The tick's number with as many decimals as the step needs.
std::string TickLabel(double value, double step) {
  const int decimals = std::max(0, static_cast<int>(std::ceil(-std::log10(step) - 1e-9)));
  char text[48];
  std::snprintf(text, sizeof text, "%.*f", decimals, value);
  return text;
}

// The ticks of `span` at multiples of `step`.
std::vector<double> Ticks(Span span, double step) {
  std::vector<double> ticks;
  const double first = std::ceil(span.low / step - 1e-9);
  for (int k = 0; k < 1000 && (first + k) * step <= span.high + step * 1e-9; ++k) {
    ticks.push_back((first + k) * step + 0.0);  // no "-0"
  }
  return ticks;
}

// A span that can be shown: finite and not empty.
Span Shown(Span span) {
  if (!std::isfinite(span.low) || !std::isfinite(span.high)) return {0, 1};
  return span.high > span.low ? span : Span{span.low, span.low + 1};
}

}  // namespace

Document::Document(double width, double height) : width_(width), height_(height) {
  Rect({0, 0}, {width, height}, {"", "white"});
}

void Document::Shape(const std::string& element, const Style& style) {
  body_ += "<" + element;
  body_ += " stroke=\"" + (style.stroke.empty() ? "none" : style.stroke) + '"';
  if (!style.stroke.empty()) body_ += " stroke-width=\"" + Number(style.width) + '"';
  body_ += " fill=\"" + (style.fill.empty() ? "none" : style.fill) + '"';
  if (style.fillOpacity < 1) body_ += " fill-opacity=\"" + Number(style.fillOpacity) + '"';
  body_ += "/>\n";
}

void Document::Line(Point from, Point to, const Style& style) {
  Shape("line x1=\"" + Number(from.x) + "\" y1=\"" + Number(from.y) + "\" x2=\"" + Number(to.x) +
            "\" y2=\"" + Number(to.y) + '"',
        style);
}

void Document::Polyline(const std::vector<Point>& points, const Style& style) {
  Shape("polyline points=\"" + PointList(points) + '"', style);
}

void Document::Polygon(const std::vector<Point>& points, const Style& style) {
  Shape("polygon points=\"" + PointList(points) + '"', style);
}

void Document::Rect(Point corner, Point size, const Style& style) {
  Shape("rect x=\"" + Number(corner.x) + "\" y=\"" + Number(corner.y) + "\" width=\"" +
            Number(size.x) + "\" height=\"" + Number(size.y) + '"',
        style);
}

void Document::Circle(Point centre, double radius, const Style& style) {
  Shape("circle cx=\"" + Number(centre.x) + "\" cy=\"" + Number(centre.y) + "\" r=\"" +
            Number(radius) + '"',
        style);
}

void Document::Text(Point at, std::string_view text, const Font& font) {
  body_ += "<text x=\"" + Number(at.x) + "\" y=\"" + Number(at.y) + "\" font-size=\"" +
           Number(font.size) + "\" fill=\"" + font.colour + '"';
  if (font.anchor != Anchor::kStart)
    body_ += std::string(" text-anchor=\"") + AnchorName(font.anchor) + '"';
  if (font.bold) body_ += " font-weight=\"bold\"";
  if (font.rotation != 0) {
    body_ += " transform=\"rotate(" + Number(font.rotation) + ' ' + Number(at.x) + ' ' +
             Number(at.y) + ")\"";
  }
  body_ += '>' + XmlEscaped(text) + "</text>\n";
}

void Document::Title(std::string_view title, std::string_view under) {
  Font bold(16, Anchor::kMiddle);
  bold.bold = true;
  Text({width_ / 2, 26}, title, bold);
  Text({width_ / 2, 45}, under, {12, Anchor::kMiddle});
}

void Document::BeginClip(Point corner, Point size) {
  const std::string id = "clip" + std::to_string(++clips_);
  body_ += "<clipPath id=\"" + id + "\"><rect x=\"" + Number(corner.x) + "\" y=\"" +
           Number(corner.y) + "\" width=\"" + Number(size.x) + "\" height=\"" + Number(size.y) +
           "\"/></clipPath>\n<g clip-path=\"url(#" + id + ")\">\n";
  ++openClips_;
}

void Document::EndClip() {
  if (openClips_ == 0) return;
  --openClips_;
  body_ += "</g>\n";
}

std::string Document::Finished() const {
  std::string text = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
                     "<svg xmlns=\"http://www.w3.org/2000/svg\" version=\"1.1\" width=\"" +
                     Number(width_) + "\" height=\"" + Number(height_) + "\" viewBox=\"0 0 " +
                     Number(width_) + ' ' + Number(height_) + "\" font-family=\"sans-serif\">\n" +
                     body_;
  for (int i = 0; i < openClips_; ++i) text += "</g>\n";
  return text + "</svg>\n";
}

void Document::Save(const std::string& path) const {
  const std::string text = Finished();
  const bool toStdout = path == "-";
  std::FILE* file = toStdout ? stdout : std::fopen(path.c_str(), "wb");
  if (file == nullptr) Failure(path + ": " + std::strerror(errno));
  const bool written = std::fwrite(text.data(), 1, text.size(), file) == text.size();
  const bool closed = toStdout ? std::fflush(file) == 0 : std::fclose(file) == 0;
  if (!written || !closed) Failure(path + ": " + std::strerror(errno));
}

double TickStep(Span span, int count) {
  const double rough = (span.high - span.low) / std::max(1, count);
  if (!(rough > 0) || !std::isfinite(rough)) return 1;
  const double power = std::pow(10.0, std::floor(std::log10(rough)));
  for (const double factor : {1.0, 2.0, 5.0}) {
    if (factor * power >= rough) return factor * power;
  }
  return 10 * power;
}

Axes::Axes(Document& document, Point corner, Point size, Span x, Span y)
    : document_(document), corner_(corner), size_(size), x_(Shown(x)), y_(Shown(y)) {}

Point Axes::At(double x, double y) const {
  const double across = (x - x_.low) / (x_.high - x_.low);
  const double up = (y - y_.low) / (y_.high - y_.low);
  return {corner_.x + across * size_.x, corner_.y + (1 - up) * size_.y};
}

void Axes::Draw(const std::string& xTitle, const std::string& yTitle, int xTicks,
                int yTicks) const {
  const Style grid("#e4e4e4", "", 0.6);
  const Style tick("#333333");
  const double bottom = corner_.y + size_.y;
  const double xStep = TickStep(x_, xTicks);
  for (const double value : Ticks(x_, xStep)) {
    const double across = At(value, y_.low).x;
    document_.Line({across, corner_.y}, {across, bottom}, grid);
    document_.Line({across, bottom}, {across, bottom + 5}, tick);
    document_.Text({across, bottom + 18}, TickLabel(value, xStep), {11, Anchor::kMiddle});
  }
  const double yStep = TickStep(y_, yTicks);
  for (const double value : Ticks(y_, yStep)) {
    const double up = At(x_.low, value).y;
    document_.Line({corner_.x, up}, {corner_.x + size_.x, up}, grid);
    document_.Line({corner_.x - 5, up}, {corner_.x, up}, tick);
    document_.Text({corner_.x - 8, up + 4}, TickLabel(value, yStep), {11, Anchor::kEnd});
  }
  document_.Rect(corner_, size_, tick);
  document_.Text({corner_.x + size_.x / 2, bottom + 38}, xTitle, {13, Anchor::kMiddle});
  const Point yTitleAt{corner_.x - 50, corner_.y + size_.y / 2};
  Font turned(13, Anchor::kMiddle);
  turned.rotation = -90;
  document_.Text(yTitleAt, yTitle, turned);
}

}  // namespace cli::svg
