// Arbitrary datagrams into the KR2 responder: the input is cut into datagrams at each 0xFF 0xFE
// pair, handled one after another on a scripted transport and machine (so repeats, short datagrams
// and leftovers in the receive buffer all occur); the first byte picks the prohibited-command table,
// the system (Windows 2000 or later), the source (loopback, or an address that is no manager, with
// a small reply budget so that the rate limit runs) and whether the first datagram is taken as the
// managers' list instead. A source that is no manager must never clear or resync.
#include <cstddef>
#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "provider/kr2_responder.h"
#include "tests/kr2_test_util.h"

namespace {

// The responder at start-up, built once: [0] refusing nothing, [1] with the default refusals.
struct StartState {
  Kr2Responder responder[2] = {Kr2Responder(kProviderName), Kr2Responder(kProviderName)};
};
const StartState& Start() {
  static const StartState state = [] {
    StartState s;
    ResetKr2ForTest(1'600'000'000, "FUZZ");
    for (int i = 0; i < 2; ++i) {
      SetKr2Prohibited(i == 0);
      s.responder[i] = g_provider.kr2;
    }
    return s;
  }();
  return state;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  Kr2Responder& responder = g_provider.kr2;
  responder = Start().responder[data[0] & 1];
  Kr2System system = responder.system();
  system.os_level = (data[0] & 2) ? 2048 : 32768;
  responder.SetSystem(system);
  ScriptedKr2Socket socket;
  ScriptedKr2Machine machine;
  machine.records = {MakeKr2TestRecord(100, 1), MakeKr2TestRecord(200, -1)};
  const bool stranger = data[0] & 4, list_first = data[0] & 8;
  if (stranger) {
    socket.source = 0x07643306;   // 6.51.100.7 in network order
    responder.guard().Configure("", 1000, 600);
  }
  std::vector<std::uint8_t> datagram;
  for (std::size_t i = 1; i < size; ++i) {
    if (data[i] == 0xFF && i + 1 < size && data[i + 1] == 0xFE) {
      socket.Push(datagram);
      datagram.clear();
      ++i;
    } else {
      datagram.push_back(data[i]);
    }
  }
  socket.Push(datagram);
  if (list_first) {
    const auto& text = socket.queued.front();
    responder.guard().Configure(std::string(text.begin(), text.end()).c_str(), 1000, 600);
    socket.queued.pop_front();
  }
  const bool manager = responder.guard().MayChange(socket.source);
  while (!socket.queued.empty()) responder.HandleRequestWith(socket, machine);
  if (!manager && (machine.clears || machine.resyncs)) __builtin_trap();
  for (const auto& reply : socket.sent)
    if (reply.empty() || reply.size() > kKr2RequestMax) __builtin_trap();
  return 0;
}
