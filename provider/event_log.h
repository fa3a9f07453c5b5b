// The provider's one event-log writer: texts go to the time service's pfnLogTimeProvEvent, which
// the provider hands over when it opens. Any thread may write; the writer is swapped atomically.
#pragma once
#include <cstdint>

#include "platform/timeprov.h"

inline constexpr std::uint32_t kEventTextMax = 509;    // event texts are cut to this many characters
inline constexpr std::uint32_t kEventWideMax = 1024;   // wide buffer of an event text (characters)

// The service's writer that LogEvent hands its texts to (nullptr: events go nowhere).
void SetEventLogWriter(platform::LogTimeProvEventFunc* writer);
// Writes an event through the service: printf-style text cut at 509 characters, "\r\n" appended,
// widened, handed to the writer with source as the provider name. type: 1 error, 2 warning.
void LogEvent(const char* source, std::uint16_t type, const char* format, ...) __attribute__((format(printf, 3, 4)));
