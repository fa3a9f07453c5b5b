// The Service page (dialog 149): whether the time service runs on the target, starting and
// stopping it at once, its start-up type, and the service's debug file log settings with Show Log.
#pragma once
#include <cstdint>
#include <string>

#include "platform/dialog.h"

// Start-up list positions: "Disabled", "Automatic", "Manual".
int service_start_position(std::uint32_t start_type);   // 2 -> 1, 3 -> 2, anything else -> 0
std::uint32_t service_start_type(int position);          // 1 -> 2, 2 -> 3, anything else -> 4
// The default debug log path on a machine whose system directory is system_dir: its drive letter
// and ":\w32time.log"; without a drive letter (POSIX) the machine root's w32time.log.
std::string service_default_log_path(const char* system_dir);
// The path through which the log at path is read: for another machine, "C:\x" becomes
// "\\MACHINE\C$\x" (its administrative share of that drive); locally the path as it is.
std::string service_log_read_path(const char* machine, const std::string& path);
// "The Windows Time service on NAME is running|stopped" for machine ("" the local computer).
std::string service_status_text(const char* machine, bool running);

class ServicePage final : public platform::DialogLogic {
 public:
  bool init(platform::Dialog& d) override;
  bool command(platform::Dialog& d, int id, int code) override;
  std::intptr_t notify(platform::Dialog& d, int code) override;
  void timer(platform::Dialog& d, int timer_id) override;
  platform::StaticColours static_colours(platform::Dialog& d, int id) override;

  void RefreshStatus(platform::Dialog& d);       // RefreshServiceStatus
  void ApplyLogDefaults(platform::Dialog& d);    // defaults of the log fields, enabling of the log controls

 private:
  void Changed(platform::Dialog& d);
  void StartStop(platform::Dialog& d);
  void ShowLog(platform::Dialog& d);

  bool initializing_ = false;
};
