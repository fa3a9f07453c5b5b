// The Agent page (dialog 148): the agent's options, the list of the time sources the agent last
// used (newest on top), Clear History and Show Graph. The plain functions under it (the history
// value, its lines, the drift file's path, clearing) serve the page and `chronwarden agent` alike.
#pragma once
#include <array>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "platform/dialog.h"
#include "platform/thread.h"

inline constexpr const char* kClearHistoryQuestion =
    "Do you want to delete the synchronization history records? This will clear the points in the graph, and clear "
    "the list of recently-used servers.\r\n";
inline constexpr const char* kAgentNoteKairon =
    "NOTE: Monitoring is handled by Kairon II when Kairon II is installed. See the Kairon II Control Panel applet for "
    "sync status.";
inline constexpr const char* kAgentNote =
    "You may override this behavior by specifying a particular time server to be used as the reference time source.";
// Posted to the page by its name look-up worker when names are ready.
inline constexpr std::uint32_t kAgentNamesMessage = 0x2AB6;

// "Last Used Time Source": 64 entries of {IPv4 address in network order, Unix seconds little-endian},
// oldest first (entry 63 the newest).
using SourceHistory = std::array<std::uint8_t, 512>;
struct SourceHistoryEntry {
  std::uint32_t address;   // network order
  std::uint32_t time;      // seconds since 1970 (UTC)
};

// The value of the connected machine's provider key; zeros where it is absent or shorter.
SourceHistory agent_read_source_history();
// Its entries that are not empty (address and time non-zero), newest first.
std::vector<SourceHistoryEntry> agent_history_entries(const SourceHistory& history);
// One line of the list: "DD Mon YYYY hh:mm:ss<tab>a.b.c.d<tab>name", the time in local time, the name
// empty when there is none.
std::string agent_history_line(const SourceHistoryEntry& entry, const char* name);
// The reverse look-up of an address for the list ("" when it has no name).
std::string agent_lookup_name(std::uint32_t address);
// The drift history file of machine ("" or nullptr: the local system directory of g_w32t_env).
std::string agent_drift_path(const char* machine);
// Clear History: the drift file of machine is cut to nothing, and "Last Used Time Source" of the
// connected machine is deleted (whatever became of the file). Returns 0, or the Win32 code of the
// first step that failed: a history that exists but cannot be opened, locked or cut, or a value
// that cannot be deleted (a missing file or value is nothing to clear). The page does not report
// it; `chronwarden agent clear` does.
std::uint32_t agent_clear_history(const char* machine);
// Whether a product of the Kairon family monitors the target (the page hides the agent's options).
bool agent_kairon_monitors();

class AgentPage final : public platform::DialogLogic {
 public:
  bool init(platform::Dialog& d) override;
  bool command(platform::Dialog& d, int id, int code) override;
  std::intptr_t notify(platform::Dialog& d, int code) override;
  void timer(platform::Dialog& d, int timer_id) override;
  std::intptr_t message(platform::Dialog& d, std::uint32_t msg, std::uintptr_t wparam, std::intptr_t lparam) override;
  platform::StaticColours static_colours(platform::Dialog& d, int id) override;
  void destroyed(platform::Dialog& d) override;

  // FillSourceHistoryList: the list again from the value, when the value changed.
  void FillHistory(platform::Dialog& d);
  // UpdateAgentPageControls: enabling from the check boxes and the list.
  void UpdateControls(platform::Dialog& d);
  // Waits (at most timeout_ms) for the name look-up worker, if any, and lets it go.
  void WaitForLookups(std::uint32_t timeout_ms = 0xFFFFFFFF);

 private:
  void Changed(platform::Dialog& d);
  void ClearHistory(platform::Dialog& d);
  void ShowGraph(platform::Dialog& d);
  void ListLines(platform::Dialog& d);
  static void LookupWorker(void* self);

  bool initializing_ = false;
  std::uint32_t shown_interval_minutes_ = 0;   // what the interval field was filled with (minutes)
  SourceHistory cache_{};
  platform::Dialog* page_ = nullptr;
  // Names by address, filled by the worker; pending addresses wait for it.
  std::mutex names_lock_;
  std::map<std::uint32_t, std::string> names_;
  std::vector<std::uint32_t> pending_;
  bool stop_ = false;
  platform::ThreadHandle worker_ = nullptr;
};
