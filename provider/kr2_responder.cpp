// The KR2 responder: request handling and the records it answers with.
#include "provider/kr2_responder.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>

#include "config/defaults.h"
#include "config/registry.h"
#include "config/w32time.h"
#include "drift/drift_file.h"
#include "platform/clock.h"
#include "platform/error.h"
#include "platform/os.h"
#include "platform/sync.h"
#include "platform/timezone.h"
#include "provider/provider.h"
#include "platform/error_text.h"
#include "timing/format.h"
#include "timing/activity.h"
#include "timing/precise_clock.h"


namespace {

// Activity slots of the responder.
constexpr std::uint32_t kSlotRequest = 8;   // a request datagram was received
constexpr std::uint32_t kSlotReply = 7;     // a reply was sent (or its send failed)

// Commands that are accepted but not answered, and the activity slot each marks.
struct SilentCommand {
  std::uint8_t code;
  std::uint32_t slot;
};
constexpr SilentCommand kSilentMarked[] = {{100, 20}, {101, 22}, {81, 28}, {82, 26}, {83, 30}};

constexpr std::uint32_t kLevelWin2000 = 2048;
constexpr std::uint32_t kLevelVista = 16384;

constexpr Kr2Word kAck{{'A', 'C', 'K', 0}};
constexpr Kr2Word kNak{{'N', 'A', 'K', 0}};

// Copies text into a fixed field: zero-filled, at most size - 1 bytes, always terminated.
template <std::size_t N>
void CopyText(char (&field)[N], const char* text) {
  std::memset(field, 0, N);
  if (text) std::memcpy(field, text, strnlen(text, N - 1));
}

std::uint32_t Now() { return PreciseClockUnixSeconds(); }

std::uint16_t InstalledBit(const char* key, std::uint16_t bit) {
  return reg_get_bool(reg_local(), key, "Service Installed", 0) ? bit : 0;
}

}  // namespace

Kr2State g_kr2;
IdentityRecord g_identity{};
LocalStatusRecord g_local_status{};
platform::SocketHandle g_listen_socket = platform::kInvalidSocket;
std::array<std::uint8_t, kKr2ResponderBlockSize> g_responder_block{};
std::array<std::uint8_t, kKr2RequestMax> g_last_request{};

namespace {
std::string g_server_answer_ip;   // kept while the socket exists
}  // namespace

void BuildIdentityRecord() {
  std::uint32_t first_start = reg_get_dword(reg_local(), kProviderKey, "Ephemerides", 0);
  if (first_start == 0) {
    first_start = PreciseClockUnixSeconds();
    reg_set_dword(reg_local(), kProviderKey, "Ephemerides", first_start);
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

std::uint32_t RefreshTimeZoneName() {
  platform::TimeZoneNow zone;
  const bool ok = platform::CurrentTimeZone(zone);
  CopyText(g_local_status.time_zone, ok && !zone.name.empty() ? zone.name.c_str() : "unknown");
  return !ok ? 0 : zone.daylight ? 1 : 2;
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
  reg_get_string(reg_local(), "", kServerAnswerIpValue, text, sizeof text, "");
  g_server_answer_ip = text;
  if (!*text) return 0;
  std::uint32_t a = platform::InetAddr(text);
  if (a == platform::kInaddrNone && !platform::LookupHostV4(text, a)) return 0;
  if (a == 0 || a == platform::kInaddrNone || !platform::IsOwnAddress(a)) return 0;
  return a;
}

}  // namespace

bool CreateListenSocket() {
  Kr2ForgetLastRequest();
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
      if (bound || platform::LastSocketError() != platform::kWsaEaddrinuse || attempt == kKr2BindAttempts) break;
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
  // Room for a few tens of milliseconds of a flood: a moment's delay of the agent thread must not
  // make the kernel drop a well-behaved source's request among the flood's (best effort).
  platform::SetReceiveBufferSize(s, kKr2ReceiveBufferBytes);
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


void Kr2BuildProducts(Kr2Machine& machine) {
  Kr2Products& p = g_kr2.products;
  const LocalStatusRecord& s = g_local_status;
  std::memset(&p, 0, sizeof p);
  std::memcpy(p.responder_block, g_responder_block.data(), sizeof p.responder_block);

  const std::uint32_t zone_state = RefreshTimeZoneName();
  std::uint32_t flags = (defaults::kProductCode & kKr2MachineProductMask) | kKr2MachineAlways;
  if (g_identity.one) flags |= kKr2MachineIdentityOne;
  if (g_kr2.nt_family) {
    flags |= kKr2MachineNtFamily;
    struct LevelBit {
      std::uint32_t level;
      int bit;
    };
    constexpr LevelBit kLevelBits[] = {{256, 16},  {512, 16},   {1024, 17},  {2048, 18},
                                       {4096, 19}, {8192, 20}, {16384, 26}, {32768, 27}};
    for (const auto& lb : kLevelBits)
      if (g_kr2.os_level == lb.level) flags |= 1u << lb.bit;
  }
  if (g_kr2.win9x_family) flags |= kKr2MachineWin9xFamily;
  flags |= (zone_state & 3u) << kKr2MachineZoneShift;
  p.machine_flags = flags;
  p.size_288 = 288;
  p.partner_state = s.partner_state;
  p.dollar = '$';
  platform::SystemTime t{};
  PreciseClockGetLocalTime(t);
  p.local_time = ToKr2SystemTime(t);
  PreciseClockGetSystemTime(t);
  p.utc_time = ToKr2SystemTime(t);
  p.last_offset_ms = s.last_offset_ms;
  p.sync_successes = s.sync_successes;
  p.sync_verdicts = s.sync_verdicts;
  p.sync_failures = s.sync_failures;
  p.ephemerides = g_identity.ephemerides;
  p.now = Now();
  p.partner_time = s.partner_time;
  p.agent_start = s.agent_start;
  std::memcpy(p.time_zone, s.time_zone, sizeof s.time_zone);
  std::memcpy(p.version, s.version, sizeof s.version);
  std::memcpy(p.partner, s.partner_name, sizeof s.partner_name);
  std::memcpy(p.computer_name, g_identity.computer_name, sizeof g_identity.computer_name);
  p.installed = static_cast<std::uint16_t>(kKr2InstalledAlways | machine.InstalledProducts());
}

void Kr2ForgetLastRequest() {
  g_responder_block.fill(0);
  g_last_request.fill(0);
  g_kr2.have_last = false;
}

namespace {

// Fills the time-zone reply over the receive buffer from offset 8 on; returns it.
const Kr2TimeZoneReply& BuildTimeZoneReply(Kr2Machine& machine) {
  static_assert(kKr2ArgumentOffset + sizeof(Kr2TimeZoneReply) == kKr2RequestMax);
  auto* r = reinterpret_cast<Kr2TimeZoneReply*>(g_kr2.receive.data() + kKr2ArgumentOffset);
  std::memset(r, 0, sizeof *r);
  platform::TimeZoneNow zone;
  const bool ok = platform::CurrentTimeZone(zone);
  r->zone_id = !ok ? 0xFFFFFFFFu : zone.daylight ? 2 : 1;
  r->info_size = kKr2ZoneInfoSize;
  r->info.bias = zone.bias_minutes;
  const std::size_t n = std::min<std::size_t>(zone.name.size(), 31);
  for (std::size_t i = 0; i < n; ++i) {
    const auto c = static_cast<char16_t>(static_cast<unsigned char>(zone.name[i]));
    if (zone.daylight) r->info.daylight_name[i] = c;
    else r->info.standard_name[i] = c;
  }
  if (zone.daylight) r->info.daylight_bias = zone.total_bias_minutes - zone.bias_minutes;
  if (!zone.daylight) std::memcpy(r->standard_name, zone.name.data(), std::min<std::size_t>(zone.name.size(), 63));
  r->daylight_disabled = machine.DaylightDisabled();
  return *r;
}

// Command 128's refresh of the status record.
void RefreshStatus(Kr2Machine& machine) {
  if (!g_kr2.in_batch || !g_kr2.zone_read) RefreshTimeZoneName();
  g_kr2.zone_read = true;
  g_local_status.product_code = defaults::kProductCode;
  g_local_status.sync_type = static_cast<std::uint8_t>(machine.SyncType());
  g_local_status.last_status_request = Now();
}

}  // namespace

Kr2Outcome HandleRequestWith(Kr2Socket& socket, Kr2Machine& machine) {
  auto& buf = g_kr2.receive;
  platform::SocketAddressV4 from{};
  const int received = socket.Receive(buf.data(), buf.size(), from);
  if (received < 0) {
    ++g_local_status.failed[0];
    return Kr2Outcome::ReceiveFailed;
  }
  const std::uint8_t code = buf[kKr2CommandOffset];
  if (g_provider.prohibited[code] != 0) return Kr2Outcome::Refused;
  Kr2Guard& guard = g_kr2.guard;
  if (Kr2ChangesMachine(code) && !guard.MayChange(from.address)) {
    if (guard.NoticeNotManager(from.address, Now())) {
      char address[16];
      LogEvent(kProviderName, platform::kEventLogWarning,
               "KR2 command %u from %s refused: that address is not one of the KR2 managers (%llu refused so far)",
               code, FormatIPv4(from.address, address), static_cast<unsigned long long>(guard.refused_changes()));
    }
    return Kr2Outcome::NotManager;
  }

  MarkActivity(kSlotRequest);
  if (g_kr2.have_last && std::equal(buf.begin(), buf.end(), g_last_request.begin())) return Kr2Outcome::Repeat;
  if (!guard.Admit(from.address, platform::CounterMilliseconds())) {
    if (guard.NoticeLimited(from.address, Now())) {
      char address[16];
      LogEvent(kProviderName, platform::kEventLogWarning,
               "KR2 requests from %s go unanswered: more than %u reply bytes a second asked (%llu limited so far)",
               FormatIPv4(from.address, address), guard.rate(), static_cast<unsigned long long>(guard.limited()));
    }
    return Kr2Outcome::Limited;
  }
  std::copy(buf.begin(), buf.end(), g_last_request.begin());
  g_kr2.have_last = true;
  g_local_status.bytes_received += static_cast<std::uint64_t>(received);

  // The reply, as bytes in one of these.
  const void* reply = nullptr;
  std::size_t size = 0;
  platform::SystemTime now_time{};
  Kr2SystemTime time{};
  Kr2Limits limits{};
  DriftRecord record{};
  constexpr std::uint32_t kZeroWord = 0;
  auto answer = [&](const auto& r) { reply = &r, size = sizeof r; };

  switch (code) {
    case kKr2Ack:
      answer(kAck);
      break;
    case kKr2Time:
      PreciseClockGetSystemTime(now_time);
      time = ToKr2SystemTime(now_time);
      answer(time);
      break;
    case kKr2LocalTime:
      PreciseClockGetLocalTime(now_time);
      time = ToKr2SystemTime(now_time);
      answer(time);
      break;
    case kKr2Resync:
    case kKr2Resync204:
      if (g_kr2.os_level == kLevelWin2000) {
        answer(kNak);
      } else {
        machine.RequestResync();
        answer(kAck);
      }
      break;
    case kKr2Identity:
      answer(g_identity);
      break;
    case kKr2Nak5:
    case kKr2Nak132:
      answer(kNak);
      break;
    case kKr2TimeZone:
      answer(BuildTimeZoneReply(machine));
      break;
    case kKr2StatusClear:
      machine.ClearHistory();
      ResetStatusCounters();
      [[fallthrough]];
    case kKr2Status:
      RefreshStatus(machine);
      answer(g_local_status);
      break;
    case kKr2Zero150:
      answer(kZeroWord);
      break;
    case kKr2Limits:
      limits = {1, 1, 0, machine.MaxPhaseOffsetSeconds() * 1000u};
      answer(limits);
      break;
    case kKr2DriftAfter: {
      std::uint32_t after;
      std::memcpy(&after, buf.data() + kKr2ArgumentOffset, sizeof after);
      if (!machine.DriftAfter(record, after)) record = DriftRecord{};
      answer(record);
      break;
    }
    case kKr2Products:
    case kKr2Products201:
      Kr2BuildProducts(machine);
      answer(g_kr2.products);
      break;
    default:
      for (const auto& s : kSilentMarked)
        if (s.code == code) MarkActivity(s.slot);
      return Kr2Outcome::Unanswered;
  }

  guard.Charge(size);
  const int sent = socket.Send(reply, size, from);
  if (sent >= 0) g_local_status.bytes_sent += static_cast<std::uint64_t>(sent);
  ++g_local_status.counters[0];
  g_local_status.times[0] = Now();
  MarkActivity(kSlotReply);
  return Kr2Outcome::Answered;
}

void Kr2ConfigureGuard(const char* managers, std::uint32_t rate_bytes_per_s, std::uint32_t burst_bytes) {
  for (const std::string& bad : g_kr2.guard.Configure(managers, rate_bytes_per_s, burst_bytes))
    LogEvent(kProviderName, platform::kEventLogWarning,
             "The KR2 managers' entry \"%s\" is neither an address, a prefix nor \"any\"; it is ignored", bad.c_str());
}

void HandleRequest(platform::SocketHandle socket) {
  Kr2SocketOn transport(socket);
  Kr2SystemMachine machine;
  const W32tSettings& settings = g_provider.settings;
  Kr2ConfigureGuard(settings.kr2_managers, settings.kr2_rate_limit, settings.kr2_rate_burst);
  g_kr2.in_batch = true;
  g_kr2.zone_read = false;
  do HandleRequestWith(transport, machine);
  while (transport.Pending());
  g_kr2.in_batch = false;
}

namespace {

// The batch buffers: the agent thread is the only user.
struct Kr2Buffers {
  std::array<std::array<std::uint8_t, kKr2RequestMax>, kKr2Batch> in, out;
  std::array<platform::Datagram, kKr2Batch> received, replies;
};
Kr2Buffers g_buffers;

}  // namespace

int Kr2SocketOn::Receive(std::uint8_t* buf, std::size_t size, platform::SocketAddressV4& from) {
  if (!fetched_) {
    // Only what is waiting now: a wake-up with nothing to read (a socket shut down under the agent's
    // wait) must not hold the agent in a receive.
    fetched_ = true;
    for (std::size_t i = 0; i < kKr2Batch; ++i) g_buffers.received[i] = {g_buffers.in[i].data(), kKr2RequestMax, 0, {}};
    const int n = platform::ReceiveBatchNow(socket, g_buffers.received.data(), kKr2Batch);
    if (n < 0) return -1;
    received_ = static_cast<std::size_t>(n);
  }
  if (next_ >= received_) {
    platform::SetLastSocketError(platform::kWsaEwouldblock);
    return -1;
  }
  const platform::Datagram& d = g_buffers.received[next_++];
  const std::size_t n = std::min(d.length, size);
  std::memcpy(buf, d.data, n);   // the rest of buf keeps what it held, as a receive into it would
  from = d.peer;
  return static_cast<int>(n);
}

int Kr2SocketOn::Send(const void* data, std::size_t size, const platform::SocketAddressV4& to) {
  if (size > kKr2RequestMax) return platform::SendTo(socket, data, size, to);
  if (queued_ == kKr2Batch) Flush();
  auto& out = g_buffers.out[queued_];
  std::memcpy(out.data(), data, size);
  g_buffers.replies[queued_++] = {out.data(), out.size(), size, to};
  return static_cast<int>(size);
}

void Kr2SocketOn::Flush() {
  if (!queued_) return;
  const int sent = platform::SendBatch(socket, g_buffers.replies.data(), queued_);
  for (std::size_t i = sent < 0 ? 0 : static_cast<std::size_t>(sent); i < queued_; ++i)
    g_local_status.bytes_sent -= g_buffers.replies[i].length;
  queued_ = 0;
}

void Kr2SystemMachine::RequestResync() {
  if (g_provider.sync_event) platform::SetEvent(g_provider.sync_event);
}

void Kr2SystemMachine::ClearHistory() {
  DriftFileClear();
  reg_delete_value(reg_local(), kProviderKey, defaults::kLastUsedTimeSourceValue);
}

bool Kr2SystemMachine::DriftAfter(DriftRecord& out, std::uint32_t after) { return DriftFileReadAfter(out, after); }

std::uint32_t Kr2SystemMachine::SyncType() { return g_provider.settings.sync_type; }

std::uint32_t Kr2SystemMachine::MaxPhaseOffsetSeconds() { return g_provider.settings.max_allowed_phase_offset; }

std::uint16_t Kr2SystemMachine::InstalledProducts() {
  std::uint16_t bits = 0;
  bits |= InstalledBit("\\\\Software\\Morvane\\Kairon Server\\Parameters", kKr2InstalledServer);
  bits |= InstalledBit("\\\\Software\\Morvane\\Kairon Set\\Parameters", kKr2InstalledSet);
  bits |= InstalledBit("\\\\Software\\Morvane\\Kairon II Manager\\Parameters", kKr2InstalledManager);
  bits |= InstalledBit("\\\\Software\\Morvane\\Kairon II Monitor\\Parameters", kKr2InstalledMonitor);
  bits |= InstalledBit("\\\\Software\\Morvane\\Kairon II Update Server\\Parameters", kKr2InstalledUpdateServer);
  bits |= InstalledBit("\\\\Software\\Morvane\\Kairon II Audit Server\\Parameters", kKr2InstalledAuditServer);
  bits |= InstalledBit(kProviderKey, kKr2InstalledChronwarden);
  constexpr const char* kClient = "\\\\Software\\Morvane\\Kairon Client\\Parameters";
  if (reg_get_bool(reg_local(), kClient, "Service Installed", 0)) {
    if (reg_get_bool(reg_local(), kClient, "Thin Client", 0)) bits |= kKr2InstalledThinClient;
    else if (reg_get_bool(reg_local(), kClient, "Ultra Thin Client", 0)) bits |= kKr2InstalledUltraThinClient;
    else bits |= kKr2InstalledClient;
  }
  return bits;
}

std::uint32_t Kr2SystemMachine::DaylightDisabled() {
  constexpr const char* kZoneKey = "\\\\System\\CurrentControlSet\\Control\\TimeZoneInformation";
  const char* name = g_kr2.os_level < kLevelVista ? "DisableAutoDaylightTimeSet" : "DynamicDaylightTimeDisabled";
  return reg_get_dword(reg_local(), kZoneKey, name, 0);
}
