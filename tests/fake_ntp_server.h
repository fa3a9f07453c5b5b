// A scripted NTP server for the tests: a real UDP socket on a loopback address, port 123, served by
// a thread of the test process (on both targets). Each request is answered as the script says:
// a chosen offset, leap indicator, mode, stratum, a zero transmit timestamp, a late reply or none.
// Like real servers it copies the request's transmit field into the reply's originate field, which
// the client must not depend on.
//
// Server time is this process's precise clock plus the offset. Under the fake clock the server can
// also play the network: it stamps T2 one_way after the request left and moves the fake clock by
// the whole round trip before it replies, so T1..T4 are exact.
#pragma once
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "platform/error.h"
#include "platform/testing/fake.h"
#include "platform/net.h"
#include "timing/ntp_client.h"
#include "timing/precise_clock.h"

struct FakeNtpReply {
  std::int64_t offset = 0;         // server clock minus this process's clock, 100-ns units
  std::int64_t one_way = 0;        // fake clock only: path each way, 100-ns units
  std::int64_t hold = 0;           // server time between T2 and T3, 100-ns units
  std::uint8_t leap = 0;
  std::uint8_t version = 4;
  std::uint8_t mode = 4;
  std::uint8_t stratum = 2;
  std::uint32_t refid = 0x7F7F0101;   // 127.127.1.1
  bool zero_transmit = false;
  bool silent = false;              // receive the request, never answer
  std::uint32_t late_ms = 0;        // real time waited before answering
  bool held = false;                // answer only once the test calls Release() (or the server ends)
  std::size_t size = 48;            // bytes sent
};

struct FakeNtpRequest {
  std::vector<std::uint8_t> bytes;
  std::uint16_t port;               // the sender's port, host order
};

class FakeNtpServer {
 public:
  // Binds address:123 and serves until destroyed; replies follow the script, the last entry
  // repeating.
  FakeNtpServer(const char* address, std::vector<FakeNtpReply> script) : script_(std::move(script)) {
    socket_ = platform::CreateSocketV4(platform::kSocketDatagram, platform::kProtocolUdp);
    if (socket_ == platform::kInvalidSocket) {
      ADD_FAILURE() << "fake NTP server: socket failed, error " << platform::LastSocketError();
      return;
    }
    platform::SetReceiveTimeout(socket_, 20);
    // Wine binds a loopback address other than 127.0.0.1 as 0.0.0.0 on the loopback device, which
    // clashes with the chronyd peers on 127.0.0.1 and 127.0.0.2 (they share with SO_REUSEADDR).
    platform::SetReuseAddress(socket_, true);
    const platform::SocketAddressV4 local{platform::kFamilyInet, platform::HostToNet16(123), platform::InetAddr(address)};
    if (!platform::BindV4(socket_, local)) {
      ADD_FAILURE() << "fake NTP server: cannot bind " << address << ":123, error " << platform::LastSocketError();
      return;
    }
    thread_ = std::thread([this] { Serve(); });
  }
  explicit FakeNtpServer(const char* address, FakeNtpReply reply = {}) : FakeNtpServer(address, std::vector{reply}) {}
  ~FakeNtpServer() {
    stop_ = true;
    Release();
    if (thread_.joinable()) thread_.join();
    platform::CloseSocket(socket_);
  }
  FakeNtpServer(const FakeNtpServer&) = delete;
  FakeNtpServer& operator=(const FakeNtpServer&) = delete;

  // Lets held replies go.
  void Release() {
    {
      std::lock_guard lock(mutex_);
      released_ = true;
    }
    released_cv_.notify_all();
  }

  std::vector<FakeNtpRequest> Requests() {
    std::lock_guard lock(mutex_);
    return requests_;
  }
  // The T2 and T3 stamped into each reply sent, host order.
  std::vector<std::pair<std::uint64_t, std::uint64_t>> Stamps() {
    std::lock_guard lock(mutex_);
    return stamps_;
  }

 private:
  void Serve() {
    while (!stop_) {
      std::array<std::uint8_t, 128> in{};
      platform::SocketAddressV4 from{};
      const int n = platform::ReceiveFrom(socket_, in.data(), in.size(), &from);
      if (n < 0) continue;
      std::size_t index;
      {
        std::lock_guard lock(mutex_);
        index = requests_.size();
        requests_.push_back({std::vector<std::uint8_t>(in.begin(), in.begin() + n), platform::NetToHost16(from.port)});
      }
      const FakeNtpReply& r = script_[std::min(index, script_.size() - 1)];
      if (r.silent) continue;
      if (r.late_ms) std::this_thread::sleep_for(std::chrono::milliseconds(r.late_ms));
      if (r.held) {
        std::unique_lock lock(mutex_);
        released_cv_.wait(lock, [this] { return released_; });
      }

      const std::uint64_t arrival = PreciseClockNow() + static_cast<std::uint64_t>(r.offset + r.one_way);
      const std::uint64_t t2 = FileTimeToNtpTimestamp(arrival);
      const std::uint64_t t3 = r.zero_transmit ? 0 : FileTimeToNtpTimestamp(arrival + static_cast<std::uint64_t>(r.hold));
      std::array<std::uint8_t, 68> out{};
      out[0] = static_cast<std::uint8_t>(r.leap << 6 | r.version << 3 | r.mode);
      out[1] = r.stratum;
      out[2] = 6;                    // poll
      out[3] = 0xEC;                 // precision: 2^-20 s
      for (int i = 0; i < 4; ++i) out[12 + i] = static_cast<std::uint8_t>(r.refid >> (24 - 8 * i));
      StoreNtpTimestamp(out.data() + 16, t2);                  // reference time
      if (n >= 48) std::memcpy(out.data() + 24, in.data() + 40, 8);   // originate = the request's transmit
      StoreNtpTimestamp(out.data() + 32, t2);
      StoreNtpTimestamp(out.data() + 40, t3);
      if (platform::fake::Active()) platform::fake::AdvanceSystemTime(2 * r.one_way + r.hold);
      {
        std::lock_guard lock(mutex_);
        stamps_.emplace_back(t2, t3);
      }
      platform::SendTo(socket_, out.data(), r.size, from);
    }
  }

  std::vector<FakeNtpReply> script_;
  platform::SocketHandle socket_ = platform::kInvalidSocket;
  std::atomic<bool> stop_{false};
  std::thread thread_;
  std::mutex mutex_;
  std::condition_variable released_cv_;
  bool released_ = false;
  std::vector<FakeNtpRequest> requests_;
  std::vector<std::pair<std::uint64_t, std::uint64_t>> stamps_;
};
