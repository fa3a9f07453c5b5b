// The drift graph window (dialog 6003): the graph of drift/drift_graph.h in a window with a label,
// a scale list, a scroll bar, a description, "Raw Data" and "Open File...". Its logic runs on the
// real dialog (Windows) and on the in-memory one (tests, POSIX) alike.
#pragma once
#include <cstdint>
#include <memory>

#include "drift/drift_graph.h"
#include "drift/drift_log.h"
#include "drift/drift_ui.h"
#include "platform/dialog.h"

inline constexpr std::uint32_t kGraphRedrawMessage = 0x2AB5;   // posted to itself: draw the plot again
inline constexpr std::uint32_t kGraphClosedMessage = 3029;     // posted to the parent when a modeless graph closes
inline constexpr const char* kGraphNoMemory = "Could not allocate memory to start the drift graph display.";

// A DriftUi that asks through a dialog's message boxes and the open-file dialog.
DriftUi DriftUiFor(platform::Dialog& dialog);

// The open-file dialog for a drift log ("Select Kairon II Sync Log File", "*.KR"). True with the
// chosen path in path (at most 260 characters); false on cancel.
bool ChooseDriftLogFile(platform::Dialog* owner, const char* initial_dir, char (&path)[kDriftPathMax + 1]);

class DriftGraphWindow final : public platform::DialogLogic {
 public:
  // The window takes the log. modeless: it frees itself when its window goes.
  DriftGraphWindow(std::unique_ptr<DriftLog> log, bool modeless);

  bool init(platform::Dialog& d) override;
  bool command(platform::Dialog& d, int id, int code) override;
  void timer(platform::Dialog& d, int timer_id) override;
  void scroll(platform::Dialog& d, int id, int code, int pos) override;
  void mouse_move(platform::Dialog& d, platform::DlgPoint p) override;
  void left_up(platform::Dialog& d, platform::DlgPoint p) override;
  void paint(platform::Dialog& d) override;
  std::intptr_t message(platform::Dialog& d, std::uint32_t msg, std::uintptr_t wparam, std::intptr_t lparam) override;
  void close(platform::Dialog& d, int id) override;
  void destroyed(platform::Dialog& d) override;

  // Selects record index as a click on its point does (the point's text, the redraw request);
  // nothing happens unless 0 <= index < the end of the shown range.
  void SelectPoint(platform::Dialog& d, std::int32_t index);
  void Plot(platform::Dialog& d);   // draws the plot now (when ready)

  const DriftLog* Log() const { return log_.get(); }
  std::int32_t Selected() const { return selected_; }
  bool Ready() const { return ready_; }
  const char* TimeZoneText() const { return time_zone_; }

 private:
  void UpdateControls(platform::Dialog& d);
  void RawData(platform::Dialog& d);
  void OpenFile(platform::Dialog& d);
  void SetTitle(platform::Dialog& d);
  void Finish(platform::Dialog& d, std::intptr_t modal_result);
  std::int32_t PointAt(platform::Dialog& d, platform::DlgPoint p) const;

  std::unique_ptr<DriftLog> log_;
  bool modeless_;
  bool ready_ = false;
  std::int32_t selected_ = -1;
  char time_zone_[128] = {};
};

// Opens the graph of the drift log at path as a modeless window of parent (may be null). flags:
// local_time shows times in local time; allow_open > 0 shows "Open File...", whose chooser starts
// in initial_dir. The window, or nullptr (no memory: a message box; load given up: closed at once).
platform::Dialog* OpenDriftGraph(void* module, platform::Dialog* parent, bool local_time, std::uint32_t allow_open,
                                 const char* initial_dir, const char* path);
