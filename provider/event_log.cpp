// The provider's event-log writer.
#include "provider/event_log.h"

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "platform/text.h"

namespace {
std::atomic<platform::LogTimeProvEventFunc*> g_writer{nullptr};
}  // namespace

void SetEventLogWriter(platform::LogTimeProvEventFunc* writer) { g_writer.store(writer); }

void LogEvent(const char* source, std::uint16_t type, const char* format, ...) {
  platform::LogTimeProvEventFunc* const writer = g_writer.load();
  if (!writer) return;
  char text[kEventTextMax + 3] = {};   // the text, "\r\n" and the terminator
  va_list args;
  va_start(args, format);
  std::vsnprintf(text, kEventTextMax + 1, format, args);
  va_end(args);
  std::strcat(text, "\r\n");
  char16_t wide[kEventWideMax];
  platform::AnsiToWide(text, wide, kEventWideMax);
  char16_t wide_source[64];
  platform::AnsiToWide(source, wide_source, 64);
  writer(type, wide_source, wide);
}
