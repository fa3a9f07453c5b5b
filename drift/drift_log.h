// The applet's snapshot of one drift history file: the whole file read into memory, validated,
// and followed as it grows (reloaded only when its size changes). One belongs to each drift graph
// window and is what the summary report reads.
#pragma once
#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>

#include "drift/drift_record.h"
#include "drift/drift_ui.h"
#include "platform/error.h"
#include "platform/file.h"

inline constexpr std::uint32_t kDriftPathMax = 260;

struct DriftLog {
  void* module = nullptr;             // the applet's module (dialog resources, cursors)
  std::uint32_t open_flag = 0;        // passed in by whoever opens the graph (allow-open)
  bool local_time = false;            // show times in local time (else UTC)
  std::uint32_t width_limit = 0;      // report: seconds column width limit (0: off)
  std::uint32_t zero_fill = 0;        // report: zero-fill the seconds column (0: off)
  char path[kDriftPathMax + 1] = {};            // empty: no file chosen yet
  char display_name[kDriftPathMax + 1] = {};    // derived from the path
  char initial_dir[kDriftPathMax + 1] = {};     // for the file chooser
  platform::FileHandle file = nullptr;          // read-only, kept open between loads
  std::uint32_t loaded_size = 0;                // bytes at the last load
  std::unique_ptr<DriftRecord[]> records;       // the file's records (room for one more)
  std::uint32_t record_count = 0;
  std::uint32_t first_shown = 0;                // index of the first shown record
  std::uint32_t per_screen = 0;                 // records per screen, at most 64 (64 after a reset)
  std::uint32_t end_shown = 0;                  // first_shown + per_screen
  std::uint32_t last_error = 0;                 // Win32 code of the last failed load, else 0
  std::uint32_t graph_word = 0;                 // the graph's scale in use
  std::uint32_t average_interval = 0;           // mean seconds between consecutive records
  bool follow_newest = false;                   // loads that see a change show the newest records
  bool changed = false;                         // the last load found a different size
  std::array<std::array<std::int32_t, 2>, 64> point_cache{};   // the graph's plotted points (x, y)

  DriftLog() = default;
  DriftLog(const DriftLog&) = delete;
  DriftLog& operator=(const DriftLog&) = delete;
  ~DriftLog() { platform::FileClose(file); }
};

// Brings the snapshot up to date with its file. True on success, whether or not anything changed
// (see changed). On failure last_error (and the thread's last error) holds the reason: 87 for a
// size that is not a multiple of 20 or a record with a bad version or check time. With an empty
// path the owner's file chooser is asked first (no owner or cancel: failure, 1223).
bool DriftLogLoad(const DriftUi* owner, DriftLog& log);
// The same load from a whole file's contents already in memory (size bytes at data), without a file.
bool DriftLogLoadBytes(DriftLog& log, const void* data, std::size_t size);
// Closes the file, drops the records and resets the view; keeps the path and the initial directory.
bool DriftLogReset(DriftLog& log);
// "drift.kr" files are known by their whole path; others by their name without the last extension.
void DriftLogDisplayName(DriftLog& log);
// Loads until it succeeds, asking the owner on each failure whether to try another file
// ("Could not load file ..."). No path, no owner, No or a cancelled chooser: false.
bool DriftLogLoadWithUser(const DriftUi* owner, DriftLog& log);
// Why a load failed, as the user reads it: the 87 wording above, else the system's text (cut to size - 1).
void DriftLogErrorText(std::uint32_t code, char* out, std::uint32_t size);
// Sets the path (cut at 260 characters), keeping everything else.
void DriftLogSetPath(DriftLog& log, const char* path);
