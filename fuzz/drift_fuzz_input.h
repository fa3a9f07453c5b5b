// What the drift fuzz targets make of their bytes: a drift history snapshot and the view options.
// The last byte chooses (so that the records keep their own first byte): bit 6 set, the bytes are
// a drift file's contents loaded by the applet's snapshot (from memory: the file reading around it
// is the same for every input); clear, the same bytes as records that skipped validation (what a
// snapshot holds after a failed load), the newest page shown. Bit 0 local time, bits 1-3 the width
// limit, bit 4 zero fill; the targets use the byte for more choices of their own.
#pragma once
#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "drift/drift_log.h"

inline std::uint8_t DriftLogFromFuzzInput(DriftLog& log, const std::uint8_t* data, std::size_t size) {
  const std::uint8_t options = size ? data[size - 1] : 0;
  if (options & 0x40) {
    DriftLogSetPath(log, "drift.kr");
    DriftLogLoadBytes(log, data, size);
    DriftLogLoadBytes(log, data, size);   // unchanged size: the second load keeps what the first took
  } else {
    const auto count = static_cast<std::uint32_t>(size / sizeof(DriftRecord));
    log.records.reset(new DriftRecord[count + 1]());
    if (count) std::memcpy(log.records.get(), data, count * sizeof(DriftRecord));
    log.record_count = count;
    log.per_screen = count < 64 ? count : 64;
    log.first_shown = count - log.per_screen;
    log.end_shown = count;
    DriftLogSetPath(log, size > 40 ? "C:\\NTP Server\\drift.kr" : "drift.kr");
  }
  log.local_time = options & 1;
  log.width_limit = (options >> 1) & 7;
  log.zero_fill = (options >> 4) & 1;
  return options;
}

// Copies a text the code under test hands out, so that a bad pointer or length shows up under the
// sanitizers; keeps nothing.
inline void TouchFuzzText(const char* text, std::size_t length) {
  static std::array<char, 4096> sink;
  for (std::size_t done = 0; done < length; done += sink.size())
    std::memcpy(sink.data(), text + done, std::min(sink.size(), length - done));
}
