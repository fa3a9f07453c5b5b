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

SvgCanvasMaker g_pictures = nullptr;
std::vector<ControlPicture> g_pictures_done;

// A control's picture: an SVG canvas whose text is kept when it goes. Text is measured as the
// picture draws it, so the picture is what `chronwarden graph` would draw.
class ControlPictureCanvas final : public Canvas {
 public:
  ControlPictureCanvas(const Dialog& window, int id, std::unique_ptr<ImageCanvas> image, std::unique_ptr<std::string> svg)
      : window_(window), id_(id), image_(std::move(image)), svg_(std::move(svg)) {}
  ~ControlPictureCanvas() override {
    const bool ok = image_->Finish();
    const int w = image_->Width(), h = image_->Height();
    image_.reset();
    if (!ok) return;
    std::lock_guard lock(g_drawing_lock);
    g_pictures_done.push_back({&window_, id_, w, h, std::move(*svg_)});
  }
  int Width() const override { return image_->Width(); }
  int Height() const override { return image_->Height(); }
  void SetPen(Colour c) override { image_->SetPen(c); }
  void SetBrush(Colour c) override { image_->SetBrush(c); }
  void SetHollowBrush() override { image_->SetHollowBrush(); }
  void SetTextColor(Colour c) override { image_->SetTextColor(c); }
  void SetFont(std::string_view face, int points) override { image_->SetFont(face, points); }
  void Fill(const Rect& a, Colour c) override { image_->Fill(a, c); }
  void MoveTo(int x, int y) override { image_->MoveTo(x, y); }
  void LineTo(int x, int y) override { image_->LineTo(x, y); }
  void Ellipse(const Rect& b) override { image_->Ellipse(b); }
  void RoundRect(const Rect& b, int w, int h) override { image_->RoundRect(b, w, h); }
  void Text(int x, int y, std::string_view t, TextAlign a) override { image_->Text(x, y, t, a); }
  TextSize Measure(std::string_view t) override { return image_->Measure(t); }
  void Clip(const Rect& a) override { image_->Clip(a); }

 private:
  const Dialog& window_;
  int id_;
  std::unique_ptr<ImageCanvas> image_;
  std::unique_ptr<std::string> svg_;
};

}  // namespace

bool DrawControlPictures(SvgCanvasMaker maker) {
  std::string probe;
  if (maker && !maker(probe, 1, 1)) maker = nullptr;
  std::lock_guard lock(g_drawing_lock);
  g_pictures = maker;
  if (!g_pictures) g_pictures_done.clear();
  return g_pictures != nullptr;
}

std::vector<ControlPicture> TakeControlPictures() {
  std::lock_guard lock(g_drawing_lock);
  std::vector<ControlPicture> out;
  out.swap(g_pictures_done);
  return out;
}

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
  SvgCanvasMaker pictures;
  {
    std::lock_guard lock(g_drawing_lock);
    pictures = g_pictures;
  }
  if (pictures) {
    auto svg = std::make_unique<std::string>();
    if (auto image = pictures(*svg, r.right - r.left, r.bottom - r.top))
      return std::make_unique<ControlPictureCanvas>(dialog, id, std::move(image), std::move(svg));
  }
  return std::make_unique<ControlRecordingCanvas>(r.right - r.left, r.bottom - r.top);
}

}  // namespace platform
