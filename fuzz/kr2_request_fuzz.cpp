// Arbitrary datagrams into the KR2 responder: the input is cut into datagrams at each 0xFF 0xFE
// pair, handled one after another on a scripted transport and machine (so repeats, short datagrams
// and leftovers in the receive buffer all occur); the first byte picks the prohibited-command table
// and the system (Windows 2000 or later).
#include <cstddef>
#include <cstdint>
#include <vector>

#include "provider/kr2_responder.h"
#include "tests/kr2_test_util.h"

namespace {

// The responder's state at start-up, built once: [0] with the machine's value refusing nothing,
// [1] without the value (the default refusals).
const Kr2State* StartStates() {
  static Kr2State states[2];
  static bool built = false;
  if (!built) {
    const std::vector<std::uint8_t> all_allowed(256, 0);
    for (int i = 0; i < 2; ++i) {
      Kr2BuildProhibitedTable(all_allowed.data(), all_allowed.size(), i == 0, states[i].prohibited);
      Kr2InitStatus(states[i].status, 1'700'000'000);
      Kr2BuildIdentity(states[i].identity, 1'600'000'000, true, "FUZZ");
    }
    built = true;
  }
  return states;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  g_kr2 = StartStates()[data[0] & 1];
  g_kr2.os_level = (data[0] & 2) ? 2048 : 32768;
  ScriptedKr2Socket socket;
  ScriptedKr2Machine machine;
  machine.records = {MakeKr2TestRecord(100, 1), MakeKr2TestRecord(200, -1)};
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
  while (!socket.queued.empty()) HandleRequestWith(socket, machine);
  for (const auto& reply : socket.sent)
    if (reply.empty() || reply.size() > kKr2RequestMax) __builtin_trap();
  return 0;
}
