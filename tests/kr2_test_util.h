// A scripted transport and machine for the KR2 responder, and request and record builders.
#pragma once
#include <algorithm>
#include <cstring>
#include <deque>
#include <vector>

#include "applet/kr2_client.h"
#include "config/defaults.h"
#include "provider/kr2_responder.h"
#include "provider/provider.h"

// Datagrams queued by the test are received in order; replies are collected.
struct ScriptedKr2Socket final : Kr2Socket {
  std::deque<std::vector<std::uint8_t>> queued;
  std::vector<std::vector<std::uint8_t>> sent;
  bool fail_receive = false;
  bool fail_send = false;
  std::uint32_t source = platform::HostToNet32(0x7F000001);   // where the datagrams come from (network order)
  void Push(std::vector<std::uint8_t> datagram) { queued.push_back(std::move(datagram)); }
  int Receive(std::uint8_t* buf, std::size_t size, platform::SocketAddressV4& from) override {
    if (fail_receive || queued.empty()) return -1;
    auto d = std::move(queued.front());
    queued.pop_front();
    const std::size_t n = d.size() < size ? d.size() : size;   // a longer datagram is cut, as recvfrom does
    if (n) std::memcpy(buf, d.data(), n);
    from = {platform::kFamilyInet, platform::HostToNet16(40000), source};
    return static_cast<int>(n);
  }
  int Send(const void* data, std::size_t size, const platform::SocketAddressV4&) override {
    const auto* p = static_cast<const std::uint8_t*>(data);
    sent.emplace_back(p, p + size);
    return fail_send ? -1 : static_cast<int>(size);
  }
};

struct ScriptedKr2Machine final : Kr2Machine {
  int resyncs = 0;
  int clears = 0;
  std::vector<DriftRecord> records;
  std::uint32_t sync_type = 4;
  std::uint32_t max_phase_offset = 300;
  std::uint16_t installed = 0;
  std::uint32_t daylight_disabled = 0;
  void RequestResync() override { ++resyncs; }
  void ClearHistory() override {
    ++clears;
    records.clear();
  }
  bool DriftAfter(DriftRecord& out, std::uint32_t after) override {
    for (const auto& r : records)
      if (r.check_time > after) return out = r, true;
    out = DriftRecord{};
    return false;
  }
  std::uint32_t SyncType() override { return sync_type; }
  std::uint32_t MaxPhaseOffsetSeconds() override { return max_phase_offset; }
  std::uint16_t InstalledProducts() override { return installed; }
  std::uint32_t DaylightDisabled() override { return daylight_disabled; }
};

// The request the client sends, with the tag bytes left 0 so that repeats can be tested.
inline std::vector<std::uint8_t> Kr2Request(std::uint8_t code, std::uint32_t argument = 0) {
  const auto r = Kr2BuildRequest(code, argument, 0);
  return {r.begin(), r.end()};
}

inline DriftRecord MakeKr2TestRecord(std::uint32_t check_time, std::int32_t variance_ms) {
  DriftRecord r{};
  r.version = kDriftRecordVersion;
  r.flags = static_cast<std::uint8_t>(kMachineChronwarden << 1);
  r.reason = kReasonScheduled;
  r.check_time = check_time;
  r.variance_ms = variance_ms;
  r.address = 0x0100007F;
  return r;
}

// The prohibited-command table as start-up builds it: without the machine's value (102, 150, 160
// and 180 refused) or with a value that refuses nothing; unknown codes refused either way.
inline void SetKr2Prohibited(bool value_present) {
  auto& table = g_provider.kr2.prohibited();
  table.fill(0);
  if (!value_present)
    for (const std::uint8_t code : {102, 150, 160, 180}) table[code] = 1;
  for (std::uint32_t code = 0; code < table.size(); ++code)
    if (!IsKnownKr2Command(code)) table[code] = 128;
}

// A responder as new (its listen socket closed), keeping the prohibited-command table.
inline void ResetKr2State(Kr2Responder& responder) {
  const auto prohibited = responder.prohibited();
  responder.CloseListenSocket();
  responder = Kr2Responder(kProviderName);
  responder.prohibited() = prohibited;
}

// The responder's records as start-up leaves them, with a first start and a computer name of the test's.
inline void ResetKr2ForTest(std::uint32_t ephemerides, const char* computer_name) {
  ResetKr2State(g_provider.kr2);
  g_provider.kr2.InitLocalStatusRecord();
  g_provider.kr2.identity() = IdentityRecord{};
  g_provider.kr2.identity().ephemerides = ephemerides;
  g_provider.kr2.identity().product_code = defaults::kProductCode;
  g_provider.kr2.identity().major_version = defaults::kVersionMajor;
  g_provider.kr2.identity().minor_version = defaults::kVersionMinor;
  g_provider.kr2.identity().build_year = defaults::kBuildYear;
  g_provider.kr2.identity().build_month_day = defaults::kBuildMonthDay;
  g_provider.kr2.identity().one = 1;
  g_provider.kr2.identity().nt_family = 1;
  std::memcpy(g_provider.kr2.identity().version, defaults::kProductVersion, std::strlen(defaults::kProductVersion));
  std::memcpy(g_provider.kr2.identity().computer_name, computer_name, std::min<std::size_t>(std::strlen(computer_name), 15));
  g_provider.kr2.ForgetLastRequest();
}
