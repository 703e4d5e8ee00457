// Pictures as plain SVG 1.1 text: a document of shapes and texts, and axes
// that place data in it.
#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace cli::svg {

struct Point {
  double x = 0;
  double y = 0;
};

// A shape's look; an empty colour draws nothing of that part.
struct Style {
  Style(std::string strokeColour = "black", std::string fillColour = "", double strokeWidth = 1,
        double opacity = 1)
      : stroke(std::move(strokeColour)),
        fill(std::move(fillColour)),
        width(strokeWidth),
        fillOpacity(opacity) {}
  std::string stroke;
  std::string fill;
  double width;
  double fillOpacity;
};

enum class Anchor { kStart, kMiddle, kEnd };

struct Font {
  Font(double textSize = 12, Anchor textAnchor = Anchor::kStart, std::string textColour = "black")
      : size(textSize), anchor(textAnchor), colour(std::move(textColour)) {}
  double size;
  Anchor anchor;
  std::string colour;
  bool bold = false;
  double rotation = 0;  // degrees, clockwise about the text's point
};

// A picture `width` by `height` pixels, y growing downwards, on white.
class Document {
 public:
  Document(double width, double height);

  void Line(Point from, Point to, const Style& style);
  void Polyline(const std::vector<Point>& points, const Style& style);
  void Polygon(const std::vector<Point>& points, const Style& style);
  void Rect(Point corner, Point size, const Style& style);
  void Circle(Point centre, double radius, const Style& style);
  void Text(Point at, std::string_view text, const Font& font = {});
  // Centred at the top: the title in bold, the line under it plain.
  void Title(std::string_view title, std::string_view under);

  // What is drawn until EndClip shows only inside the rectangle.
  void BeginClip(Point corner, Point size);
  void EndClip();

  std::string Finished() const;
  // To the file at `path`, or to stdout for "-"; Failure when not written.
  void Save(const std::string& path) const;

 private:
  void Shape(const std::string& element, const Style& style);

  double width_;
  double height_;
  std::string body_;
  int clips_ = 0;
  int openClips_ = 0;
};

struct Span {
  double low = 0;
  double high = 1;
};

// Steps of 1, 2 or 5 times a power of ten, about `count` of them over `span`.
double TickStep(Span span, int count);

// The rectangle at `corner` of `size` pixels, showing `x` across and `y`
// upwards.
class Axes {
 public:
  Axes(Document& document, Point corner, Point size, Span x, Span y);

  Document& Picture() const { return document_; }
  Point At(double x, double y) const;
  Point At(Point data) const { return At(data.x, data.y); }
  Span X() const { return x_; }
  Span Y() const { return y_; }

  // The frame with a light grid, ticks with their numbers, and the titles.
  void Draw(const std::string& xTitle, const std::string& yTitle, int xTicks = 8,
            int yTicks = 8) const;
  // Data drawn between these shows only inside the frame.
  void BeginClip() const { document_.BeginClip(corner_, size_); }
  void EndClip() const { document_.EndClip(); }

 private:
  Document& document_;
  Point corner_;
  Point size_;
  Span x_;
  Span y_;
};

}  // namespace cli::svg
