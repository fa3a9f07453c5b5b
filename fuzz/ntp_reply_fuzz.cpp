// NTP replies of any content and length, with any T1 and T4: validated or refused, never a crash,
// and the figures of a valid one always computed within their types.
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "timing/ntp_client.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::array<std::uint8_t, kNtpReplySize> reply{};   // a receive fills at most 68 bytes, the rest stays 0
  std::uint64_t t1 = 0, t4 = 0;
  if (size >= 16) {
    std::memcpy(&t1, data, 8);
    std::memcpy(&t4, data + 8, 8);
    data += 16;
    size -= 16;
  }
  std::memcpy(reply.data(), data, size < reply.size() ? size : reply.size());
  const NtpResult r = NtpReadReply(reply.data(), t1, t4);
  if (r.valid != 0 && r.valid != 1) __builtin_trap();
  if (r.valid ? r.error != 0 : r.error != 1901) __builtin_trap();
  if (r.leap != reply[0] >> 6 || r.stratum != reply[1]) __builtin_trap();
  if (NtpLastLeapIndicator() != reply[0] >> 6) __builtin_trap();
  return 0;
}
