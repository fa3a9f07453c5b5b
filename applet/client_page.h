// The Client page (dialog 100; dialog 151 for a Windows 2000 target): how the target's time
// client finds its time (the sync type, up to six NTP servers with their modes, the special poll
// interval), the clock status check's line and icon, the current time source and "&Sync Now".
// Edits reach the shared settings record when the page is left or Sync Now applies them, and the
// registry only through the shared apply step.
//
// A Kairon product installed with its service disabled (`kairon_disabled`) changes nothing here:
// that product then keeps no time, so the page shows and edits the time client's record exactly as
// on a machine without it (the sheet's launch is where the flag matters).
#pragma once
#include <cstdint>

#include "platform/dialog.h"

inline constexpr const char* kClientNote =
    "Windows Time can synchronize the clock on this machine with an external time source. Select how you want "
    "Windows Time to find time sources.";
inline constexpr const char* kClientNoteKaironSlave =
    "Kairon II Server is synchronizing the clock on this machine. Only one process may manage the system clock. "
    "Time source selection on this page is therefore disabled.";
inline constexpr const char* kClientNoteKaironServer =
    "Kairon II Server is not synchronizing the clock on this machine. Select how you want Windows Time to find time "
    "sources.";
inline constexpr const char* kClientNoteKaironClient =
    "Kairon II Client is synchronizing the clock on this machine. Only one process may manage the system clock. "
    "Time source selection on this page is therefore disabled.";
inline constexpr const char* kApplyBeforeResyncQuestion =
    "Do you want to apply your changes before telling the machine to resynchronize?";
inline constexpr const char* kResyncFailed =
    "The Windows Time service reported an error while trying to trigger clock synchronization. No further "
    "information is available.";
inline constexpr const char* kResyncAccepted =
    "The Windows Time service accepted the synchronization trigger. Check the Event Viewer log in approximately 30 "
    "seconds\r\nto determine the synchronization status.\r\n\r\nNote: The clock correction may take several hours to "
    "complete if the variance is significant, or it may happen immediately.";

// A row's mode list position and the server mode flag it stands for: 0 "Special Interval" 0x1,
// 1 "Fallback Only" 0x2, 2 "Symmetric Active" 0x4, 3 "NTP Client Mode" 0x8; other positions give
// 0x1 and other flags position 0.
std::uint32_t client_mode_flag(int position);
int client_mode_position(std::uint32_t flag);
// Whether the Kairon Server on the target is a slave (it then manages the clock): its "Slave Mode",
// else the slave word of its "Server Settings".
bool client_kairon_server_is_slave();

class ClientPage final : public platform::DialogLogic {
 public:
  bool init(platform::Dialog& d) override;
  bool command(platform::Dialog& d, int id, int code) override;
  std::intptr_t notify(platform::Dialog& d, int code) override;
  void timer(platform::Dialog& d, int timer_id) override;
  platform::StaticColours static_colours(platform::Dialog& d, int id) override;
  void destroyed(platform::Dialog& d) override;

  void Read(platform::Dialog& d);   // controls -> settings record (ClientPageRead)
  void Show(platform::Dialog& d);   // settings record -> controls (ClientPageShow)

 private:
  void Changed(platform::Dialog& d);
  void UpdateEnabling(platform::Dialog& d);
  void RefreshSource(platform::Dialog& d);
  void SyncNow(platform::Dialog& d);
  static void RefreshFromOtherPage(bool time_source);

  bool initializing_ = false;
};
