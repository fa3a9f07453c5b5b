// The KR2 responder under a flood of status requests, beside chronyd's NTP replies under the same
// load generator, and how late the agent's one-second polls of the time service come meanwhile.
//
// The provider runs in this process on the real clock, with a machine root (registry store,
// system32) and shared-object names of the run's own. One load generator (one UDP socket, up to
// WINDOW requests in flight) first asks the provider's responder for its status (128) for SECONDS,
// then a chronyd on 127.0.0.1:123 for the time (48-byte client requests) for as long; before both
// the provider is left idle as long. Each phase reports replies per second, the median and p99
// round trip of the replies, and the agent's worst poll lateness (interval between two polls less
// one second). Then, with a full drift history (16,384 records written into the provider's
// drift.kr), the generator asks for the newest records (160) as long, while another source
// (127.0.0.3) asks for the status four times a second and waits for each answer. Then, from
// sources that are not loopback, the rate limit under a flood and under the eviction attack
// (forged neighbours beside a flooded victim). bench/kr2_flood.sh starts chronyd and runs this
// program.
//
// Usage: kr2_flood_bench [SECONDS] [WINDOW]
#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <filesystem>
#include <functional>
#include <fstream>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "applet/kr2_client.h"
#include "config/defaults.h"
#include "config/registry.h"
#include "drift/drift_file.h"
#include "platform/error.h"
#include "platform/net.h"
#include "platform/paths.h"
#include "provider/agent.h"
#include "provider/kr2_responder.h"
#include "provider/provider.h"
#include "tests/shared_objects.h"
#include "tests/time_service_fake.h"

namespace {

using Clock = std::chrono::steady_clock;
using Ms = std::chrono::duration<double, std::milli>;
constexpr auto kLostAfter = std::chrono::seconds(1);         // a request unanswered this long is lost
constexpr auto kNextPollWait = std::chrono::seconds(5);      // the longest wait for the poll after a phase
constexpr std::uint32_t kReceiveWaitMs = 100;                // the generator's receive time-out
constexpr std::size_t kNtpSize = 48;
constexpr std::size_t kNtpOriginFraction = 28, kNtpTransmit = 40, kNtpTransmitFraction = 44;

// The agent's polls: the current time is the first thing each poll asks the service.
std::mutex g_polls_mutex;
std::vector<Clock::time_point> g_polls;

platform::HResult RecordingGetTimeSysInfo(platform::TimeSysInfo what, void* out) {
  if (what == platform::TSI_CurrentTime) {
    std::lock_guard lock(g_polls_mutex);
    g_polls.push_back(Clock::now());
  }
  return TimeServiceFake::GetTimeSysInfo(what, out);
}

std::vector<Clock::time_point> Polls() {
  std::lock_guard lock(g_polls_mutex);
  return g_polls;
}

// One request/reply protocol for the generator: the request carrying a sequence number, and the
// sequence number of the request a reply answers (seq holds the oldest one still in flight).
struct Exchange {
  const char* name;
  platform::SocketAddressV4 to;
  std::size_t (*build)(std::uint32_t seq, std::uint8_t* out);
  bool (*answered)(const std::uint8_t* reply, int size, std::uint32_t& seq);
};

// KR2 history (160) over a full history: records a minute apart from kHistoryStart; request seq asks
// for one of the newest kAsked records (the far end of the file), which the reply names.
constexpr std::uint32_t kFullHistory = defaults::kDriftFileCapBytes / kDriftRecordSize;
constexpr std::uint32_t kHistoryStart = 1'700'000'000, kAsked = 1000;
std::uint32_t HistoryTime(std::uint32_t index) { return kHistoryStart + 60 * index; }
std::size_t Kr2HistoryRequest(std::uint32_t seq, std::uint8_t* out) {
  const auto r = Kr2BuildRequest(kKr2DriftAfter, HistoryTime(kFullHistory - 1 - seq % kAsked) - 1, seq);
  std::memcpy(out, r.data(), r.size());
  return r.size();
}
bool Kr2HistoryAnswered(const std::uint8_t* reply, int size, std::uint32_t& seq) {
  DriftRecord r;
  if (size != static_cast<int>(sizeof r)) return false;
  std::memcpy(&r, reply, sizeof r);
  const std::uint32_t index = (r.check_time - kHistoryStart) / 60;
  if (r.check_time < kHistoryStart || index >= kFullHistory || kFullHistory - 1 - index >= kAsked) return false;
  const std::uint32_t oldest = seq, answered = oldest - oldest % kAsked + (kFullHistory - 1 - index);
  seq = answered < oldest ? answered + kAsked : answered;
  return true;
}

// KR2 status: the sequence number is the request's tag, so that no request repeats the last. The
// status record does not echo the tag, but it counts the replies sent before it; the responder
// answers in order, so with nothing lost on the loopback that count is the request's number.
std::size_t Kr2StatusRequest(std::uint32_t seq, std::uint8_t* out) {
  const auto r = Kr2BuildRequest(kKr2Status, 0, seq);
  std::memcpy(out, r.data(), r.size());
  return r.size();
}
bool Kr2StatusAnswered(const std::uint8_t* reply, int size, std::uint32_t& seq) {
  if (size != static_cast<int>(sizeof(LocalStatusRecord))) return false;
  std::uint64_t replies_before;
  std::memcpy(&replies_before, reply + offsetof(LocalStatusRecord, counters), sizeof replies_before);
  seq = static_cast<std::uint32_t>(replies_before);
  return true;
}

// NTP client request (version 4, mode 3): the sequence number is the transmit timestamp's
// fraction, which the server's reply (mode 4) returns as its origin timestamp.
std::size_t NtpRequest(std::uint32_t seq, std::uint8_t* out) {
  std::memset(out, 0, kNtpSize);
  out[0] = 0x23;
  out[kNtpTransmit] = 1;   // a transmit time that is not zero
  std::memcpy(out + kNtpTransmitFraction, &seq, sizeof seq);
  return kNtpSize;
}
bool NtpAnswered(const std::uint8_t* reply, int size, std::uint32_t& seq) {
  if (size < static_cast<int>(kNtpSize) || (reply[0] & 7) != 4) return false;
  std::memcpy(&seq, reply + kNtpOriginFraction, sizeof seq);
  return true;
}

struct FloodResult {
  bool ok = true;                       // false: nothing listens at the address
  std::uint64_t sent = 0, lost = 0;
  std::vector<double> round_trip_us;    // one per reply
  double seconds = 0;                   // from the first request to the last reply
};

// Keeps up to window requests in flight for length; a reply frees its slot at once, a request
// unanswered for kLostAfter frees it as lost. Then waits for the replies still due before it
// closes the socket, so that none is sent to a closed port.
FloodResult Flood(const Exchange& e, Clock::duration length, std::size_t window) {
  FloodResult r;
  const platform::SocketHandle s = platform::CreateSocketV4(platform::kSocketDatagram, platform::kProtocolUdp);
  if (s == platform::kInvalidSocket || !platform::SetReceiveTimeout(s, kReceiveWaitMs)) return r.ok = false, r;
  struct InFlight {
    std::uint32_t seq;
    Clock::time_point sent;
  };
  std::deque<InFlight> in_flight;
  std::uint8_t buf[kKr2RequestMax];
  std::uint32_t next = 0;
  const auto start = Clock::now(), end = start + length;
  auto last_reply = start;
  while (r.ok && (Clock::now() < end || !in_flight.empty())) {
    while (in_flight.size() < window && Clock::now() < end) {
      const std::size_t n = e.build(next, buf);
      const auto at = Clock::now();
      if (platform::SendTo(s, buf, n, e.to) < 0) break;
      in_flight.push_back({next++, at});
      ++r.sent;
    }
    const int n = platform::ReceiveFrom(s, buf, sizeof buf, nullptr);
    const auto now = Clock::now();
    std::uint32_t seq = in_flight.empty() ? next : in_flight.front().seq;
    if (n >= 0 && e.answered(buf, n, seq)) {
      for (; !in_flight.empty() && in_flight.front().seq < seq; in_flight.pop_front()) ++r.lost;
      if (!in_flight.empty() && in_flight.front().seq == seq) {
        r.round_trip_us.push_back(std::chrono::duration<double, std::micro>(now - in_flight.front().sent).count());
        in_flight.pop_front();
        last_reply = now;
      }
    } else if (n < 0 && platform::LastSocketError() != platform::kWsaEtimedout) {
      r.ok = false;   // 10054: the address refused the datagram
    }
    for (; !in_flight.empty() && now - in_flight.front().sent > kLostAfter; in_flight.pop_front()) ++r.lost;
  }
  platform::CloseSocket(s);
  r.seconds = std::chrono::duration<double>(last_reply - start).count();
  return r;
}

// The worst lateness of the agent's polls over a phase: runs it, waits for the next poll (so that
// a poll the phase held back still counts), then takes every interval between polls that ended
// after the phase began, and the interval still open since the last poll.
template <typename Phase>
double WorstPollLatenessMs(Phase phase) {
  const auto begin = Clock::now();
  phase();
  const auto end = Clock::now();
  while (Clock::now() < end + kNextPollWait && Polls().back() <= end)
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  const auto polls = Polls();
  Ms worst = Clock::now() - polls.back();
  for (std::size_t i = 1; i < polls.size(); ++i)
    if (polls[i] > begin) worst = std::max<Ms>(worst, polls[i] - polls[i - 1]);
  return (worst - std::chrono::milliseconds(kAgentPollMs)).count();
}

double Percentile(std::vector<double> v, double p) {
  if (v.empty()) return 0;
  std::sort(v.begin(), v.end());
  return v[std::min(v.size() - 1, static_cast<std::size_t>(p * static_cast<double>(v.size())))];
}

void PrintRow(const char* load, const FloodResult* f, double lateness_ms) {
  if (!f) {
    std::printf("| %s | - | - | - | - | %.1f |\n", load, lateness_ms);
    return;
  }
  std::printf("| %s | %.0f | %.1f | %.1f | %llu of %llu | %.1f |\n", load,
              f->seconds > 0 ? static_cast<double>(f->round_trip_us.size()) / f->seconds : 0.0, Percentile(f->round_trip_us, 0.5),
              Percentile(f->round_trip_us, 0.99), static_cast<unsigned long long>(f->lost),
              static_cast<unsigned long long>(f->sent), lateness_ms);
}

platform::SocketAddressV4 Loopback(std::uint16_t port) {
  return {platform::kFamilyInet, platform::HostToNet16(port), platform::HostToNet32(0x7F000001)};
}

// The rate limit, seen from two sources that are not loopback (192.0.2.0/24, which
// bench/kr2_flood.sh puts on the namespace's loopback device): one sends status requests as fast as
// it can, the other asks for the status four times a second and waits for each answer.
constexpr std::uint32_t kLimitNet = 0xC0000200;   // 192.0.2.0
struct LimitResult {
  bool ok = false;
  std::uint64_t flood_sent = 0, flood_replies = 0, flood_bytes = 0;
  std::uint32_t station_asked = 0, station_answered = 0;
  double seconds = 0;
};

platform::SocketHandle SocketFrom(std::uint32_t host) {
  const platform::SocketHandle s = platform::CreateSocketV4(platform::kSocketDatagram, platform::kProtocolUdp);
  if (s == platform::kInvalidSocket) return s;
  const platform::SocketAddressV4 local{platform::kFamilyInet, 0, platform::HostToNet32(host)};
  if (!platform::BindV4(s, local) || !platform::SetReceiveTimeout(s, kReceiveWaitMs)) {
    platform::CloseSocket(s);
    return platform::kInvalidSocket;
  }
  return s;
}

// Counts the replies that reach s and their bytes, until a wait finds none once sending is false.
void CountReplies(platform::SocketHandle s, std::uint64_t& replies, std::uint64_t& bytes, const std::atomic<bool>& sending) {
  std::uint8_t buf[kKr2RequestMax];
  for (;;) {
    const int n = platform::ReceiveFrom(s, buf, sizeof buf, nullptr);
    if (n > 0) ++replies, bytes += static_cast<std::uint64_t>(n);
    else if (!sending) break;
  }
}

LimitResult LimitedFlood(std::uint16_t port, Clock::duration length) {
  LimitResult r;
  const platform::SocketAddressV4 to{platform::kFamilyInet, platform::HostToNet16(port), platform::HostToNet32(kLimitNet | 1)};
  const platform::SocketHandle flood = SocketFrom(kLimitNet | 10), station = SocketFrom(kLimitNet | 20);
  if (flood == platform::kInvalidSocket || station == platform::kInvalidSocket) {
    platform::CloseSocket(flood);
    platform::CloseSocket(station);
    return r;
  }
  r.ok = true;
  const auto start = Clock::now(), end = start + length;
  std::atomic<bool> sending{true};
  std::thread receiver(CountReplies, flood, std::ref(r.flood_replies), std::ref(r.flood_bytes), std::cref(sending));
  std::thread station_thread([&] {
    std::uint8_t buf[kKr2RequestMax];
    for (std::uint32_t tag = 1u << 31; Clock::now() < end; ++tag) {
      const auto asked = Clock::now();
      const auto request = Kr2BuildRequest(kKr2Status, 0, tag);
      if (platform::SendTo(station, request.data(), request.size(), to) < 0) break;
      ++r.station_asked;
      if (platform::ReceiveFrom(station, buf, sizeof buf, nullptr) == static_cast<int>(sizeof(LocalStatusRecord)))
        ++r.station_answered;
      std::this_thread::sleep_until(asked + std::chrono::milliseconds(250));
    }
  });
  for (std::uint32_t tag = 0; Clock::now() < end; ++tag) {
    const auto request = Kr2BuildRequest(kKr2Status, 0, tag);
    if (platform::SendTo(flood, request.data(), request.size(), to) >= 0) ++r.flood_sent;
  }
  r.seconds = std::chrono::duration<double>(Clock::now() - start).count();
  sending = false;
  station_thread.join();
  receiver.join();
  platform::CloseSocket(flood);
  platform::CloseSocket(station);
  return r;
}

// The eviction attack: the victim's address (192.0.2.30) floods status requests while eight forged
// neighbours of its /24 (192.0.2.31-38) each send one beside every one of the victim's, as an
// attacker who wants the victim's bucket pushed out of the table (and started again full) would.
struct EvictionResult {
  bool ok = false;
  std::uint64_t victim_sent = 0, victim_replies = 0, victim_bytes = 0;
  double seconds = 0;
};

EvictionResult EvictionFlood(std::uint16_t port, Clock::duration length) {
  EvictionResult r;
  constexpr std::uint32_t kNeighbours = 8;
  const platform::SocketAddressV4 to{platform::kFamilyInet, platform::HostToNet16(port), platform::HostToNet32(kLimitNet | 1)};
  std::vector<platform::SocketHandle> sockets;
  for (std::uint32_t host = 30; host <= 30 + kNeighbours; ++host) sockets.push_back(SocketFrom(kLimitNet | host));
  const auto close_all = [&] {
    for (const auto s : sockets) platform::CloseSocket(s);
  };
  if (std::count(sockets.begin(), sockets.end(), platform::kInvalidSocket) != 0) return close_all(), r;
  r.ok = true;
  const platform::SocketHandle victim = sockets[0];
  const auto start = Clock::now(), end = start + length;
  std::atomic<bool> sending{true};
  std::thread receiver(CountReplies, victim, std::ref(r.victim_replies), std::ref(r.victim_bytes), std::cref(sending));
  for (std::uint32_t tag = 0; Clock::now() < end; ++tag) {
    const auto request = Kr2BuildRequest(kKr2Status, 0, tag);
    for (const auto s : sockets)
      if (platform::SendTo(s, request.data(), request.size(), to) >= 0 && s == victim) ++r.victim_sent;
  }
  r.seconds = std::chrono::duration<double>(Clock::now() - start).count();
  sending = false;
  receiver.join();
  close_all();
  return r;
}

// A station (127.0.0.3) asks for the status four times a second and waits for each answer while
// phase runs; how many it asked and how many were answered.
template <typename Phase>
std::pair<std::uint32_t, std::uint32_t> StationDuring(std::uint16_t port, Phase phase) {
  const platform::SocketHandle station = SocketFrom(0x7F000003);
  if (station == platform::kInvalidSocket) return {0, 0};
  const platform::SocketAddressV4 to = Loopback(port);
  std::atomic<bool> running{true};
  std::uint32_t asked = 0, answered = 0;
  std::thread asker([&] {
    std::uint8_t buf[kKr2RequestMax];
    for (std::uint32_t tag = 1u << 31; running; ++tag) {
      const auto at = Clock::now();
      const auto request = Kr2BuildRequest(kKr2Status, 0, tag);
      if (platform::SendTo(station, request.data(), request.size(), to) < 0) break;
      ++asked;
      if (platform::ReceiveFrom(station, buf, sizeof buf, nullptr) == static_cast<int>(sizeof(LocalStatusRecord))) ++answered;
      std::this_thread::sleep_until(at + std::chrono::milliseconds(250));
    }
  });
  phase();
  running = false;
  asker.join();
  platform::CloseSocket(station);
  return {asked, answered};
}

// The provider's drift.kr made a full history (written as another process would).
bool WriteFullHistory() {
  std::vector<DriftRecord> records(kFullHistory);
  for (std::uint32_t i = 0; i < kFullHistory; ++i) {
    records[i].version = kDriftRecordVersion;
    records[i].reason = kReasonScheduled;
    records[i].check_time = HistoryTime(i);
    records[i].variance_ms = static_cast<std::int32_t>(i);
  }
  const std::string path = platform::NativePath(DriftFilePath({}));
  std::ofstream(path, std::ios::binary | std::ios::trunc)
      .write(reinterpret_cast<const char*>(records.data()), static_cast<std::streamsize>(records.size() * sizeof records[0]));
  std::error_code ec;
  return std::filesystem::file_size(path, ec) == defaults::kDriftFileCapBytes;
}

}  // namespace

int main(int argc, char** argv) {
  const int seconds = argc > 1 ? std::atoi(argv[1]) : 10;
  const std::size_t window = argc > 2 ? static_cast<std::size_t>(std::atoi(argv[2])) : 64;
  if (seconds < 1 || seconds > 600 || window < 1 || window > 4096) {
    std::fprintf(stderr, "usage: %s [SECONDS 1-600] [WINDOW 1-4096]\n", argv[0]);
    return 2;
  }
  const auto length = std::chrono::seconds(seconds);

  // A machine root and shared-object names of the run's own, set before the first registry use.
  const auto root = std::filesystem::temp_directory_path() / ("cw-flood-" + std::to_string(std::random_device{}()));
  platform::SetEnvironmentValue("CHRONWARDEN_ROOT", root.string().c_str());
  std::filesystem::create_directories(platform::NativePath(platform::SystemDirectory()));
  SharedObjectNamespace names;
  platform::NetStartup();
  // Every known KR2 command allowed (the history's 160 too).
  const std::array<std::uint8_t, kKr2CommandCount> allowed{};
  reg_set_binary(reg_local(), defaults::kW32TimeParametersKey, defaults::kProhibitedKr2Value, allowed.data(), kKr2CommandCount);

  platform::TimeProvSysCallbacks callbacks = TimeServiceFake::Callbacks();
  callbacks.pfnGetTimeSysInfo = RecordingGetTimeSysInfo;
  std::u16string name = u"Chronwarden";
  platform::TimeProvHandle handle = nullptr;
  TimeProvOpen(name.data(), &callbacks, &handle);
  platform::SocketAddressV4 listen{};
  int status = 1;
  const auto first_poll_by = Clock::now() + kNextPollWait;
  while (handle && Polls().empty() && Clock::now() < first_poll_by) std::this_thread::sleep_for(std::chrono::milliseconds(10));
  if (!handle || !g_provider.responder_active || !platform::SocketName(g_provider.kr2.listen_socket(), listen)) {
    std::fprintf(stderr, "the provider did not start its responder (is UDP port %u taken?)\n", kKr2DefaultPort);
  } else if (Polls().empty()) {
    std::fprintf(stderr, "the agent did not poll the time service\n");
  } else {
    const Exchange kr2{"KR2 status (128) to the provider", Loopback(platform::NetToHost16(listen.port)),
                       Kr2StatusRequest, Kr2StatusAnswered};
    const Exchange ntp{"NTP client requests to chronyd -x", Loopback(123), NtpRequest, NtpAnswered};
    FloodResult kr2_result, ntp_result;
    const double idle_ms = WorstPollLatenessMs([&] { std::this_thread::sleep_for(length); });
    const double kr2_ms = WorstPollLatenessMs([&] { kr2_result = Flood(kr2, length, window); });
    const double ntp_ms = WorstPollLatenessMs([&] { ntp_result = Flood(ntp, length, window); });
    const Exchange history{"KR2 history (160), full history (16,384 records)", kr2.to, Kr2HistoryRequest,
                           Kr2HistoryAnswered};
    FloodResult history_result;
    std::pair<std::uint32_t, std::uint32_t> station{0, 0};
    const bool full = WriteFullHistory();
    const double history_ms = WorstPollLatenessMs([&] {
      station = StationDuring(platform::NetToHost16(listen.port), [&] { history_result = Flood(history, length, window); });
    });

    std::printf("%d s per phase, up to %zu requests in flight, 127.0.0.1\n\n", seconds, window);
    std::printf("| load | replies/s | p50 (us) | p99 (us) | lost | worst poll lateness (ms) |\n");
    std::printf("|---|---:|---:|---:|---:|---:|\n");
    PrintRow("none (idle)", nullptr, idle_ms);
    PrintRow(kr2.name, &kr2_result, kr2_ms);
    PrintRow(ntp.name, &ntp_result, ntp_ms);
    PrintRow(history.name, &history_result, history_ms);
    std::printf("\nduring the history flood, 127.0.0.3 asked for the status %u times (4 a second), answered %u%s\n",
                station.first, station.second, full ? "" : " (the history was NOT full)");
    status = kr2_result.ok && ntp_result.ok && history_result.ok && full ? 0 : 1;

    LimitResult limit;
    const double limit_ms = WorstPollLatenessMs([&] { limit = LimitedFlood(platform::NetToHost16(listen.port), length); });
    if (!limit.ok) {
      std::printf("\nrate limit: skipped (192.0.2.10 and .20 are not this machine's: see bench/kr2_flood.sh)\n");
    } else {
      const W32tSettings& set = g_provider.settings;
      const double cap = (set.kr2_rate_burst + set.kr2_rate_limit * limit.seconds) / limit.seconds;
      std::printf("\nrate limit %u bytes/s, burst %u bytes, %.1f s, status requests (355-byte replies)\n\n",
                  set.kr2_rate_limit, set.kr2_rate_burst, limit.seconds);
      std::printf("| source | requests | replies | reply bytes/s | cap (bytes/s) | worst poll lateness (ms) |\n");
      std::printf("|---|---:|---:|---:|---:|---:|\n");
      std::printf("| 192.0.2.10, as fast as it can | %llu | %llu | %.0f | %.0f | %.1f |\n",
                  static_cast<unsigned long long>(limit.flood_sent), static_cast<unsigned long long>(limit.flood_replies),
                  static_cast<double>(limit.flood_bytes) / limit.seconds, cap, limit_ms);
      std::printf("| 192.0.2.20, 4 a second | %u | %u | %.0f | - | |\n", limit.station_asked, limit.station_answered,
                  limit.station_answered * 355.0 / limit.seconds);
      if (limit.station_answered != limit.station_asked || static_cast<double>(limit.flood_bytes) > cap * limit.seconds + 355)
        status = 1;
    }
    EvictionResult evict;
    const double evict_ms = WorstPollLatenessMs([&] { evict = EvictionFlood(platform::NetToHost16(listen.port), length); });
    if (evict.ok) {
      const W32tSettings& set = g_provider.settings;
      const double cap = (set.kr2_rate_burst + set.kr2_rate_limit * evict.seconds) / evict.seconds;
      std::printf("\neviction attack, %.1f s: the victim floods, eight forged neighbours of its /24 beside it\n\n",
                  evict.seconds);
      std::printf("| source | requests | replies | reply bytes/s | cap (bytes/s) | worst poll lateness (ms) |\n");
      std::printf("|---|---:|---:|---:|---:|---:|\n");
      std::printf("| 192.0.2.30, the victim | %llu | %llu | %.0f | %.0f | %.1f |\n",
                  static_cast<unsigned long long>(evict.victim_sent), static_cast<unsigned long long>(evict.victim_replies),
                  static_cast<double>(evict.victim_bytes) / evict.seconds, cap, evict_ms);
      if (static_cast<double>(evict.victim_bytes) > cap * evict.seconds + 355) status = 1;
    }
    if (!ntp_result.ok) std::fprintf(stderr, "nothing answered on 127.0.0.1:123 (start chronyd -x there)\n");
  }
  TimeProvClose(handle);
  platform::NetCleanup();
  std::error_code ec;
  std::filesystem::remove_all(root, ec);
  return status;
}
