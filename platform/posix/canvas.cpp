// The canvas on Cairo: PNG through an image surface, SVG through an SVG surface. Shapes are drawn
// without anti-aliasing on pixel centres, so lines and markers land on the pixels GDI would paint;
// text is anti-aliased. "MS Shell Dlg" is drawn with fontconfig's "DejaVu Sans"; the surface has
// 96 pixels per inch.
#include <cairo-svg.h>
#include <cairo.h>
#include <fontconfig/fontconfig.h>

#include <cmath>
#include <cstdlib>
#include <string>

#include "platform/canvas.h"
#include "platform/canvas_sys.h"
#include "platform/error.h"

namespace platform {
namespace {

constexpr double kPixelsPerInch = 96.0;
constexpr const char* kDialogFace = "MS Shell Dlg";
constexpr const char* kDialogStandIn = "DejaVu Sans";

std::uint32_t Win32CodeOf(cairo_status_t status) {
  switch (status) {
    case CAIRO_STATUS_SUCCESS: return 0;
    case CAIRO_STATUS_NO_MEMORY: return kErrorNotEnoughMemory;
    case CAIRO_STATUS_FILE_NOT_FOUND: return kErrorPathNotFound;
    case CAIRO_STATUS_WRITE_ERROR: return 29;         // ERROR_WRITE_FAULT
    case CAIRO_STATUS_INVALID_SIZE: return kErrorInvalidParameter;
    default: return 1359;                             // ERROR_INTERNAL_ERROR
  }
}

class CairoCanvas final : public ImageCanvas {
 public:
  // out: an SVG surface written into that string rather than to path.
  CairoCanvas(ImageFormat format, std::string path, int width, int height, std::string* out = nullptr)
      : format_(format), path_(std::move(path)), width_(width), height_(height) {
    if (out) {
      out->clear();
      surface_ = cairo_svg_surface_create_for_stream(AppendTo, out, width, height);
    } else {
      surface_ = format == ImageFormat::Svg ? cairo_svg_surface_create(path_.c_str(), width, height)
                                            : cairo_image_surface_create(CAIRO_FORMAT_RGB24, width, height);
    }
    cr_ = cairo_create(surface_);
    cairo_set_antialias(cr_, CAIRO_ANTIALIAS_NONE);
    cairo_set_line_width(cr_, 1.0);
    cairo_font_options_t* options = cairo_font_options_create();
    cairo_font_options_set_antialias(options, CAIRO_ANTIALIAS_GRAY);
    cairo_font_options_set_hint_style(options, CAIRO_HINT_STYLE_SLIGHT);
    cairo_font_options_set_hint_metrics(options, CAIRO_HINT_METRICS_ON);
    cairo_set_font_options(cr_, options);
    cairo_font_options_destroy(options);
    SetFont(kDialogFace, 8);
  }
  ~CairoCanvas() override {
    cairo_destroy(cr_);
    cairo_surface_destroy(surface_);
  }
  cairo_status_t Status() const { return cairo_status(cr_); }

  int Width() const override { return width_; }
  int Height() const override { return height_; }
  void SetPen(Colour colour) override { pen_ = colour; }
  void SetBrush(Colour colour) override { brush_ = colour, hollow_ = false; }
  void SetHollowBrush() override { hollow_ = true; }
  void SetTextColor(Colour colour) override { text_ = colour; }
  void SetFont(std::string_view face, int points) override {
    const std::string name = face == kDialogFace ? kDialogStandIn : std::string(face);
    cairo_select_font_face(cr_, name.c_str(), CAIRO_FONT_SLANT_NORMAL, CAIRO_FONT_WEIGHT_NORMAL);
    cairo_set_font_size(cr_, std::lround(points * kPixelsPerInch / 72.0));
    cairo_font_extents(cr_, &font_);
  }
  void Fill(const Rect& a, Colour colour) override {
    Source(colour);
    cairo_rectangle(cr_, a.left, a.top, a.right - a.left, a.bottom - a.top);
    cairo_fill(cr_);
  }
  void MoveTo(int x, int y) override { x_ = x, y_ = y; }
  void LineTo(int x, int y) override {
    // GDI leaves out the end pixel; on pixel centres a stroke to it paints it too, which one pixel
    // at the joint of two segments does not change.
    Source(pen_);
    cairo_move_to(cr_, x_ + 0.5, y_ + 0.5);
    cairo_line_to(cr_, x + 0.5, y + 0.5);
    cairo_stroke(cr_);
    x_ = x, y_ = y;
  }
  void Ellipse(const Rect& b) override {
    const double w = b.right - b.left - 1, h = b.bottom - b.top - 1;
    if (w <= 0 || h <= 0) return;
    cairo_save(cr_);
    cairo_translate(cr_, b.left + 0.5 + w / 2, b.top + 0.5 + h / 2);
    cairo_scale(cr_, w / 2, h / 2);
    cairo_new_path(cr_);
    cairo_arc(cr_, 0, 0, 1, 0, 2 * M_PI);
    cairo_restore(cr_);
    FillAndStroke();
  }
  void RoundRect(const Rect& b, int corner_width, int corner_height) override {
    const double l = b.left + 0.5, t = b.top + 0.5, r = b.right - 0.5, btm = b.bottom - 0.5;
    const double rx = corner_width / 2.0, ry = corner_height / 2.0;
    if (r <= l || btm <= t) return;
    cairo_new_path(cr_);
    cairo_move_to(cr_, l + rx, t);
    cairo_line_to(cr_, r - rx, t);
    cairo_curve_to(cr_, r, t, r, t, r, t + ry);
    cairo_line_to(cr_, r, btm - ry);
    cairo_curve_to(cr_, r, btm, r, btm, r - rx, btm);
    cairo_line_to(cr_, l + rx, btm);
    cairo_curve_to(cr_, l, btm, l, btm, l, btm - ry);
    cairo_line_to(cr_, l, t + ry);
    cairo_curve_to(cr_, l, t, l, t, l + rx, t);
    cairo_close_path(cr_);
    FillAndStroke();
  }
  void Text(int x, int y, std::string_view text, TextAlign align) override {
    const std::string s(text);
    const int left = align == TextAlign::Right ? x - Measure(s).width : x;
    Source(text_);
    cairo_move_to(cr_, left, y + std::round(font_.ascent));
    cairo_show_text(cr_, s.c_str());
    cairo_new_path(cr_);
  }
  TextSize Measure(std::string_view text) override {
    const std::string s(text);
    cairo_text_extents_t e;
    cairo_text_extents(cr_, s.c_str(), &e);
    return {static_cast<int>(std::lround(e.x_advance)),
            static_cast<int>(std::lround(font_.ascent) + std::lround(font_.descent))};
  }
  void Clip(const Rect& a) override {
    cairo_reset_clip(cr_);
    cairo_rectangle(cr_, a.left, a.top, a.right - a.left, a.bottom - a.top);
    cairo_clip(cr_);
  }
  bool Finish() override {
    cairo_status_t status = cairo_status(cr_);
    if (status == CAIRO_STATUS_SUCCESS) {
      if (format_ == ImageFormat::Png) {
        cairo_surface_flush(surface_);
        status = cairo_surface_write_to_png(surface_, path_.c_str());
      } else {
        cairo_surface_finish(surface_);
        status = cairo_surface_status(surface_);
      }
    }
    SetLastError(Win32CodeOf(status));
    return status == CAIRO_STATUS_SUCCESS;
  }

 private:
  static cairo_status_t AppendTo(void* out, const unsigned char* data, unsigned int length) {
    static_cast<std::string*>(out)->append(reinterpret_cast<const char*>(data), length);
    return CAIRO_STATUS_SUCCESS;
  }
  void Source(Colour c) { cairo_set_source_rgb(cr_, (c & 0xFF) / 255.0, (c >> 8 & 0xFF) / 255.0, (c >> 16 & 0xFF) / 255.0); }
  void FillAndStroke() {
    if (!hollow_) {
      Source(brush_);
      cairo_fill_preserve(cr_);
    }
    Source(pen_);
    cairo_stroke(cr_);
  }

  ImageFormat format_;
  std::string path_;
  int width_, height_;
  cairo_surface_t* surface_ = nullptr;
  cairo_t* cr_ = nullptr;
  cairo_font_extents_t font_{};
  Colour pen_ = 0, brush_ = Rgb(255, 255, 255), text_ = 0;
  bool hollow_ = false;
  int x_ = 0, y_ = 0;
};

}  // namespace

namespace {

std::unique_ptr<ImageCanvas> MakeCanvas(ImageFormat format, std::string_view path, int width, int height,
                                        std::string* out) {
  // Cairo's font caches and fontconfig's configuration live until the process ends; they are let
  // go at exit (every canvas is gone by then), so that leak checkers see a clean end.
  static const bool release_at_exit = [] {
    return std::atexit([] {
      cairo_debug_reset_static_data();
      FcFini();
    }) == 0;
  }();
  (void)release_at_exit;
  if (width <= 0 || height <= 0 || width > 32767 || height > 32767) {
    SetLastError(kErrorInvalidParameter);
    return nullptr;
  }
  auto canvas = std::make_unique<CairoCanvas>(format, std::string(path), width, height, out);
  if (const cairo_status_t status = canvas->Status(); status != CAIRO_STATUS_SUCCESS) {
    SetLastError(Win32CodeOf(status));
    return nullptr;
  }
  return canvas;
}

}  // namespace

std::unique_ptr<ImageCanvas> CreateImageCanvas(ImageFormat format, std::string_view path, int width, int height) {
  return MakeCanvas(format, path, width, height, nullptr);
}

std::unique_ptr<ImageCanvas> CreateSvgTextCanvas(std::string& out, int width, int height) {
  return MakeCanvas(ImageFormat::Svg, "", width, height, &out);
}

std::unique_ptr<Canvas> CreateWindowCanvas(void*, int, int) {
  SetLastError(kErrorNotSupported);
  return nullptr;
}

}  // namespace platform

