// The Server page (dialog 147): whether the target's time service serves NTP time to other
// machines, whether it advertises itself as a reliable time source and as a Net Time server, and
// Test Server, which asks the target's NTP server for the time and judges the answer by the Client
// page's verdict. The test itself is a plain function that `chronwarden server test` shares.
#pragma once
#include <cstdint>
#include <string>

#include "config/defaults.h"

#include "platform/dialog.h"

inline constexpr const char* kServerTakeoverQuestion =
    "Kairon II Server is configured to serve NTP. If you enable the Windows Time NTP server, the Kairon II NTP server "
    "will automatically be disabled. Kairon II will continue serving other time protocols.\r\n\r\nAre you sure this is "
    "what you want to do?\r\n";

// What Test Server shows: the verdict icon (142 to 145) and the text.
struct ServerTestResult {
  int icon;
  std::string text;
};
// Asks host's NTP server (nullptr or "": the local computer) for the time and judges a valid answer
// by client_icon, the Client page's status icon (0 or any other id: no verdict). The page pauses
// pause_ms after an answer, so that its wait cursor is seen; the command line does not.
ServerTestResult server_test(const char* host, int client_icon, std::uint32_t pause_ms = defaults::kServerTestPauseMs);

// The takeover question (Kairon II Server serving NTP) is asked only when a click would make
// Windows Time serve (Enabled or Automatic): choosing Disabled takes nothing from Kairon II, so it
// never asks.
class ServerPage final : public platform::DialogLogic {
 public:
  bool init(platform::Dialog& d) override;
  bool command(platform::Dialog& d, int id, int code) override;
  std::intptr_t notify(platform::Dialog& d, int code) override;
  platform::StaticColours static_colours(platform::Dialog& d, int id) override;
  // While the NTP server test runs the page takes no input: testing true disables every control
  // of the page; false enables them again under the page's enabling rules.
  void SetTesting(platform::Dialog& d, bool testing);

 private:
  void Show(platform::Dialog& d);             // settings record -> controls (page activation)
  void Read(platform::Dialog& d);             // controls -> settings record (leaving the page)
  void UpdateEnabling(platform::Dialog& d);
  void RadioClicked(platform::Dialog& d, int id);
  void Test(platform::Dialog& d);

  bool warn_ = false;   // ask before W32Time takes the NTP port from Kairon II (once per page)
};
