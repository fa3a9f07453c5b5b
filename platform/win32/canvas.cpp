// The canvas on GDI: a device context with the pens, brushes and font the drawing asks for, made
// as they are needed and deleted (and the context's own restored) when the canvas goes.
#include <windows.h>

#include <string>

#include "platform/canvas.h"
#include "platform/canvas_sys.h"
#include "platform/error.h"

namespace platform {
namespace {

class GdiCanvas final : public Canvas {
 public:
  GdiCanvas(HDC dc, int width, int height, HWND release_to = nullptr)
      : dc_(dc), width_(width), height_(height), release_to_(release_to), saved_(SaveDC(dc)) {
    SetBkMode(dc_, TRANSPARENT);
  }
  ~GdiCanvas() override {
    RestoreDC(dc_, saved_);   // selects the context's own objects back before ours are deleted
    if (pen_) DeleteObject(pen_);
    if (brush_) DeleteObject(brush_);
    if (font_) DeleteObject(font_);
    if (release_to_) {
      // What was drawn is the control's picture now: its own painting (a static's background)
      // must not wipe it when it was due to paint too.
      ValidateRect(release_to_, nullptr);
      ReleaseDC(release_to_, dc_);
    }
  }
  int Width() const override { return width_; }
  int Height() const override { return height_; }
  void SetPen(Colour colour) override { Replace(pen_, CreatePen(PS_SOLID, 1, colour)); }
  void SetBrush(Colour colour) override { Replace(brush_, CreateSolidBrush(colour)); }
  void SetHollowBrush() override { SelectObject(dc_, GetStockObject(HOLLOW_BRUSH)); }
  void SetTextColor(Colour colour) override { ::SetTextColor(dc_, colour); }
  void SetFont(std::string_view face, int points) override {
    const std::string name(face);
    Replace(font_, CreateFontA(-MulDiv(points, GetDeviceCaps(dc_, LOGPIXELSY), 72), 0, 0, 0, FW_NORMAL, FALSE, FALSE,
                               FALSE, DEFAULT_CHARSET, OUT_DEFAULT_PRECIS, CLIP_DEFAULT_PRECIS, PROOF_QUALITY,
                               DEFAULT_PITCH | FF_DONTCARE, name.c_str()));
  }
  void Fill(const Rect& a, Colour colour) override {
    const RECT r{a.left, a.top, a.right, a.bottom};
    HBRUSH b = CreateSolidBrush(colour);
    FillRect(dc_, &r, b);
    DeleteObject(b);
  }
  void MoveTo(int x, int y) override { MoveToEx(dc_, x, y, nullptr); }
  void LineTo(int x, int y) override { ::LineTo(dc_, x, y); }
  void Ellipse(const Rect& b) override { ::Ellipse(dc_, b.left, b.top, b.right, b.bottom); }
  void RoundRect(const Rect& b, int corner_width, int corner_height) override {
    ::RoundRect(dc_, b.left, b.top, b.right, b.bottom, corner_width, corner_height);
  }
  void Text(int x, int y, std::string_view text, TextAlign align) override {
    SetTextAlign(dc_, TA_TOP | TA_NOUPDATECP | (align == TextAlign::Right ? TA_RIGHT : TA_LEFT));
    TextOutA(dc_, x, y, text.data(), static_cast<int>(text.size()));
  }
  TextSize Measure(std::string_view text) override {
    SIZE s{};
    GetTextExtentPoint32A(dc_, text.data(), static_cast<int>(text.size()), &s);
    return {s.cx, s.cy};
  }
  void Clip(const Rect& a) override { IntersectClipRect(dc_, a.left, a.top, a.right, a.bottom); }

 private:
  // Selects a new object of one kind and deletes the one of ours it replaces.
  template <typename T>
  void Replace(T& mine, T made) {
    SelectObject(dc_, made);
    if (mine) DeleteObject(mine);
    mine = made;
  }

  HDC dc_;
  int width_, height_;
  HWND release_to_;
  int saved_;
  HPEN pen_ = nullptr;
  HBRUSH brush_ = nullptr;
  HFONT font_ = nullptr;
};

}  // namespace

std::unique_ptr<ImageCanvas> CreateImageCanvas(ImageFormat, std::string_view, int, int) {
  SetLastError(50);   // ERROR_NOT_SUPPORTED: pictures are drawn by the Linux build
  return nullptr;
}

std::unique_ptr<ImageCanvas> CreateSvgTextCanvas(std::string&, int, int) {
  SetLastError(50);   // ERROR_NOT_SUPPORTED: pictures are drawn by the Linux build
  return nullptr;
}

std::unique_ptr<Canvas> CreateWindowCanvas(void* device_context, int width, int height) {
  return std::make_unique<GdiCanvas>(static_cast<HDC>(device_context), width, height);
}

namespace sys {

std::unique_ptr<Canvas> CreateControlCanvas(void* dialog_window, int id) {
  HWND control = GetDlgItem(static_cast<HWND>(dialog_window), id);
  HDC dc = control ? GetDC(control) : nullptr;
  if (!dc) {
    platform::SetLastError(::GetLastError());
    return nullptr;
  }
  RECT r{};
  GetClientRect(control, &r);
  return std::make_unique<GdiCanvas>(dc, r.right - r.left, r.bottom - r.top, control);
}

}  // namespace sys
}  // namespace platform
