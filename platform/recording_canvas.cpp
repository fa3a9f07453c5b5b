// The recording canvas of the tests (no drawing, no operating system).
#include "platform/recording_canvas.h"

namespace platform {

DrawCall& RecordingCanvas::Record(DrawOp op, const Rect& box) {
  DrawCall& c = calls.emplace_back();
  c.op = op;
  c.box = box;
  c.pen = pen_;
  c.brush = brush_;
  c.text_colour = text_;
  return c;
}

void RecordingCanvas::SetFont(std::string_view face, int points) {
  font_face = std::string(face);
  font_points = points;
}

void RecordingCanvas::Fill(const Rect& area, Rgb colour) { Record(DrawOp::Fill, area).brush = colour; }

void RecordingCanvas::LineTo(int x, int y) {
  Record(DrawOp::Line, {x_, y_, x, y});
  x_ = x, y_ = y;
}

void RecordingCanvas::Ellipse(const Rect& box) { Record(DrawOp::Ellipse, box); }

void RecordingCanvas::RoundRect(const Rect& box, int corner_width, int) {
  Record(DrawOp::RoundRect, box).corner = corner_width;
}

void RecordingCanvas::Text(int x, int y, std::string_view text, TextAlign align) {
  DrawCall& c = Record(DrawOp::Text, {});
  c.text = std::string(text);
  c.align = align;
  c.x = x;
  c.y = y;
}

TextSize RecordingCanvas::Measure(std::string_view text) {
  return {static_cast<int>(text.size()) * char_width_, char_height_};
}

void RecordingCanvas::Clip(const Rect& area) { Record(DrawOp::Clip, area); }

std::vector<DrawCall> RecordingCanvas::Of(DrawOp op) const {
  std::vector<DrawCall> out;
  for (const auto& c : calls)
    if (c.op == op) out.push_back(c);
  return out;
}

}  // namespace platform
