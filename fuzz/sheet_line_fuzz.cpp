// The sheet process's input lines: any bytes are read without a crash, and any 8-bit text written
// as a JSON string reads back as the same bytes.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "cli/json_line.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string bytes(reinterpret_cast<const char*>(data), size);
  std::string error;
  if (const auto line = ParseJsonLine(bytes, error)) {
    for (const auto& [key, value] : line->fields) {
      (void)line->String(key);
      (void)line->Number(key);
      (void)line->Bool(key);
    }
  } else if (error.empty()) {
    std::abort();   // a refusal always says why
  }
  std::string text = bytes;
  text.erase(std::remove(text.begin(), text.end(), '\0'), text.end());
  const auto back = ParseJsonLine("{\"text\":" + JsonString(text) + "}", error);
  if (!back || !back->String("text") || *back->String("text") != text) std::abort();
  return 0;
}
