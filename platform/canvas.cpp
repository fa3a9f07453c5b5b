// Target-independent parts of the canvas layer.
#include "platform/canvas.h"

#include <cctype>

namespace platform {

ImageFormat ImageFormatOf(std::string_view path) {
  if (path.size() < 4) return ImageFormat::Png;
  const auto ext = path.substr(path.size() - 4);
  const bool svg = ext[0] == '.' && std::tolower(static_cast<unsigned char>(ext[1])) == 's' &&
                   std::tolower(static_cast<unsigned char>(ext[2])) == 'v' &&
                   std::tolower(static_cast<unsigned char>(ext[3])) == 'g';
  return svg ? ImageFormat::Svg : ImageFormat::Png;
}

}  // namespace platform
