// In-memory dialogs: a window built from its resource description (platform::DialogDesc), whose
// controls hold their state in memory. Tests drive a window's logic as a user and the system would
// (click, type, choose, notify, fire a timer) and read the controls back; the POSIX build runs the
// applet's windows this way, with message boxes answered by a sink (the command line prints them).
// Nothing here moves time: timers fire when a test fires them (or the sheet process, at their periods).
//
// Threads: a worker may call a window's functions (the clock status check writes the Client page
// from its own thread, as Win32 runs such a call on the window's thread). Every call takes the
// windows' lock (memory_ui::WindowsLock), which the thread that drives the windows also holds while
// it handles one event, so that no two threads are ever inside the windows at once.
//
// Behaviour kept from Win32 because window logic relies on it: setting an edit's text sends
// EN_UPDATE and EN_CHANGE to the logic (also during its start); clicking an auto radio button
// checks it and clears the others of its group (the controls from one carrying kCtlGroup to the
// next one); clicking a check box toggles it; a disabled or hidden control cannot be clicked;
// setting a check state, a selection or a list sends nothing.
#pragma once
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/dialog.h"

namespace platform {

struct MemoryControl {
  ControlDesc desc;
  std::string text;
  bool checked = false, enabled = true, visible = true;
  std::vector<std::pair<std::string, std::intptr_t>> items;
  int selection = -1;
  std::vector<int> tab_stops;
  ScrollInfo scroll{0, 0, 0};
  FontSpec font = kFontDialog;
  int icon = 0, icon_size = 0, class_cursor = 0;
  int progress_min = 0, progress_max = 100, progress_step = 10, progress = 0;
};

struct TimerInfo {
  int id;
  std::uint32_t period_ms;
  std::uint64_t serial;   // changes at every SetTimer: the period starts again then
};

struct PostedMessage {
  std::uint32_t msg;
  std::uintptr_t wparam;
  std::intptr_t lparam;
};

class MemorySheet;

class MemoryDialog final : public Dialog {
 public:
  MemoryDialog(const DialogDesc& desc, DialogLogic& logic, Dialog* parent = nullptr, MemorySheet* sheet = nullptr);
  ~MemoryDialog() override;
  MemoryDialog(const MemoryDialog&) = delete;
  MemoryDialog& operator=(const MemoryDialog&) = delete;

  // ---- What a user and the system do ----
  bool Start();                                      // WM_INITDIALOG; returns its result
  bool Click(int id);                                // false: no such control, disabled or hidden
  void Type(int id, std::string_view text);          // the user replaces an edit's text
  void FocusIn(int id);                              // EN_SETFOCUS
  void FocusOut(int id);                             // EN_KILLFOCUS
  void Choose(int id, int index);                    // selects an item and sends CBN_SELCHANGE
  std::intptr_t SendNotify(int code);                // a property-sheet notification
  bool FireTimer(int timer_id);                      // false when that timer is not running
  bool TimerRunning(int timer_id) const;
  std::uint32_t TimerPeriod(int timer_id) const;     // ms, 0 when not running
  std::vector<TimerInfo> Timers() const;             // the running timers
  void ScrollBar(int id, int code, int pos = 0);     // WM_HSCROLL
  void MouseMove(DlgPoint p);
  void LeftUp(DlgPoint p);
  void CloseBox(int id = kIdCancel);                 // OK, Cancel or the close box of a window
  void Paint();                                      // WM_PAINT: the window was shown or invalidated
  StaticColours ColoursOf(int id);                   // WM_CTLCOLORSTATIC: how static id is painted
  int DeliverPosted();                               // runs the posted messages; returns how many
  // Runs posted messages as they come until the window ends or timeout_ms passes (wall time: for
  // windows whose work runs on another thread). Returns whether it ended.
  bool RunUntilEnded(std::uint32_t timeout_ms);

  // ---- What a test reads ----
  const MemoryControl* Control(int id) const;        // nullptr: no such control
  std::vector<int> TabStops(int id) const;
  int ClassCursor(int id) const;
  bool HasEnded() const;
  std::intptr_t Result() const;                      // what End received
  CursorShape CurrentCursor() const { return cursor_; }
  int CurrentCursorResource() const { return cursor_resource_; }
  std::vector<PostedMessage> PostsToParent() const;  // when the parent is not an in-memory window
  const DialogDesc& Description() const { return desc_; }

  // ---- Dialog ----
  int TemplateId() const override { return desc_.id; }
  bool HasControl(int id) const override;
  std::string Text(int id) const override;
  void SetText(int id, std::string_view text) override;
  std::uint32_t Number(int id, bool* ok = nullptr) const override;
  void SetNumber(int id, std::uint32_t value) override;
  bool Checked(int id) const override;
  void SetChecked(int id, bool checked) override;
  bool Enabled(int id) const override;
  void Enable(int id, bool enabled) override;
  bool Visible(int id) const override;
  void Show(int id, bool visible) override;
  void Focus(int id) override;
  int AddItem(int id, std::string_view text, std::intptr_t data = 0) override;
  void ClearItems(int id) override;
  int ItemCount(int id) const override;
  std::string ItemText(int id, int index) const override;
  std::intptr_t ItemData(int id, int index) const override;
  int Selection(int id) const override;
  void Select(int id, int index) override;
  void SetTabStops(int id, std::initializer_list<int> stops) override;
  void SetScrollRange(int id, int min, int max) override;
  void SetScrollPos(int id, int pos) override;
  ScrollInfo Scroll(int id) const override;
  void SetFont(int id, const FontSpec& font) override;
  FontSpec Font(int id) const override;
  void SetIcon(int id, int icon_resource, int size_px) override;
  int Icon(int id) const override;
  void SetClassCursor(int id, int cursor_resource) override;
  void SetProgressRange(int id, int min, int max, int step) override;
  void StepProgress(int id) override;
  int Progress(int id) const override;
  std::string Title() const override;
  void SetTitle(std::string_view title) override;
  DlgRect ControlRect(int id) const override;
  DlgPoint CursorPos() const override { return mouse_; }
  void SetCursor(CursorShape shape) override;
  void SetCursorResource(int cursor_resource) override;
  void SetTimer(int timer_id, std::uint32_t ms) override;
  void KillTimer(int timer_id) override;
  void Invalidate(int id) override;
  void Post(std::uint32_t msg, std::uintptr_t wparam, std::intptr_t lparam) override;
  std::intptr_t Send(std::uint32_t msg, std::uintptr_t wparam, std::intptr_t lparam) override;
  void PostToParent(std::uint32_t msg, std::uintptr_t wparam, std::intptr_t lparam) override;
  void End(std::intptr_t result) override;
  void BringToFront() override { ++front_count_; }
  bool Exists() const override;
  void* NativeHandle() const override { return nullptr; }
  void SetSheetTitle(std::string_view title) override;
  std::string SheetTitle() const override;
  bool SheetChanged() const override;
  void SetSheetChanged(bool changed) override;
  void NotifySheet(bool changed) override;

  int FrontCount() const { return front_count_; }    // BringToFront calls
  int InvalidateCount() const { return invalidated_; }

 private:
  MemoryControl* find(int id);
  const MemoryControl* find(int id) const;
  bool deliver_one();

  const DialogDesc& desc_;
  DialogLogic& logic_;
  Dialog* parent_;
  MemorySheet* sheet_;
  std::string title_;
  std::vector<MemoryControl> controls_;
  std::map<int, TimerInfo> timers_;
  bool started_ = false, ended_ = false, destroyed_ = false;
  std::intptr_t result_ = 0;
  DlgPoint mouse_{0, 0};
  CursorShape cursor_ = CursorShape::Arrow;
  int cursor_resource_ = 0, front_count_ = 0, invalidated_ = 0;
  mutable std::mutex queue_lock_;
  std::vector<PostedMessage> queue_, parent_posts_;
};

// A property sheet of in-memory pages. Pages are made and started when first shown, as a real
// sheet does; Page(i) shows nothing but makes and starts page i if needed.
class MemorySheet {
 public:
  explicit MemorySheet(const SheetSpec& spec);
  bool Start();                        // shows the first page; false when a page has no description
  int PageCount() const { return int(pages_.size()); }
  int Current() const { return current_; }
  MemoryDialog& Page(int index);
  MemoryDialog& CurrentPage() { return Page(current_); }
  bool PageMade(int index) const;      // page index was made (shown at least once)
  // The user picks tab index: PSN_KILLACTIVE to the current page (a non-zero answer keeps it),
  // then PSN_SETACTIVE to the new one. Returns whether the page changed.
  bool Show(int index);
  // Apply (and OK with close = true): PSN_KILLACTIVE to the current page, then PSN_APPLY to every
  // page made so far. Returns false when a page refused.
  bool Apply(bool close = false);
  void Cancel();                       // PSN_RESET to every page made so far; ends with 0
  bool HasEnded() const { return ended_; }
  std::intptr_t Result() const { return result_; }
  std::string Caption() const { return caption_; }
  std::string title;                   // the sheet window's title (SetSheetTitle; the caption at start)
  bool changed = false;                // the sheet's changed flag
  std::map<int, bool> page_changed;    // PSM_CHANGED / PSM_UNCHANGED by template id
  std::string ok_text, cancel_text;

 private:
  std::string caption_;
  std::vector<SheetPage> pages_;
  std::vector<std::unique_ptr<MemoryDialog>> made_;
  int current_ = 0;
  bool ended_ = false;
  std::intptr_t result_ = -1;
};

// The in-memory user-interface environment (message boxes, the system cursor, web addresses and
// the windows the code runs by itself). Thread-safe: a worker thread may show a message box.
namespace memory_ui {

struct Box {
  std::string text, caption;
  std::uint32_t style;
  int answer;
};
void Reset();                                   // forgets everything below and restores the defaults
// Answers for the next message boxes, in order. Without one: the sink's answer, else the first
// button of the style (kIdOk, or kIdYes for the yes/no styles).
void AnswerNext(int answer);
// Called for every message box (e.g. the command line prints it); its result is the answer
// unless a queued answer takes precedence.
void SetSink(std::function<int(const Box&)> sink);
std::vector<Box> Boxes();
CursorShape SystemCursor();
int SystemCursorChanges();
std::vector<std::string> OpenedAddresses();
// Drivers for the windows the code runs itself, called with the started window. Defaults: a
// modal window runs its posted messages until it ends (10 s at most, then ends with -1); a sheet
// is started and closed with OK.
void OnModal(std::function<void(MemoryDialog&)> driver);
void OnSheet(std::function<void(MemorySheet&)> driver);
// Modeless windows made by CreateModelessDialog, oldest first (kept until Reset).
std::vector<MemoryDialog*> Modeless();
// Called after a message was posted to an in-memory window, and after a thread let go of the
// windows' lock (a worker changed a window): on that thread, so that the driving loop wakes up.
void OnActivity(std::function<void()> hook);

// The windows' lock (see the top of this file). Recursive: a thread that holds it may take it again.
class WindowsLock {
 public:
  WindowsLock();
  ~WindowsLock();
  WindowsLock(const WindowsLock&) = delete;
  WindowsLock& operator=(const WindowsLock&) = delete;
};
// Runs wait with the windows' lock let go (however deeply this thread holds it), then takes it
// back: for a thread that waits for another which may need the windows meanwhile.
void UnlockedWhile(const std::function<void()>& wait);

}  // namespace memory_ui

}  // namespace platform
