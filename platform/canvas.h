// A drawing surface in GDI terms: a current pen, brush, text colour and font; shapes given by their
// bounding box with the right and bottom edges excluded, as GDI draws them; text placed by its top
// edge and its left or right end. The graph draws through it once for every target:
//   Windows  GDI on a window's device context (CreateWindowCanvas)
//   Linux    Cairo to a PNG or SVG file (CreateImageCanvas)
//   tests    RecordingCanvas (platform/recording_canvas.h): the list of calls with their colours
#pragma once
#include <compare>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "platform/dialog.h"   // Colour: 0x00BBGGRR, made with Rgb(r, g, b)

namespace platform {

// left/top included, right/bottom excluded (pixels).
struct Rect {
  int left = 0, top = 0, right = 0, bottom = 0;
  friend constexpr bool operator==(const Rect&, const Rect&) = default;
};

struct TextSize {
  int width = 0, height = 0;   // pixels
};

enum class TextAlign : std::uint8_t { Left, Right };   // x is the text's left or right end; y its top

class Canvas {
 public:
  virtual ~Canvas() = default;
  virtual int Width() const = 0;    // pixels
  virtual int Height() const = 0;   // pixels
  virtual void SetPen(Colour colour) = 0;         // solid, 1 pixel wide: outlines and lines
  virtual void SetBrush(Colour colour) = 0;       // solid fill of ellipses and rounded rectangles
  virtual void SetHollowBrush() = 0;           // shapes drawn as outlines only
  virtual void SetTextColor(Colour colour) = 0;   // text is drawn transparently (no background box)
  // The face and its size in points: the character height is points * the surface's pixels per inch
  // / 72 (GDI's negative font height). A face the system lacks is replaced by its closest match.
  virtual void SetFont(std::string_view face, int points) = 0;
  virtual void Fill(const Rect& area, Colour colour) = 0;   // no outline
  virtual void MoveTo(int x, int y) = 0;
  virtual void LineTo(int x, int y) = 0;       // from the current position, end point excluded; moves there
  virtual void Ellipse(const Rect& box) = 0;   // outlined with the pen, filled with the brush
  virtual void RoundRect(const Rect& box, int corner_width, int corner_height) = 0;
  virtual void Text(int x, int y, std::string_view text, TextAlign align) = 0;
  virtual TextSize Measure(std::string_view text) = 0;   // in the current font
  virtual void Clip(const Rect& area) = 0;                // later drawing stays inside area
};

enum class ImageFormat : std::uint8_t { Png, Svg };

// An image the size of a window's plot, written to path when Finish is called.
class ImageCanvas : public Canvas {
 public:
  // Writes the file. False with the Win32 code in LastError() when it could not be written.
  virtual bool Finish() = 0;
};

// Linux: a Cairo surface (PNG: 24-bit image; SVG: vector). Windows: not available (nullptr, error 50).
// nullptr with the code in LastError() when the surface cannot be made.
std::unique_ptr<ImageCanvas> CreateImageCanvas(ImageFormat format, std::string_view path, int width, int height);
// An SVG picture written into out (replacing what it held) when Finish is called. Linux: Cairo.
// Windows: not available (nullptr, error 50).
std::unique_ptr<ImageCanvas> CreateSvgTextCanvas(std::string& out, int width, int height);
// "graph.svg" (any case) is SVG; anything else PNG.
ImageFormat ImageFormatOf(std::string_view path);

// Windows: GDI on a device context (an HDC) of width x height pixels; the caller keeps the DC and
// releases it after the canvas is gone. The canvas restores the DC's objects when it is destroyed.
// Linux: nullptr (there are no windows to draw on).
std::unique_ptr<Canvas> CreateWindowCanvas(void* device_context, int width, int height);

// A canvas on control id of a dialog, for drawing on it now (not inside its own painting). A real
// window: GDI on the control's device context, released when the canvas goes. An in-memory window:
// a recording canvas of the control's size whose calls are kept for tests when it goes
// (platform/recording_canvas.h, LastControlDrawing). nullptr when the control cannot be drawn on.
std::unique_ptr<Canvas> CreateControlCanvas(Dialog& dialog, int id);

}  // namespace platform
