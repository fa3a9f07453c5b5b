// The NTP query client. Every timestamp comes from the precise clock; the exchange runs inside the
// real-time brackets (affinity, timer resolution, priority), and nothing but the send lies between
// T1 and the wire, nothing but the receive between the wire and T4.
#include "timing/ntp_client.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <limits>
#include <new>
#include <string>

#include "config/defaults.h"
#include "platform/error.h"
#include "platform/error_text.h"
#include "platform/sync.h"
#include "timing/activity.h"
#include "timing/precise_clock.h"

namespace {

constexpr std::size_t kReferenceIdOffset = 12;
constexpr std::size_t kOriginateOffset = 24;
constexpr std::size_t kReceiveOffset = 32;
constexpr std::size_t kTransmitOffset = 40;
constexpr std::uint8_t kRequestFirstByte = 0x0B;   // LI 0, version 1, mode 3 (client)
constexpr std::uint8_t kModeServer = 4;
constexpr std::uint8_t kLeapUnsynchronised = 3;
constexpr double kFractionUnit = 2.3283064370807974e-10;              // 1 / 4,294,967,295 s
constexpr double kUnitsPerFraction = 0.0023283064370807974;           // 10,000,000 / 4,294,967,295
constexpr std::int64_t kSeconds1601To1970 = 11'644'473'600LL;
constexpr std::int64_t kSeconds1900To1970 = 2'208'988'800LL;

std::atomic<std::uint8_t> g_last_leap{0};

// Holds the real-time brackets for the lifetime of one exchange, released in reverse order.
struct RealTimeBrackets {
  RealTimeBrackets() {
    PinThreadAffinity(1);
    SetTimerResolution(1);
    BoostThreadPriority(1);
  }
  ~RealTimeBrackets() {
    BoostThreadPriority(0);
    SetTimerResolution(0);
    PinThreadAffinity(0);
  }
  RealTimeBrackets(const RealTimeBrackets&) = delete;
  RealTimeBrackets& operator=(const RealTimeBrackets&) = delete;
  PreciseClockNeeded clock;   // the tick runs for the whole exchange, brackets included
};

// Owns an open socket: shut down (both ways) and closed on every path.
struct SocketCloser {
  platform::SocketHandle socket = platform::kInvalidSocket;
  ~SocketCloser() {
    if (socket == platform::kInvalidSocket) return;
    platform::ShutdownSocket(socket);
    platform::CloseSocket(socket);
  }
};

// Double to an integer, truncated toward zero and kept within the type.
template <typename T>
T TruncateClamped(double v) {
  if (!(v > static_cast<double>(std::numeric_limits<T>::min()))) return std::numeric_limits<T>::min();
  if (v >= static_cast<double>(std::numeric_limits<T>::max())) return std::numeric_limits<T>::max();
  return static_cast<T>(v);
}

// The figures of a reply that passed validation.
void ComputeFigures(NtpResult& r) {
  const NtpTimes& t = r.times;
  const double theta = (NtpDifferenceSeconds(t.t2, t.t1) + NtpDifferenceSeconds(t.t3, t.t4)) / 2;
  r.delay_seconds = NtpDifferenceSeconds(t.t4, t.t1) + NtpDifferenceSeconds(t.t3, t.t2);
  r.offset = TruncateClamped<std::int64_t>(theta * 10'000'000.0);
  r.delay_ms = TruncateClamped<std::uint32_t>(r.delay_seconds * 1000.0);  // a negative delay (bogus server stamps) reads 0
  if (r.delay_ms == 1) r.delay_ms = 0;
}

NtpResult Failed(std::uint32_t error) {
  NtpResult r;
  r.error = error;
  return r;
}

// The receive: polls for up to the spin time, then blocks until the socket's receive time-out.
int ReceiveReply(platform::SocketHandle socket, std::uint8_t* reply) {
  using Clock = std::chrono::steady_clock;
  const auto until = Clock::now() + std::chrono::microseconds(defaults::kNtpReceiveSpinUs);
  do {
    const int n = platform::ReceiveNow(socket, reply, kNtpReplySize);
    if (n >= 0 || platform::LastSocketError() != platform::kWsaEwouldblock) return n;
  } while (Clock::now() < until);
  return platform::Receive(socket, reply, kNtpReplySize);
}

bool ReplyIsValid(const std::uint8_t* reply) {
  const std::uint8_t leap = reply[0] >> 6;
  const std::uint8_t mode = reply[0] & 7;
  const std::uint8_t stratum = reply[1];
  return leap != kLeapUnsynchronised && mode == kModeServer && LoadNtpTimestamp(reply + kTransmitOffset) != 0 &&
         stratum >= 1 && stratum <= 15;
}

// One exchange inside the brackets: the socket and the name copy are released on every path
// before the caller leaves the brackets.
NtpResult ExchangeInBrackets(const NtpQueryOptions& o, std::uint8_t* request, std::uint8_t* reply) {
  if (!o.server || !*o.server) return Failed(platform::kErrorInvalidParameter);
  std::string host;
  try {
    host = o.server;
  } catch (const std::bad_alloc&) {
    return Failed(platform::kErrorNotEnoughMemory);
  }
  // "host:port" names the host alone: the port part is ignored.
  if (const auto colon = host.find(':'); colon != std::string::npos) host.resize(colon);

  platform::SocketAddressV4 to{};
  SocketCloser socket;
  socket.socket = OpenSocketTo(host.c_str(), to, "ntp", defaults::kNtpPort, platform::kSocketDatagram,
                               o.timeout_ms != 0 ? o.timeout_ms : defaults::kNtpTimeoutMs, defaults::kNtpLocalPort);
  if (socket.socket == platform::kInvalidSocket) return Failed(static_cast<std::uint32_t>(platform::LastSocketError()));
  if (!o.prebuilt_request) {
    std::memset(request, 0, kNtpRequestSize);
    request[0] = kRequestFirstByte;
  }
  std::memset(reply, 0, kNtpReplySize);
  const std::size_t request_size = o.prebuilt_request ? kNtpPrebuiltRequestSize : kNtpRequestSize;

  const std::array<std::uint8_t, 8> t1 = BuildNtpTimestamp();
  std::memcpy(request + kOriginateOffset, t1.data(), t1.size());
  MarkActivity(kActivityNtpSend);
  if (platform::SendTo(socket.socket, request, request_size, to) < 0)
    return Failed(static_cast<std::uint32_t>(platform::LastSocketError()));
  const int received = ReceiveReply(socket.socket, reply);
  const std::array<std::uint8_t, 8> t4 = BuildNtpTimestamp();
  MarkActivity(kActivityNtpReceived);
  if (received < 0) return Failed(static_cast<std::uint32_t>(platform::LastSocketError()));
  return NtpReadReply(reply, LoadNtpTimestamp(t1.data()), LoadNtpTimestamp(t4.data()));
}

}  // namespace

NtpResult NtpReadReply(const std::uint8_t* reply, std::uint64_t t1, std::uint64_t t4) {
  NtpResult r;
  r.replied = true;
  r.leap = static_cast<std::uint8_t>(reply[0] >> 6);
  r.stratum = reply[1];
  std::memcpy(r.reference_id.data(), reply + kReferenceIdOffset, r.reference_id.size());
  g_last_leap.store(r.leap, std::memory_order_relaxed);
  if (!ReplyIsValid(reply)) {
    r.error = static_cast<std::uint32_t>(platform::kNtpErrorClockNotSet);
    return r;
  }
  r.times = NtpTimes{t1, LoadNtpTimestamp(reply + kReceiveOffset), LoadNtpTimestamp(reply + kTransmitOffset), t4};
  ComputeFigures(r);
  r.valid = 1;
  return r;
}

std::string NtpReferenceIdText(const NtpResult& result) {
  const auto& id = result.reference_id;
  if (result.stratum <= 1) {
    std::string text;
    for (std::size_t i = 0; i < id.size() && id[i]; ++i)
      text += (id[i] >= 0x20 && id[i] < 0x7F) ? static_cast<char>(id[i]) : '.';
    return text;
  }
  char dotted[16];
  std::snprintf(dotted, sizeof dotted, "%u.%u.%u.%u", id[0], id[1], id[2], id[3]);
  return dotted;
}

const char* NtpLeapText(std::uint8_t leap) {
  static const char* const kNames[] = {"no warning", "last minute has 61 s", "last minute has 59 s", "not synchronised"};
  return kNames[leap & 3];
}

std::uint64_t FileTimeToNtpTimestamp(std::uint64_t file_time) {
  const auto f = static_cast<std::int64_t>(file_time);
  const std::int64_t s = f / 10'000'000;
  const auto seconds = static_cast<std::uint32_t>(s - kSeconds1601To1970 + kSeconds1900To1970);
  const auto fraction = static_cast<std::uint32_t>(static_cast<double>(f - s * 10'000'000) / kUnitsPerFraction);
  return (static_cast<std::uint64_t>(seconds) << 32) | fraction;
}

double NtpTimestampToSeconds(std::uint64_t timestamp) {
  return static_cast<double>(timestamp >> 32) + static_cast<double>(timestamp & 0xFFFFFFFFu) * kFractionUnit;
}

double NtpDifferenceSeconds(std::uint64_t later, std::uint64_t earlier) {
  // The magnitude is converted and the sign applied after, so that a - b is exactly -(b - a).
  const std::uint64_t forward = later - earlier;
  const bool negative = static_cast<std::int64_t>(forward) < 0;
  const std::uint64_t magnitude = negative ? 0 - forward : forward;
  const double seconds = static_cast<double>(magnitude >> 32) + static_cast<double>(magnitude & 0xFFFFFFFFu) * kFractionUnit;
  return negative ? -seconds : seconds;
}

std::uint64_t LoadNtpTimestamp(const std::uint8_t* p) {
  std::uint64_t v = 0;
  for (int i = 0; i < 8; ++i) v = (v << 8) | p[i];
  return v;
}

void StoreNtpTimestamp(std::uint8_t* p, std::uint64_t timestamp) {
  for (int i = 7; i >= 0; --i, timestamp >>= 8) p[i] = static_cast<std::uint8_t>(timestamp);
}

std::array<std::uint8_t, 8> BuildNtpTimestamp() {
  std::array<std::uint8_t, 8> out{};
  StoreNtpTimestamp(out.data(), FileTimeToNtpTimestamp(PreciseClockNow()));
  return out;
}

std::uint8_t NtpLastLeapIndicator() { return g_last_leap.load(std::memory_order_relaxed); }

int ResolveHostPort(const char* host, platform::SocketAddressV4& out, const char* service, std::uint16_t default_port,
                    int type) {
  std::uint16_t port = platform::HostToNet16(default_port);
  if (service && *service) {
    std::uint16_t found = 0;
    if (platform::ServicePort(service, type == platform::kSocketDatagram ? "udp" : "tcp", found)) port = found;
  }
  out.family = platform::kFamilyInet;
  out.port = port;
  if (!host) {
    platform::SetLastSocketError(platform::kWsaEfault);  // no host text at all
    return 0;
  }
  int kind = 2;
  out.address = platform::InetAddr(host);
  if (out.address == platform::kInaddrNone) {
    MarkActivity(kActivityHostLookup);
    if (!platform::LookupHostV4(host, out.address)) return 0;
    MarkActivity(kActivityHostFound);
    kind = 1;
  }
  platform::SetLastSocketError(0);
  return kind;
}

platform::SocketHandle OpenSocketTo(const char* host, platform::SocketAddressV4& out, const char* service,
                                    std::uint16_t default_port, int type, std::uint32_t timeout_ms,
                                    std::uint16_t local_port) {
  if (!ResolveHostPort(host, out, service, default_port, type)) return platform::kInvalidSocket;
  const bool datagram = type == platform::kSocketDatagram;
  const platform::SocketHandle s = platform::CreateSocketV4(datagram ? platform::kSocketDatagram : platform::kSocketStream,
                                                            datagram ? platform::kProtocolUdp : platform::kProtocolTcp);
  if (s == platform::kInvalidSocket) return s;  // the creation error stays as the last socket error
  platform::SetReceiveTimeout(s, timeout_ms);
  platform::SetNoDelay(s, true);  // fails on datagram sockets; that is fine
  if (local_port != 0) {
    const platform::SocketAddressV4 any{platform::kFamilyInet, platform::HostToNet16(local_port), 0};
    platform::BindV4(s, any);  // a failed bind leaves the system's choice of port
  }
  platform::SetLastSocketError(0);
  return s;
}

NtpResult NtpExchange(const NtpQueryOptions& options) {
  std::array<std::uint8_t, kNtpPrebuiltRequestSize> request_scratch{};
  std::array<std::uint8_t, kNtpReplySize> reply_scratch{};
  std::uint8_t* request = options.request ? options.request : request_scratch.data();
  std::uint8_t* reply = options.reply ? options.reply : reply_scratch.data();
  NtpResult result;
  {
    RealTimeBrackets brackets;
    result = ExchangeInBrackets(options, request, reply);
  }
  platform::SetLastSocketError(static_cast<int>(result.error));
  return result;
}

std::size_t ChooseNtpSample(std::array<NtpResult, 3>& samples) {
  std::stable_sort(samples.begin(), samples.end(), [](const NtpResult& a, const NtpResult& b) {
    if ((a.valid != 0) != (b.valid != 0)) return a.valid != 0;
    return static_cast<std::uint64_t>(AbsInt64(a.offset)) < static_cast<std::uint64_t>(AbsInt64(b.offset));
  });
  if (!samples[0].valid) {
    if (samples[2].error != 0) return 2;
    if (samples[1].error != 0) return 1;
    return 0;
  }
  if (samples[1].valid) return samples[2].valid ? 1 : 0;
  return 0;
}

NtpResult NtpQuery(const NtpQueryOptions& options) {
  if (!options.multi_sample) return NtpExchange(options);

  const std::size_t request_size = options.prebuilt_request ? kNtpPrebuiltRequestSize : kNtpRequestSize;
  std::array<std::array<std::uint8_t, kNtpPrebuiltRequestSize>, 3> requests{};
  std::array<std::array<std::uint8_t, kNtpReplySize>, 3> replies{};
  std::array<NtpResult, 3> samples{};
  for (std::size_t i = 0; i < samples.size(); ++i) {
    if (options.request) std::memcpy(requests[i].data(), options.request, request_size);
    NtpQueryOptions one = options;
    one.request = requests[i].data();
    one.reply = replies[i].data();
    samples[i] = NtpExchange(one);
    platform::Sleep(defaults::kNtpMultiSamplePauseMs);
  }
  // The sort moves the figures; the request and reply handed back are those made at the chosen
  // position.
  const std::size_t chosen = ChooseNtpSample(samples);
  if (options.request) std::memcpy(options.request, requests[chosen].data(), request_size);
  if (options.reply) std::memcpy(options.reply, replies[chosen].data(), kNtpReplySize);
  platform::SetLastSocketError(static_cast<int>(samples[chosen].error));
  return samples[chosen];
}
