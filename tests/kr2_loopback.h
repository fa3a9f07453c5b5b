// KR2 responders on loopback sockets (127.0.0.1, ports of the system's choice), each served by a
// thread of the test process through the real request handling, one request at a time.
#pragma once
#include <atomic>
#include <cstring>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "provider/kr2_responder.h"
#include "tests/kr2_test_util.h"

// A transport that hands over one datagram already received and answers through the real socket.
struct ReceivedKr2Datagram final : Kr2Socket {
  platform::SocketHandle socket;
  const std::uint8_t* data;
  int size;
  platform::SocketAddressV4 from;
  int Receive(std::uint8_t* buf, std::size_t cap, platform::SocketAddressV4& out) override {
    const int n = size < static_cast<int>(cap) ? size : static_cast<int>(cap);
    if (n > 0) std::memcpy(buf, data, static_cast<std::size_t>(n));
    out = from;
    return n;
  }
  int Send(const void* reply, std::size_t n, const platform::SocketAddressV4& to) override {
    return platform::SendTo(socket, reply, n, to);
  }
};

class LoopbackKr2Responders {
 public:
  std::vector<platform::SocketAddressV4> addresses;

  // Changes the machine the responders answer for (under their lock: they may be serving).
  template <typename F>
  void ChangeMachine(F change) {
    std::lock_guard<std::mutex> hold(lock_);
    change(machine_);
  }

  // Opens count responders; false when a socket could not be made.
  bool Start(std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) {
      const platform::SocketHandle s = platform::CreateSocketV4(platform::kSocketDatagram, platform::kProtocolUdp);
      if (s == platform::kInvalidSocket) return false;
      sockets_.push_back(s);
      platform::SocketAddressV4 local{platform::kFamilyInet, 0, platform::HostToNet32(0x7F000001)};
      if (!platform::BindV4(s, local) || !platform::SocketName(s, local) || !platform::SetReceiveTimeout(s, 50))
        return false;
      addresses.push_back(local);
    }
    for (const auto s : sockets_) threads_.emplace_back([this, s] { Serve(s); });
    return true;
  }
  void Stop() {
    stop_ = true;
    for (auto& t : threads_) t.join();
    threads_.clear();
    for (const auto s : sockets_) platform::CloseSocket(s);
    sockets_.clear();
  }
  ~LoopbackKr2Responders() { Stop(); }

 private:
  void Serve(platform::SocketHandle s) {
    std::uint8_t buf[kKr2RequestMax + 100];
    while (!stop_) {
      ReceivedKr2Datagram d;
      d.socket = s;
      d.data = buf;
      d.size = platform::ReceiveFrom(s, buf, sizeof buf, &d.from);
      if (d.size < 0) continue;
      std::lock_guard<std::mutex> hold(lock_);
      g_provider.kr2.HandleRequestWith(d, machine_);
    }
  }
  ScriptedKr2Machine machine_;
  std::atomic<bool> stop_{false};
  std::mutex lock_;
  std::vector<platform::SocketHandle> sockets_;
  std::vector<std::thread> threads_;
};
