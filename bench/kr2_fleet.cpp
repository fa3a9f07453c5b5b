// A fleet of KR2 machines on the loopback, for the exporter's tests and benchmarks: N machines on
// N consecutive loopback addresses, all on one UDP port, served from one socket bound to all
// addresses that answers each request from the address it was sent to. Each machine answers the
// status (128) and identity (4) requests from replies built at start; every other request is
// ignored, as a responder ignores a refused command. Serves until SIGTERM or SIGINT.
//
// Machine i (from 0) is "CWF" and i in five digits, with the last offset ((i * 37) % 2001) - 1000
// ms, partner "ntp.fleet.test", agent started an hour ago, last check 30 s before the start.
//
//   kr2_fleet --count N [--first 127.1.0.1] [--port 9909] [--threads T] [--list FILE]
//
// --list writes one line per machine, "ADDRESS:PORT COMPUTER_NAME OFFSET_MS", before "ready" is
// printed. Run it in a network namespace of its own (unshare -n) unless the port is free.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "config/defaults.h"
#include "platform/error.h"
#include "platform/net.h"
#include "platform/process.h"
#include "platform/udp_multihome.h"
#include "provider/kr2_records.h"

namespace {

struct Options {
  std::uint32_t count = 0;
  std::uint32_t first = 0x7F010001;   // 127.1.0.1, host order
  std::uint16_t port = kKr2DefaultPort;
  std::uint32_t threads = 1;
  std::string list;
};

struct Fleet {
  Options o;
  std::vector<LocalStatusRecord> status;
  std::vector<IdentityRecord> identity;
  std::atomic<bool> stop{false};
  std::atomic<std::uint64_t> answered{0};
};

template <std::size_t N>
void Put(char (&field)[N], std::string_view text) {
  std::memset(field, 0, N);
  std::memcpy(field, text.data(), std::min(text.size(), N - 1));
}

std::string Dotted(std::uint32_t host_order) {
  return std::to_string(host_order >> 24) + "." + std::to_string((host_order >> 16) & 255) + "." +
         std::to_string((host_order >> 8) & 255) + "." + std::to_string(host_order & 255);
}

std::int64_t OffsetMs(std::uint32_t i) { return static_cast<std::int64_t>((i * 37ull) % 2001) - 1000; }

void Build(Fleet& f) {
  const auto now = static_cast<std::uint32_t>(
      std::chrono::duration_cast<std::chrono::seconds>(std::chrono::system_clock::now().time_since_epoch()).count());
  f.status.resize(f.o.count);
  f.identity.resize(f.o.count);
  for (std::uint32_t i = 0; i < f.o.count; ++i) {
    char name[16];
    std::snprintf(name, sizeof name, "CWF%05u", i);
    LocalStatusRecord& s = f.status[i];
    s = {};
    s.product_code = 7;
    s.last_status_request = now;
    s.agent_start = now - 3600;
    s.last_counter_reset = s.agent_start;
    s.partner_time = now - 3000;
    s.last_check = now - 30;
    s.last_offset_ms = OffsetMs(i);
    Put(s.time_zone, "UTC");
    Put(s.version, defaults::kProductVersion);
    Put(s.partner_name, "ntp.fleet.test");
    s.partner_state = kKr2PartnerTaken;
    s.sync_successes = 100 + i;
    s.sync_failures = i % 3;
    s.sync_verdicts = s.sync_successes + s.sync_failures;
    IdentityRecord& id = f.identity[i];
    id = {};
    id.ephemerides = now - 86400;
    id.product_code = 7;
    id.major_version = 4;
    id.minor_version = 2;
    id.build_year = 2008;
    id.build_month_day = 1210;
    id.one = 1;
    Put(id.version, defaults::kProductVersion);
    Put(id.computer_name, name);
  }
}

void Serve(Fleet& f, platform::SocketHandle s) {
  std::uint8_t buf[kKr2RequestMax];
  while (!f.stop) {
    platform::SocketAddressV4 from{};
    std::uint32_t to = 0;
    const int n = platform::ReceiveFromTo(s, buf, sizeof buf, from, to);
    if (n <= static_cast<int>(kKr2CommandOffset)) continue;   // time-out, ICMP error, runt
    const std::uint32_t i = platform::NetToHost32(to) - f.o.first;
    if (i >= f.o.count) continue;
    const std::uint8_t code = buf[kKr2CommandOffset];
    int sent = -1;
    if (code == kKr2Status) sent = platform::SendToFrom(s, &f.status[i], sizeof f.status[i], from, to);
    else if (code == kKr2Identity) sent = platform::SendToFrom(s, &f.identity[i], sizeof f.identity[i], from, to);
    if (sent > 0) ++f.answered;
  }
}

bool ParseArgs(int argc, char** argv, Options& o) {
  for (int i = 1; i + 1 < argc; i += 2) {
    const std::string_view a = argv[i];
    const char* v = argv[i + 1];
    if (a == "--count") o.count = static_cast<std::uint32_t>(std::strtoul(v, nullptr, 10));
    else if (a == "--first") o.first = platform::NetToHost32(platform::InetAddr(v));
    else if (a == "--port") o.port = static_cast<std::uint16_t>(std::strtoul(v, nullptr, 10));
    else if (a == "--threads") o.threads = static_cast<std::uint32_t>(std::strtoul(v, nullptr, 10));
    else if (a == "--list") o.list = v;
    else return false;
  }
  // Loopback only, and the whole fleet inside 127.0.0.0/8.
  return argc % 2 == 1 && o.count > 0 && o.port > 0 && o.threads > 0 && (o.first >> 24) == 127 &&
         ((o.first + o.count - 1) >> 24) == 127;
}

}  // namespace

int main(int argc, char** argv) {
  Fleet f;
  if (!ParseArgs(argc, argv, f.o)) {
    std::fprintf(stderr,
                 "usage: kr2_fleet --count N [--first 127.1.0.1] [--port 9909] [--threads T] [--list FILE]\n"
                 "(the machines' addresses must lie in 127.0.0.0/8)\n");
    return 2;
  }
  Build(f);
  const platform::SocketHandle s = platform::CreateSocketV4(platform::kSocketDatagram, platform::kProtocolUdp);
  const platform::SocketAddressV4 any{platform::kFamilyInet, platform::HostToNet16(f.o.port), 0};
  // A sweep of the whole fleet arrives at once: room for all of it (about 1 KiB a request).
  if (s == platform::kInvalidSocket || !platform::EnableDestinationAddress(s) || !platform::BindV4(s, any) ||
      !platform::SetReceiveTimeout(s, 200) || !platform::SetReceiveBufferSize(s, std::max(f.o.count, 256u) * 4096u)) {
    std::fprintf(stderr, "kr2_fleet: cannot serve UDP port %u: socket error %d\n", f.o.port, platform::LastSocketError());
    return 1;
  }
  if (!f.o.list.empty()) {
    std::ofstream list(f.o.list);
    for (std::uint32_t i = 0; i < f.o.count; ++i)
      list << Dotted(f.o.first + i) << ':' << f.o.port << ' ' << f.identity[i].computer_name << ' ' << OffsetMs(i) << '\n';
    if (!list.flush()) {
      std::fprintf(stderr, "kr2_fleet: cannot write %s\n", f.o.list.c_str());
      return 1;
    }
  }
  platform::CatchTerminationRequest();
  std::vector<std::thread> threads;
  for (std::uint32_t t = 0; t < f.o.threads; ++t) threads.emplace_back([&f, s] { Serve(f, s); });
  std::printf("ready: %u machines from %s port %u\n", f.o.count, Dotted(f.o.first).c_str(), f.o.port);
  std::fflush(stdout);
  platform::WaitTerminationRequest();
  f.stop = true;
  for (auto& t : threads) t.join();
  platform::CloseSocket(s);
  std::printf("answered %llu requests\n", static_cast<unsigned long long>(f.answered.load()));
  return 0;
}
