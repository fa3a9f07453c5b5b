// The recording canvas of the tests (no drawing, no operating system).
#include "platform/recording_canvas.h"

#include <mutex>

#include "platform/canvas_sys.h"
#include "platform/dialog.h"

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

void RecordingCanvas::Fill(const Rect& area, Colour colour) { Record(DrawOp::Fill, area).brush = colour; }

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

namespace {
std::vector<DrawCall> CallsOf(const std::vector<DrawCall>& calls, DrawOp op) {
  std::vector<DrawCall> out;
  for (const auto& c : calls)
    if (c.op == op) out.push_back(c);
  return out;
}
}  // namespace

std::vector<DrawCall> RecordingCanvas::Of(DrawOp op) const { return CallsOf(calls, op); }

}  // namespace platform

namespace platform {
namespace {

std::mutex g_drawing_lock;
ControlDrawing g_last_drawing;
int g_drawing_count = 0;

// A control's recording canvas: what it recorded becomes the last control drawing when it goes.
class ControlRecordingCanvas final : public RecordingCanvas {
 public:
  using RecordingCanvas::RecordingCanvas;
  ~ControlRecordingCanvas() override {
    std::lock_guard lock(g_drawing_lock);
    g_last_drawing = {Width(), Height(), std::move(calls)};
    ++g_drawing_count;
  }
};

}  // namespace

std::vector<DrawCall> ControlDrawing::Of(DrawOp op) const { return CallsOf(calls, op); }

ControlDrawing LastControlDrawing() {
  std::lock_guard lock(g_drawing_lock);
  return g_last_drawing;
}

int ControlDrawingCount() {
  std::lock_guard lock(g_drawing_lock);
  return g_drawing_count;
}

std::unique_ptr<Canvas> CreateControlCanvas(Dialog& dialog, int id) {
  if (!dialog.HasControl(id)) return nullptr;
  if (void* window = dialog.NativeHandle()) return sys::CreateControlCanvas(window, id);
  const DlgRect r = dialog.ControlRect(id);
  return std::make_unique<ControlRecordingCanvas>(r.right - r.left, r.bottom - r.top);
}

}  // namespace platform
