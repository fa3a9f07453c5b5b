// A canvas that draws nothing and records every call with the state it was made in (pen, brush,
// text colour, clip), so that a test can check coordinates and colours of what a window would draw.
// Text is measured with fixed metrics: every character char_width pixels wide, char_height high.
#pragma once
#include <optional>
#include <string>
#include <vector>

#include "platform/canvas.h"

namespace platform {

enum class DrawOp : std::uint8_t { Fill, Line, Ellipse, RoundRect, Text, Clip };

struct DrawCall {
  DrawOp op = DrawOp::Fill;
  Rect box;                   // Fill/Ellipse/RoundRect/Clip: the area; Line: from (left, top) to (right, bottom)
  Colour pen = 0;                  // Line, Ellipse, RoundRect
  std::optional<Colour> brush;   // Ellipse, RoundRect (empty: hollow); Fill: its colour
  Colour text_colour = 0;          // Text
  std::string text;           // Text
  TextAlign align = TextAlign::Left;
  int x = 0, y = 0;           // Text position
  int corner = 0;             // RoundRect corner width
};

class RecordingCanvas : public Canvas {
 public:
  RecordingCanvas(int width, int height, int char_width = 6, int char_height = 11)
      : width_(width), height_(height), char_width_(char_width), char_height_(char_height) {}
  int Width() const override { return width_; }
  int Height() const override { return height_; }
  void SetPen(Colour colour) override { pen_ = colour; }
  void SetBrush(Colour colour) override { brush_ = colour; }
  void SetHollowBrush() override { brush_.reset(); }
  void SetTextColor(Colour colour) override { text_ = colour; }
  void SetFont(std::string_view face, int points) override;
  void Fill(const Rect& area, Colour colour) override;
  void MoveTo(int x, int y) override { x_ = x, y_ = y; }
  void LineTo(int x, int y) override;
  void Ellipse(const Rect& box) override;
  void RoundRect(const Rect& box, int corner_width, int corner_height) override;
  void Text(int x, int y, std::string_view text, TextAlign align) override;
  TextSize Measure(std::string_view text) override;
  void Clip(const Rect& area) override;

  std::vector<DrawCall> calls;
  std::string font_face;
  int font_points = 0;

  // The calls of one kind, in order.
  std::vector<DrawCall> Of(DrawOp op) const;

 private:
  DrawCall& Record(DrawOp op, const Rect& box);
  int width_, height_, char_width_, char_height_;
  Colour pen_ = 0, text_ = 0;
  std::optional<Colour> brush_ = Rgb(255, 255, 255);
  int x_ = 0, y_ = 0;
};

// What the last canvas of an in-memory window's control (CreateControlCanvas) drew, with its
// size: a test's view of a window's plot. Empty until one was drawn.
struct ControlDrawing {
  int width = 0, height = 0;
  std::vector<DrawCall> calls;
  std::vector<DrawCall> Of(DrawOp op) const;
};
ControlDrawing LastControlDrawing();
int ControlDrawingCount();   // how many such canvases were finished since the process started

// With a picture maker (CreateSvgTextCanvas), an in-memory window's control canvas draws an SVG
// picture instead of recording: the sheet process sends what its windows draw to its front end.
// Handed in rather than called from here, so that programs without pictures (the provider's host)
// load no drawing library. Returns whether pictures are on (false where the maker makes none:
// Windows); nullptr turns them off.
using SvgCanvasMaker = std::unique_ptr<ImageCanvas> (*)(std::string& out, int width, int height);
bool DrawControlPictures(SvgCanvasMaker maker);
struct ControlPicture {
  const Dialog* window = nullptr;   // the window drawn on
  int id = 0;                       // its control
  int width = 0, height = 0;        // pixels
  std::string svg;
};
std::vector<ControlPicture> TakeControlPictures();   // finished since the last call, oldest first

}  // namespace platform
