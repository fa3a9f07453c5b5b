// The responder's socket and records.
#include "provider/kr2_responder.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>

#include "config/defaults.h"
#include "config/registry.h"
#include "config/w32time.h"
#include "platform/error.h"
#include "platform/os.h"
#include "platform/sync.h"
#include "platform/timezone.h"
#include "provider/provider.h"
#include "timing/error_text.h"
#include "timing/precise_clock.h"

IdentityRecord g_identity{};
LocalStatusRecord g_local_status{};
platform::SocketHandle g_listen_socket = platform::kInvalidSocket;
std::array<std::uint8_t, kKr2ResponderBlockSize> g_responder_block{};
std::array<std::uint8_t, kKr2RequestMax> g_last_request{};

namespace {
std::string g_server_answer_ip;   // kept while the socket exists

template <std::size_t N>
void CopyText(char (&dst)[N], const char* src) {
  std::memset(dst, 0, N);
  std::memcpy(dst, src, std::min(std::strlen(src), N - 1));
}
}  // namespace

void BuildIdentityRecord() {
  std::uint32_t first_start = reg_get_dword(kProviderKey, "Ephemerides", 0);
  if (first_start == 0) {
    first_start = PreciseClockUnixSeconds();
    reg_set_dword(kProviderKey, "Ephemerides", first_start);
  }
  g_identity = {};
  g_identity.ephemerides = first_start;
  g_identity.product_code = defaults::kProductCode;
  g_identity.major_version = defaults::kVersionMajor;
  g_identity.minor_version = defaults::kVersionMinor;
  g_identity.build_year = defaults::kBuildYear;
  g_identity.build_month_day = defaults::kBuildMonthDay;
  g_identity.one = 1;
  g_identity.nt_family = platform::IsNtFamily() ? 1 : 0;
  CopyText(g_identity.version, defaults::kProductVersion);
  CopyText(g_identity.computer_name, g_w32t_env.computer_name);
}

void RefreshTimeZoneName() {
  platform::TimeZoneNow zone;
  const bool ok = platform::CurrentTimeZone(zone);
  CopyText(g_local_status.time_zone, ok && !zone.name.empty() ? zone.name.c_str() : "unknown");
}

void ResetStatusCounters() {
  LocalStatusRecord& r = g_local_status;
  std::memset(r.times, 0, sizeof r.times);
  std::memset(r.counters, 0, sizeof r.counters);
  std::memset(r.failed, 0, sizeof r.failed);
  r.bytes_received = r.bytes_sent = 0;
  r.offset_sum_ms = 0;
  r.sync_successes = r.sync_verdicts = r.sync_failures = 0;
  r.last_counter_reset = PreciseClockUnixSeconds();
}

void InitLocalStatusRecord() {
  g_local_status = {};
  g_local_status.product_code = defaults::kProductCode;
  CopyText(g_local_status.version, defaults::kProductVersion);
  CopyText(g_local_status.partner_name, "(none since startup)");
  RefreshTimeZoneName();
  ResetStatusCounters();
}

namespace {

// The local address to bind: "Server Answer IP" when it names one of this machine's addresses.
std::uint32_t AnswerAddress() {
  char text[256] = {};
  reg_get_string("", kServerAnswerIpValue, text, sizeof text, "");
  g_server_answer_ip = text;
  if (!*text) return 0;
  std::uint32_t a = platform::InetAddr(text);
  if (a == platform::kInaddrNone && !platform::LookupHostV4(text, a)) return 0;
  if (a == 0 || a == platform::kInaddrNone || !platform::IsOwnAddress(a)) return 0;
  return a;
}

}  // namespace

bool CreateListenSocket() {
  g_responder_block.fill(0);
  g_last_request.fill(0);
  CloseListenSocket();
  const std::uint32_t address = AnswerAddress();
  platform::SocketHandle s = platform::CreateSocketV4(platform::kSocketDatagram, platform::kProtocolUdp);
  bool bound = false;
  if (s != platform::kInvalidSocket) {
    std::uint16_t port = 0;
    if (!platform::ServicePort(kKr2ServiceName, "udp", port)) port = platform::HostToNet16(kKr2DefaultPort);
    const platform::SocketAddressV4 local{platform::kFamilyInet, port, address};
    for (std::uint32_t attempt = 1; attempt <= kKr2BindAttempts; ++attempt) {
      bound = platform::BindV4(s, local);
      if (bound || platform::LastSocketError() != 10048 || attempt == kKr2BindAttempts) break;   // WSAEADDRINUSE
      platform::Sleep(kKr2BindRetryMs);
    }
  }
  if (!bound) {
    const int code = platform::LastSocketError();
    char text[128];
    LogEvent(kProviderName, platform::kEventLogError, "Could not create listen socket; %s",
             SocketErrorText(static_cast<std::uint32_t>(code), text, sizeof text));
    platform::CloseSocket(s);
    g_server_answer_ip.clear();
    return false;
  }
  g_listen_socket = s;
  return true;
}

void CloseListenSocket() {
  if (g_listen_socket != platform::kInvalidSocket) {
    platform::ShutdownSocket(g_listen_socket);
    platform::CloseSocket(g_listen_socket);
    g_listen_socket = platform::kInvalidSocket;
  }
  g_server_answer_ip.clear();
}
