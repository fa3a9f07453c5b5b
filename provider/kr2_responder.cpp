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
#include "provider/event_log.h"
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

// The 35 commands of the KR2 protocol.
constexpr std::uint8_t kKnownKr2[] = {0,   1,   2,   3,   4,   5,   6,   7,   10,  11,  12,  13,
                                      14,  80,  81,  82,  83,  100, 101, 102, 128, 129, 130, 131,
                                      132, 140, 150, 151, 160, 180, 200, 201, 202, 203, 204};
static_assert(sizeof kKnownKr2 == 35);
// Refused when "Prohibited KR2 Commands" cannot be read.
constexpr std::uint8_t kProhibitedByDefault[] = {102, 150, 160, 180};
constexpr std::uint8_t kUnknownCommand = 128;

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

std::size_t Kr2RequestBytes(std::uint8_t code) {
  return code == kKr2DriftAfter ? kKr2ArgumentOffset + sizeof(std::uint32_t) : kKr2CommandOffset + 1;
}

bool IsKnownKr2Command(std::uint32_t code) {
  for (std::uint8_t known : kKnownKr2)
    if (known == code) return true;
  return false;
}

void BuildProhibitedTable(std::array<std::uint8_t, kKr2CommandCount>& table) {
  table.fill(0);
  if (!reg_get_binary(reg_local(), defaults::kW32TimeParametersKey, defaults::kProhibitedKr2Value, table.data(), kKr2CommandCount))
    for (std::uint8_t code : kProhibitedByDefault) table[code] = 1;
  for (std::uint32_t code = 0; code < kKr2CommandCount; ++code)
    if (!IsKnownKr2Command(code)) table[code] = kUnknownCommand;
}

Kr2Responder::Kr2Responder(const char* event_source) : event_source_(event_source) {}

void Kr2Responder::BuildIdentityRecord() {
  std::uint32_t first_start = reg_get_dword(reg_local(), defaults::kProviderKey, "Ephemerides", 0);
  if (first_start == 0) {
    first_start = PreciseClockUnixSeconds();
    reg_set_dword(reg_local(), defaults::kProviderKey, "Ephemerides", first_start);
  }
  identity_ = {};
  identity_.ephemerides = first_start;
  identity_.product_code = defaults::kProductCode;
  identity_.major_version = defaults::kVersionMajor;
  identity_.minor_version = defaults::kVersionMinor;
  identity_.build_year = defaults::kBuildYear;
  identity_.build_month_day = defaults::kBuildMonthDay;
  identity_.one = 1;
  identity_.nt_family = platform::IsNtFamily() ? 1 : 0;
  CopyText(identity_.version, defaults::kProductVersion);
  CopyText(identity_.computer_name, g_w32t_env.computer_name);
}

std::uint32_t Kr2Responder::RefreshTimeZoneName() {
  platform::TimeZoneNow zone;
  const bool ok = platform::CurrentTimeZone(zone);
  CopyText(status_.time_zone, ok && !zone.name.empty() ? zone.name.c_str() : "unknown");
  return !ok ? 0 : zone.daylight ? 1 : 2;
}

void Kr2Responder::ResetStatusCounters() {
  LocalStatusRecord& r = status_;
  std::memset(r.times, 0, sizeof r.times);
  std::memset(r.counters, 0, sizeof r.counters);
  std::memset(r.failed, 0, sizeof r.failed);
  r.bytes_received = r.bytes_sent = 0;
  r.offset_sum_ms = 0;
  r.sync_successes = r.sync_verdicts = r.sync_failures = 0;
  r.last_counter_reset = PreciseClockUnixSeconds();
}

void Kr2Responder::InitLocalStatusRecord() {
  status_ = {};
  status_.product_code = defaults::kProductCode;
  CopyText(status_.version, defaults::kProductVersion);
  CopyText(status_.partner_name, "(none since startup)");
  RefreshTimeZoneName();
  ResetStatusCounters();
}

// The local address to bind: "Server Answer IP" when it names one of this machine's addresses.
std::uint32_t Kr2Responder::AnswerAddress() {
  char text[256] = {};
  reg_get_string(reg_local(), "", kServerAnswerIpValue, text, sizeof text, "");
  server_answer_ip_ = text;
  if (!*text) return 0;
  std::uint32_t a = platform::InetAddr(text);
  if (a == platform::kInaddrNone && !platform::LookupHostV4(text, a)) return 0;
  if (a == 0 || a == platform::kInaddrNone || !platform::IsOwnAddress(a)) return 0;
  return a;
}

bool Kr2Responder::CreateListenSocket() {
  ForgetLastRequest();
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
    LogEvent(event_source_, platform::kEventLogError, "Could not create listen socket; %s",
             SocketErrorText(static_cast<std::uint32_t>(code), text, sizeof text));
    platform::CloseSocket(s);
    server_answer_ip_.clear();
    return false;
  }
  // Room for a few tens of milliseconds of a flood: a moment's delay of the agent thread must not
  // make the kernel drop a well-behaved source's request among the flood's (best effort).
  platform::SetReceiveBufferSize(s, kKr2ReceiveBufferBytes);
  listen_socket_ = s;
  return true;
}

void Kr2Responder::CloseListenSocket() {
  if (listen_socket_ != platform::kInvalidSocket) {
    platform::ShutdownSocket(listen_socket_);
    platform::CloseSocket(listen_socket_);
    listen_socket_ = platform::kInvalidSocket;
  }
  server_answer_ip_.clear();
}


void Kr2Responder::BuildProducts(Kr2Machine& machine) {
  Kr2Products& p = products_;
  const LocalStatusRecord& s = status_;
  std::memset(&p, 0, sizeof p);
  std::memcpy(p.responder_block, responder_block_.data(), sizeof p.responder_block);

  const std::uint32_t zone_state = RefreshTimeZoneName();
  std::uint32_t flags = (defaults::kProductCode & kKr2MachineProductMask) | kKr2MachineAlways;
  if (identity_.one) flags |= kKr2MachineIdentityOne;
  if (system_.nt_family) {
    flags |= kKr2MachineNtFamily;
    struct LevelBit {
      std::uint32_t level;
      int bit;
    };
    constexpr LevelBit kLevelBits[] = {{256, 16},  {512, 16},   {1024, 17},  {2048, 18},
                                       {4096, 19}, {8192, 20}, {16384, 26}, {32768, 27}};
    for (const auto& lb : kLevelBits)
      if (system_.os_level == lb.level) flags |= 1u << lb.bit;
  }
  if (system_.win9x_family) flags |= kKr2MachineWin9xFamily;
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
  p.ephemerides = identity_.ephemerides;
  p.now = Now();
  p.partner_time = s.partner_time;
  p.agent_start = s.agent_start;
  std::memcpy(p.time_zone, s.time_zone, sizeof s.time_zone);
  std::memcpy(p.version, s.version, sizeof s.version);
  std::memcpy(p.partner, s.partner_name, sizeof s.partner_name);
  std::memcpy(p.computer_name, identity_.computer_name, sizeof identity_.computer_name);
  p.installed = static_cast<std::uint16_t>(kKr2InstalledAlways | machine.InstalledProducts());
}

void Kr2Responder::ForgetLastRequest() {
  responder_block_.fill(0);
  last_request_.fill(0);
  have_last_ = false;
}

// Fills the time-zone reply over the receive buffer from offset 8 on; returns it.
const Kr2TimeZoneReply& Kr2Responder::BuildTimeZoneReply(Kr2Machine& machine) {
  static_assert(kKr2ArgumentOffset + sizeof(Kr2TimeZoneReply) == kKr2RequestMax);
  auto* r = reinterpret_cast<Kr2TimeZoneReply*>(receive_.data() + kKr2ArgumentOffset);
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
void Kr2Responder::RefreshStatus(Kr2Machine& machine) {
  if (!in_batch_ || !zone_read_) RefreshTimeZoneName();
  zone_read_ = true;
  status_.product_code = defaults::kProductCode;
  status_.sync_type = static_cast<std::uint8_t>(machine.SyncType());
  status_.last_status_request = Now();
}

Kr2Outcome Kr2Responder::HandleRequestWith(Kr2Socket& socket, Kr2Machine& machine) {
  auto& buf = receive_;
  platform::SocketAddressV4 from{};
  const int received = socket.Receive(buf.data(), buf.size(), from);
  if (received < 0) {
    ++status_.failed[0];
    return Kr2Outcome::ReceiveFailed;
  }
  // A datagram shorter than its request gets silence: the rest would be read from the request
  // before it, still in the buffer.
  if (static_cast<std::size_t>(received) <= kKr2CommandOffset) return Kr2Outcome::Malformed;
  const std::uint8_t code = buf[kKr2CommandOffset];
  if (static_cast<std::size_t>(received) < Kr2RequestBytes(code)) return Kr2Outcome::Malformed;
  if (prohibited_[code] != 0) return Kr2Outcome::Refused;
  Kr2Guard& guard = guard_;
  if (Kr2ChangesMachine(code) && !guard.MayChange(from.address)) {
    if (guard.NoticeNotManager(from.address, Now())) {
      char address[16];
      LogEvent(event_source_, platform::kEventLogWarning,
               "KR2 command %u from %s refused: that address is not one of the KR2 managers (%llu refused so far)",
               code, FormatIPv4(from.address, address), static_cast<unsigned long long>(guard.refused_changes()));
    }
    return Kr2Outcome::NotManager;
  }

  MarkActivity(kSlotRequest);
  if (have_last_ && std::equal(buf.begin(), buf.end(), last_request_.begin())) return Kr2Outcome::Repeat;
  if (!guard.Admit(from.address, platform::CounterMilliseconds())) {
    if (guard.NoticeLimited(from.address, Now())) {
      char address[16];
      char rate[96];
      std::snprintf(rate, sizeof rate, "more than %u reply bytes a second asked", guard.rate());
      LogEvent(event_source_, platform::kEventLogWarning, "KR2 requests from %s go unanswered: %s (%llu limited so far)",
               FormatIPv4(from.address, address),
               guard.last_no_room() ? "the table of sources has no place for a new one while it holds sources that asked recently"
                                    : rate,
               static_cast<unsigned long long>(guard.limited()));
    }
    return Kr2Outcome::Limited;
  }
  std::copy(buf.begin(), buf.end(), last_request_.begin());
  have_last_ = true;
  status_.bytes_received += static_cast<std::uint64_t>(received);

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
      if (system_.os_level == kLevelWin2000) {
        answer(kNak);
      } else {
        machine.RequestResync();
        answer(kAck);
      }
      break;
    case kKr2Identity:
      answer(identity_);
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
      answer(status_);
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
      BuildProducts(machine);
      answer(products_);
      break;
    default:
      for (const auto& s : kSilentMarked)
        if (s.code == code) MarkActivity(s.slot);
      return Kr2Outcome::Unanswered;
  }

  guard.Charge(size + Kr2WorkBytes(code));
  const int sent = socket.Send(reply, size, from);
  if (sent >= 0) status_.bytes_sent += static_cast<std::uint64_t>(sent);
  ++status_.counters[0];
  status_.times[0] = Now();
  MarkActivity(kSlotReply);
  return Kr2Outcome::Answered;
}

void Kr2Responder::ConfigureGuard(const char* managers, std::uint32_t rate_bytes_per_s, std::uint32_t burst_bytes) {
  for (const std::string& bad : guard_.Configure(managers, rate_bytes_per_s, burst_bytes))
    LogEvent(event_source_, platform::kEventLogWarning,
             "The KR2 managers' entry \"%s\" is neither an address, a prefix nor \"any\"; it is ignored", bad.c_str());
}

void Kr2Responder::HandleRequest(platform::SocketHandle socket, const W32tSettings& settings,
                                 platform::EventHandle sync_event) {
  Kr2SocketOn transport(*this, socket);
  Kr2SystemMachine machine(settings, sync_event, system_.os_level, event_source_);
  ConfigureGuard(settings.kr2_managers, settings.kr2_rate_limit, settings.kr2_rate_burst);
  in_batch_ = true;
  zone_read_ = false;
  do HandleRequestWith(transport, machine);
  while (transport.Pending());
  in_batch_ = false;
}

int Kr2SocketOn::Receive(std::uint8_t* buf, std::size_t size, platform::SocketAddressV4& from) {
  if (!fetched_) {
    // Only what is waiting now: a wake-up with nothing to read (a socket shut down under the agent's
    // wait) must not hold the agent in a receive.
    fetched_ = true;
    auto& b = responder_.buffers_;
    for (std::size_t i = 0; i < kKr2Batch; ++i) b.received[i] = {b.in[i].data(), kKr2RequestMax, 0, {}};
    const int n = platform::ReceiveBatchNow(socket, b.received.data(), kKr2Batch);
    if (n < 0) return -1;
    received_ = static_cast<std::size_t>(n);
  }
  if (next_ >= received_) {
    platform::SetLastSocketError(platform::kWsaEwouldblock);
    return -1;
  }
  const platform::Datagram& d = responder_.buffers_.received[next_++];
  const std::size_t n = std::min(d.length, size);
  std::memcpy(buf, d.data, n);   // the rest of buf keeps what it held, as a receive into it would
  from = d.peer;
  return static_cast<int>(n);
}

int Kr2SocketOn::Send(const void* data, std::size_t size, const platform::SocketAddressV4& to) {
  if (size > kKr2RequestMax) return platform::SendTo(socket, data, size, to);
  if (queued_ == kKr2Batch) Flush();
  auto& b = responder_.buffers_;
  auto& out = b.out[queued_];
  std::memcpy(out.data(), data, size);
  b.replies[queued_++] = {out.data(), out.size(), size, to};
  return static_cast<int>(size);
}

void Kr2SocketOn::Flush() {
  if (!queued_) return;
  const int sent = platform::SendBatch(socket, responder_.buffers_.replies.data(), queued_);
  for (std::size_t i = sent < 0 ? 0 : static_cast<std::size_t>(sent); i < queued_; ++i)
    responder_.status_.bytes_sent -= responder_.buffers_.replies[i].length;
  queued_ = 0;
}

Kr2SystemMachine::Kr2SystemMachine(const W32tSettings& settings, platform::EventHandle sync_event, std::uint32_t os_level,
                                   const char* event_source)
    : sync_type_(settings.sync_type),
      max_phase_offset_s_(settings.max_allowed_phase_offset),
      os_level_(os_level),
      sync_event_(sync_event),
      event_source_(event_source) {}

void Kr2SystemMachine::RequestResync() {
  if (sync_event_) platform::SetEvent(sync_event_);
}

void Kr2SystemMachine::ClearHistory() {
  // A history that cannot be kept as the previous generation is not emptied, nor the list of the
  // sources: nothing is lost, and the requester sees the records still there.
  if (!DriftFileClear()) {
    char text[256];
    LogEvent(event_source_, platform::kEventLogWarning,
             "The drift history was not cleared as KR2 asked: it could not be kept as %s%s first. Error: %s",
             defaults::kDriftFileName, defaults::kDriftPreviousSuffix, SystemErrorText(platform::LastError(), text, sizeof text));
    return;
  }
  reg_delete_value(reg_local(), defaults::kProviderKey, defaults::kLastUsedTimeSourceValue);
}

bool Kr2SystemMachine::DriftAfter(DriftRecord& out, std::uint32_t after) { return DriftFileReadAfter(out, after); }

std::uint32_t Kr2SystemMachine::SyncType() { return sync_type_; }

std::uint32_t Kr2SystemMachine::MaxPhaseOffsetSeconds() { return max_phase_offset_s_; }

std::uint16_t Kr2SystemMachine::InstalledProducts() {
  std::uint16_t bits = 0;
  bits |= InstalledBit("\\\\Software\\Morvane\\Kairon Server\\Parameters", kKr2InstalledServer);
  bits |= InstalledBit("\\\\Software\\Morvane\\Kairon Set\\Parameters", kKr2InstalledSet);
  bits |= InstalledBit("\\\\Software\\Morvane\\Kairon II Manager\\Parameters", kKr2InstalledManager);
  bits |= InstalledBit("\\\\Software\\Morvane\\Kairon II Monitor\\Parameters", kKr2InstalledMonitor);
  bits |= InstalledBit("\\\\Software\\Morvane\\Kairon II Update Server\\Parameters", kKr2InstalledUpdateServer);
  bits |= InstalledBit("\\\\Software\\Morvane\\Kairon II Audit Server\\Parameters", kKr2InstalledAuditServer);
  bits |= InstalledBit(defaults::kProviderKey, kKr2InstalledChronwarden);
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
  const char* name = os_level_ < kLevelVista ? "DisableAutoDaylightTimeSet" : "DynamicDaylightTimeDisabled";
  return reg_get_dword(reg_local(), kZoneKey, name, 0);
}
