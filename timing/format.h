// Text for IPv4 addresses, dates and lengths of time, in the system's own wording. Functions that
// return static text have a buffer each, valid until the next call of the same function.
#pragma once
#include <cstdint>

// "a.b.c.d" of an address in network order (as stored in memory), or "Unknown" for 0 and
// 255.255.255.255. out must hold 16 bytes.
char* FormatIPv4(std::uint32_t address_network_order, char* out);
const char* FormatUtcDate(std::uint32_t seconds_since_1970);    // "Wed 02 Jan 1980 02:03:55 UTC", or "Error"
const char* FormatLocalDate(std::uint32_t seconds_since_1970);  // "Wed 02 Jan 1980 03:03:55" (local), or "Error"
const char* FormatDate(std::uint32_t seconds_since_1970, bool local);  // local ? FormatLocalDate : FormatUtcDate
const char* FormatDurationSeconds(std::uint32_t seconds);       // "1 day, 0 hours, 0 minutes"; "0 seconds"
char* FormatDurationMs(std::int64_t ms, char* out, std::uint32_t size);  // |ms| as "1 second, 500 milliseconds"; cut to size - 1
const char* FormatShortDuration(std::int64_t ms);               // signed, largest unit only: "-1.500 secs", "+2 hrs"
