// In-memory dialogs, sheets and user-interface environment.
#include "platform/dialog_memory.h"

#include <algorithm>
#include <chrono>
#include <climits>
#include <condition_variable>
#include <atomic>
#include <deque>
#include <thread>

namespace platform {

namespace {

// Dialog base units of "MS Shell Dlg" 8 at 96 pixels per inch.
constexpr int kBaseX = 6, kBaseY = 13;

std::mutex g_ui_lock;
std::atomic<std::uint64_t> g_timer_serial{0};

// The windows' lock: recursive, and able to be let go entirely by its holder for a while.
class WindowsLockState {
 public:
  void Lock() {
    const auto me = std::this_thread::get_id();
    std::unique_lock lock(m_);
    if (owner_ == me) {
      ++depth_;
      return;
    }
    free_.wait(lock, [&] { return depth_ == 0; });
    owner_ = me;
    depth_ = 1;
  }
  bool Unlock() {   // true when the lock is free now
    std::lock_guard lock(m_);
    if (--depth_ != 0) return false;
    owner_ = {};
    free_.notify_all();
    return true;
  }
  int Release() {   // returns the depth to take back; 0 when this thread does not hold it
    std::lock_guard lock(m_);
    if (owner_ != std::this_thread::get_id()) return 0;
    const int depth = depth_;
    depth_ = 0;
    owner_ = {};
    free_.notify_all();
    return depth;
  }
  void Retake(int depth) {
    if (!depth) return;
    std::unique_lock lock(m_);
    free_.wait(lock, [&] { return depth_ == 0; });
    owner_ = std::this_thread::get_id();
    depth_ = depth;
  }

 private:
  std::mutex m_;
  std::condition_variable free_;
  std::thread::id owner_;
  int depth_ = 0;
};
WindowsLockState& windows_lock() {
  static WindowsLockState state;
  return state;
}
std::condition_variable g_posted;   // any in-memory window got a posted message

struct UiState {
  std::vector<memory_ui::Box> boxes;
  std::deque<int> answers;
  std::function<int(const memory_ui::Box&)> sink;
  CursorShape cursor = CursorShape::Arrow;
  int cursor_changes = 0;
  std::vector<std::string> addresses;
  std::function<void(MemoryDialog&)> on_modal;
  std::function<void(MemorySheet&)> on_sheet;
  std::vector<std::unique_ptr<MemoryDialog>> modeless;
  std::function<void()> on_post;
};
UiState& ui() {
  static UiState state;
  return state;
}

bool is_radio(const MemoryControl& c) { return c.desc.kind == ControlKind::Radio; }

}  // namespace

// ---------------------------------------------------------------- MemoryDialog

MemoryDialog::MemoryDialog(const DialogDesc& desc, DialogLogic& logic, Dialog* parent, MemorySheet* sheet)
    : desc_(desc), logic_(logic), parent_(parent), sheet_(sheet), title_(desc.title ? desc.title : "") {
  for (const ControlDesc& d : desc.controls) {
    MemoryControl c;
    c.desc = d;
    c.enabled = !(d.flags & kCtlDisabled);
    c.visible = !(d.flags & kCtlHidden);
    if (d.kind == ControlKind::Icon) {
      c.icon = d.text ? std::atoi(d.text) : 0;
    } else if (d.text) {
      c.text = d.text;
    }
    controls_.push_back(std::move(c));
  }
}

MemoryDialog::~MemoryDialog() { memory_ui::WindowsLock hold;
  if (started_ && !destroyed_) {
    destroyed_ = true;
    logic_.destroyed(*this);
  }
}

MemoryControl* MemoryDialog::find(int id) { memory_ui::WindowsLock hold;
  if (id == -1) return nullptr;
  for (MemoryControl& c : controls_)
    if (c.desc.id == id) return &c;
  return nullptr;
}
const MemoryControl* MemoryDialog::find(int id) const { memory_ui::WindowsLock hold; return const_cast<MemoryDialog*>(this)->find(id); }
const MemoryControl* MemoryDialog::Control(int id) const { memory_ui::WindowsLock hold; return find(id); }

bool MemoryDialog::Start() { memory_ui::WindowsLock hold;
  started_ = true;
  return logic_.init(*this);
}

bool MemoryDialog::Click(int id) { memory_ui::WindowsLock hold;
  MemoryControl* c = find(id);
  if (!c || !c->enabled || !c->visible || ended_) return false;
  if (c->desc.kind == ControlKind::Check) {
    c->checked = !c->checked;
  } else if (is_radio(*c)) {
    // The group: back to the control that starts it, forward to the next one that starts another.
    auto self = controls_.begin() + (c - controls_.data());
    auto first = self;
    while (first != controls_.begin() && !(first->desc.flags & kCtlGroup)) --first;
    auto last = self + 1;
    while (last != controls_.end() && !(last->desc.flags & kCtlGroup)) ++last;
    for (auto it = first; it != last; ++it)
      if (is_radio(*it)) it->checked = false;
    c->checked = true;
  }
  if (!logic_.command(*this, id, kBnClicked) && (id == kIdOk || id == kIdCancel) && !desc_.page)
    logic_.close(*this, id);
  return true;
}

void MemoryDialog::Type(int id, std::string_view text) { memory_ui::WindowsLock hold; SetText(id, text); }

void MemoryDialog::FocusIn(int id) { memory_ui::WindowsLock hold; logic_.command(*this, id, kEnSetFocus); }
void MemoryDialog::FocusOut(int id) { memory_ui::WindowsLock hold; logic_.command(*this, id, kEnKillFocus); }

void MemoryDialog::Choose(int id, int index) { memory_ui::WindowsLock hold;
  Select(id, index);
  logic_.command(*this, id, kCbnSelChange);
}

std::intptr_t MemoryDialog::SendNotify(int code) { memory_ui::WindowsLock hold; return logic_.notify(*this, code); }

bool MemoryDialog::FireTimer(int timer_id) { memory_ui::WindowsLock hold;
  if (!TimerRunning(timer_id)) return false;
  logic_.timer(*this, timer_id);
  return true;
}
bool MemoryDialog::TimerRunning(int timer_id) const { memory_ui::WindowsLock hold; return timers_.count(timer_id) != 0; }
std::uint32_t MemoryDialog::TimerPeriod(int timer_id) const { memory_ui::WindowsLock hold;
  auto it = timers_.find(timer_id);
  return it == timers_.end() ? 0 : it->second.period_ms;
}
std::vector<TimerInfo> MemoryDialog::Timers() const { memory_ui::WindowsLock hold;
  std::vector<TimerInfo> out;
  for (const auto& [id, t] : timers_) out.push_back(t);
  return out;
}

void MemoryDialog::ScrollBar(int id, int code, int pos) { memory_ui::WindowsLock hold; logic_.scroll(*this, id, code, pos); }
void MemoryDialog::MouseMove(DlgPoint p) { memory_ui::WindowsLock hold;
  mouse_ = p;
  logic_.mouse_move(*this, p);
}
void MemoryDialog::LeftUp(DlgPoint p) { memory_ui::WindowsLock hold;
  mouse_ = p;
  logic_.left_up(*this, p);
}
void MemoryDialog::CloseBox(int id) { memory_ui::WindowsLock hold;
  if (!logic_.command(*this, id, kBnClicked)) logic_.close(*this, id);
}

void MemoryDialog::Paint() { memory_ui::WindowsLock hold;
  if (started_ && !ended_) logic_.paint(*this);
}
StaticColours MemoryDialog::ColoursOf(int id) { memory_ui::WindowsLock hold; return logic_.static_colours(*this, id); }

bool MemoryDialog::deliver_one() { memory_ui::WindowsLock hold;
  PostedMessage m;
  {
    std::lock_guard lock(queue_lock_);
    if (queue_.empty()) return false;
    m = queue_.front();
    queue_.erase(queue_.begin());
  }
  if (!destroyed_) logic_.message(*this, m.msg, m.wparam, m.lparam);
  return true;
}

int MemoryDialog::DeliverPosted() { memory_ui::WindowsLock hold;
  int n = 0;
  while (deliver_one()) ++n;
  return n;
}

bool MemoryDialog::RunUntilEnded(std::uint32_t timeout_ms) {
  auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
  while (!ended_) {
    if (deliver_one()) continue;
    bool timed_out = false;
    memory_ui::UnlockedWhile([&] {
      std::unique_lock lock(g_ui_lock);
      timed_out = g_posted.wait_until(lock, deadline) == std::cv_status::timeout;
    });
    if (timed_out) {
      DeliverPosted();
      return ended_;
    }
  }
  return true;
}

std::vector<int> MemoryDialog::TabStops(int id) const { memory_ui::WindowsLock hold;
  const MemoryControl* c = find(id);
  return c ? c->tab_stops : std::vector<int>{};
}
int MemoryDialog::ClassCursor(int id) const { memory_ui::WindowsLock hold;
  const MemoryControl* c = find(id);
  return c ? c->class_cursor : 0;
}
bool MemoryDialog::HasEnded() const { memory_ui::WindowsLock hold; return ended_; }
std::intptr_t MemoryDialog::Result() const { memory_ui::WindowsLock hold; return result_; }
std::vector<PostedMessage> MemoryDialog::PostsToParent() const {
  std::lock_guard lock(queue_lock_);
  return parent_posts_;
}

bool MemoryDialog::HasControl(int id) const { memory_ui::WindowsLock hold; return find(id) != nullptr; }

std::string MemoryDialog::Text(int id) const { memory_ui::WindowsLock hold;
  const MemoryControl* c = find(id);
  return c ? c->text : std::string();
}

void MemoryDialog::SetText(int id, std::string_view text) { memory_ui::WindowsLock hold;
  MemoryControl* c = find(id);
  if (!c) return;
  c->text = text;
  if (c->desc.kind == ControlKind::Edit && started_) {   // as WM_SETTEXT on an edit control does
    logic_.command(*this, id, kEnUpdate);
    logic_.command(*this, id, kEnChange);
  }
}

std::uint32_t MemoryDialog::Number(int id, bool* ok) const { memory_ui::WindowsLock hold;
  std::string t = Text(id);
  std::size_t i = t.find_first_not_of(" \t");
  std::uint64_t v = 0;
  bool good = i != std::string::npos;
  for (; good && i < t.size(); ++i) {
    if (t[i] < '0' || t[i] > '9') good = false;
    else if ((v = v * 10 + std::uint64_t(t[i] - '0')) > UINT_MAX) good = false;
  }
  if (ok) *ok = good;
  return good ? std::uint32_t(v) : 0;
}
void MemoryDialog::SetNumber(int id, std::uint32_t value) { memory_ui::WindowsLock hold; SetText(id, std::to_string(value)); }

bool MemoryDialog::Checked(int id) const { memory_ui::WindowsLock hold;
  const MemoryControl* c = find(id);
  return c && c->checked;
}
void MemoryDialog::SetChecked(int id, bool checked) { memory_ui::WindowsLock hold;
  if (MemoryControl* c = find(id)) c->checked = checked;
}
bool MemoryDialog::Enabled(int id) const { memory_ui::WindowsLock hold;
  const MemoryControl* c = find(id);
  return c && c->enabled;
}
void MemoryDialog::Enable(int id, bool enabled) { memory_ui::WindowsLock hold;
  if (MemoryControl* c = find(id)) c->enabled = enabled;
}
bool MemoryDialog::Visible(int id) const { memory_ui::WindowsLock hold;
  const MemoryControl* c = find(id);
  return c && c->visible;
}
void MemoryDialog::Show(int id, bool visible) { memory_ui::WindowsLock hold;
  if (MemoryControl* c = find(id)) c->visible = visible;
}
void MemoryDialog::Focus(int) { memory_ui::WindowsLock hold;}

int MemoryDialog::AddItem(int id, std::string_view text, std::intptr_t data) { memory_ui::WindowsLock hold;
  MemoryControl* c = find(id);
  if (!c) return -1;
  c->items.emplace_back(std::string(text), data);
  return int(c->items.size()) - 1;
}
void MemoryDialog::ClearItems(int id) { memory_ui::WindowsLock hold;
  if (MemoryControl* c = find(id)) {
    c->items.clear();
    c->selection = -1;
  }
}
int MemoryDialog::ItemCount(int id) const { memory_ui::WindowsLock hold;
  const MemoryControl* c = find(id);
  return c ? int(c->items.size()) : 0;
}
std::string MemoryDialog::ItemText(int id, int index) const { memory_ui::WindowsLock hold;
  const MemoryControl* c = find(id);
  return c && index >= 0 && index < int(c->items.size()) ? c->items[index].first : std::string();
}
std::intptr_t MemoryDialog::ItemData(int id, int index) const { memory_ui::WindowsLock hold;
  const MemoryControl* c = find(id);
  return c && index >= 0 && index < int(c->items.size()) ? c->items[index].second : 0;
}
int MemoryDialog::Selection(int id) const { memory_ui::WindowsLock hold;
  const MemoryControl* c = find(id);
  return c ? c->selection : -1;
}
void MemoryDialog::Select(int id, int index) { memory_ui::WindowsLock hold;
  if (MemoryControl* c = find(id)) c->selection = index >= 0 && index < int(c->items.size()) ? index : -1;
}
void MemoryDialog::SetTabStops(int id, std::initializer_list<int> stops) { memory_ui::WindowsLock hold;
  if (MemoryControl* c = find(id)) c->tab_stops.assign(stops);
}

void MemoryDialog::SetScrollRange(int id, int min, int max) { memory_ui::WindowsLock hold;
  if (MemoryControl* c = find(id)) {
    c->scroll.min = min;
    c->scroll.max = max;
    c->scroll.pos = std::clamp(c->scroll.pos, min, std::max(min, max));
  }
}
void MemoryDialog::SetScrollPos(int id, int pos) { memory_ui::WindowsLock hold;
  if (MemoryControl* c = find(id)) c->scroll.pos = std::clamp(pos, c->scroll.min, std::max(c->scroll.min, c->scroll.max));
}
ScrollInfo MemoryDialog::Scroll(int id) const { memory_ui::WindowsLock hold;
  const MemoryControl* c = find(id);
  return c ? c->scroll : ScrollInfo{0, 0, 0};
}

void MemoryDialog::SetFont(int id, const FontSpec& font) { memory_ui::WindowsLock hold;
  if (MemoryControl* c = find(id)) c->font = font;
}
FontSpec MemoryDialog::Font(int id) const { memory_ui::WindowsLock hold;
  const MemoryControl* c = find(id);
  return c ? c->font : kFontDialog;
}
void MemoryDialog::SetIcon(int id, int icon_resource, int size_px) { memory_ui::WindowsLock hold;
  if (MemoryControl* c = find(id)) {
    c->icon = icon_resource;
    c->icon_size = size_px;
  }
}
int MemoryDialog::Icon(int id) const { memory_ui::WindowsLock hold;
  const MemoryControl* c = find(id);
  return c ? c->icon : 0;
}
void MemoryDialog::SetClassCursor(int id, int cursor_resource) { memory_ui::WindowsLock hold;
  // The cursor belongs to the control's window class: every control of that class shows it.
  MemoryControl* c = find(id);
  if (!c) return;
  for (MemoryControl& other : controls_)
    if (other.desc.kind == c->desc.kind) other.class_cursor = cursor_resource;
}
void MemoryDialog::SetProgressRange(int id, int min, int max, int step) { memory_ui::WindowsLock hold;
  if (MemoryControl* c = find(id)) {
    c->progress_min = min;
    c->progress_max = max;
    c->progress_step = step;
    c->progress = min;
  }
}
void MemoryDialog::StepProgress(int id) { memory_ui::WindowsLock hold;
  // PBM_STEPIT wraps to the start when it passes the end.
  if (MemoryControl* c = find(id)) {
    c->progress += c->progress_step;
    if (c->progress > c->progress_max) c->progress = c->progress_min + (c->progress - c->progress_max);
  }
}
int MemoryDialog::Progress(int id) const { memory_ui::WindowsLock hold;
  const MemoryControl* c = find(id);
  return c ? c->progress : 0;
}

std::string MemoryDialog::Title() const { memory_ui::WindowsLock hold; return title_; }
void MemoryDialog::SetTitle(std::string_view title) { memory_ui::WindowsLock hold; title_ = title; }

DlgRect MemoryDialog::ControlRect(int id) const { memory_ui::WindowsLock hold;
  const MemoryControl* c = find(id);
  if (!c) return {0, 0, 0, 0};
  const ControlDesc& d = c->desc;
  return {d.x * kBaseX / 4, d.y * kBaseY / 8, (d.x + d.w) * kBaseX / 4, (d.y + d.h) * kBaseY / 8};
}

void MemoryDialog::SetCursor(CursorShape shape) { memory_ui::WindowsLock hold;
  cursor_ = shape;
  cursor_resource_ = 0;
}
void MemoryDialog::SetCursorResource(int cursor_resource) { memory_ui::WindowsLock hold; cursor_resource_ = cursor_resource; }
void MemoryDialog::SetTimer(int timer_id, std::uint32_t ms) { memory_ui::WindowsLock hold; timers_[timer_id] = {timer_id, ms, ++g_timer_serial}; }
void MemoryDialog::KillTimer(int timer_id) { memory_ui::WindowsLock hold; timers_.erase(timer_id); }
void MemoryDialog::Invalidate(int) { memory_ui::WindowsLock hold; ++invalidated_; }

void MemoryDialog::Post(std::uint32_t msg, std::uintptr_t wparam, std::intptr_t lparam) {
  {
    std::lock_guard lock(queue_lock_);
    queue_.push_back({msg, wparam, lparam});
  }
  std::function<void()> hook;
  {
    std::lock_guard lock(g_ui_lock);
    g_posted.notify_all();
    hook = ui().on_post;
  }
  if (hook) hook();
}
std::intptr_t MemoryDialog::Send(std::uint32_t msg, std::uintptr_t wparam, std::intptr_t lparam) { memory_ui::WindowsLock hold;
  return logic_.message(*this, msg, wparam, lparam);
}
void MemoryDialog::PostToParent(std::uint32_t msg, std::uintptr_t wparam, std::intptr_t lparam) {
  if (parent_) {
    parent_->Post(msg, wparam, lparam);
    return;
  }
  std::lock_guard lock(queue_lock_);
  parent_posts_.push_back({msg, wparam, lparam});
}

void MemoryDialog::End(std::intptr_t result) { memory_ui::WindowsLock hold;
  if (ended_) return;
  ended_ = true;
  result_ = result;
  timers_.clear();
  if (!destroyed_ && started_) {
    destroyed_ = true;
    logic_.destroyed(*this);
  }
  std::lock_guard lock(g_ui_lock);
  g_posted.notify_all();
}
bool MemoryDialog::Exists() const { memory_ui::WindowsLock hold; return started_ && !ended_; }

void MemoryDialog::SetSheetTitle(std::string_view title) { memory_ui::WindowsLock hold;
  if (sheet_) sheet_->title = title;
}
std::string MemoryDialog::SheetTitle() const { memory_ui::WindowsLock hold; return sheet_ ? sheet_->title : std::string(); }
bool MemoryDialog::SheetChanged() const { memory_ui::WindowsLock hold; return sheet_ && sheet_->changed; }
void MemoryDialog::SetSheetChanged(bool changed) { memory_ui::WindowsLock hold;
  if (sheet_) sheet_->changed = changed;
}
void MemoryDialog::NotifySheet(bool changed) { memory_ui::WindowsLock hold;
  if (sheet_) sheet_->page_changed[desc_.id] = changed;
}

// ---------------------------------------------------------------- MemorySheet

MemorySheet::MemorySheet(const SheetSpec& spec)
    : ok_text(spec.ok_text ? spec.ok_text : "OK"),
      cancel_text(spec.cancel_text ? spec.cancel_text : "Cancel"),
      caption_(spec.caption),
      pages_(spec.pages.begin(), spec.pages.end()),
      made_(spec.pages.size()) {
  title = caption_;
}

MemoryDialog& MemorySheet::Page(int index) { memory_ui::WindowsLock hold;
  auto& page = made_.at(std::size_t(index));
  if (!page) {
    const DialogDesc* desc = FindDialogDescription(pages_[std::size_t(index)].template_id);
    static const DialogDesc empty{0, "", 0, 0, "", 8, true, {}};
    page = std::make_unique<MemoryDialog>(desc ? *desc : empty, *pages_[std::size_t(index)].logic, nullptr, this);
    page->Start();
  }
  return *page;
}

bool MemorySheet::PageMade(int index) const { memory_ui::WindowsLock hold;
  return index >= 0 && index < PageCount() && made_[std::size_t(index)] != nullptr;
}

bool MemorySheet::Start() { memory_ui::WindowsLock hold;
  for (const SheetPage& p : pages_)
    if (!FindDialogDescription(p.template_id)) return false;
  if (pages_.empty()) return false;
  current_ = 0;
  Page(0).SendNotify(kPsnSetActive);
  return true;
}

bool MemorySheet::Show(int index) { memory_ui::WindowsLock hold;
  if (index == current_ || index < 0 || index >= PageCount()) return false;
  if (Page(current_).SendNotify(kPsnKillActive) != 0) return false;
  current_ = index;
  Page(index).SendNotify(kPsnSetActive);
  return true;
}

bool MemorySheet::Apply(bool close) { memory_ui::WindowsLock hold;
  if (Page(current_).SendNotify(kPsnKillActive) != 0) return false;
  for (auto& page : made_)
    if (page && page->SendNotify(kPsnApply) != 0) return false;
  if (close) {
    ended_ = true;
    result_ = 1;
  }
  return true;
}

void MemorySheet::Cancel() { memory_ui::WindowsLock hold;
  for (auto& page : made_)
    if (page) page->SendNotify(kPsnReset);
  ended_ = true;
  result_ = 0;
}

// ---------------------------------------------------------------- environment

namespace memory_ui {

void Reset() {
  std::vector<std::unique_ptr<MemoryDialog>> old;
  {
    std::lock_guard lock(g_ui_lock);
    old.swap(ui().modeless);
    UiState fresh;
    fresh.modeless.clear();
    ui() = std::move(fresh);
  }
}

void AnswerNext(int answer) {
  std::lock_guard lock(g_ui_lock);
  ui().answers.push_back(answer);
}
void SetSink(std::function<int(const Box&)> sink) {
  std::lock_guard lock(g_ui_lock);
  ui().sink = std::move(sink);
}
std::vector<Box> Boxes() {
  std::lock_guard lock(g_ui_lock);
  return ui().boxes;
}
CursorShape SystemCursor() {
  std::lock_guard lock(g_ui_lock);
  return ui().cursor;
}
int SystemCursorChanges() {
  std::lock_guard lock(g_ui_lock);
  return ui().cursor_changes;
}
std::vector<std::string> OpenedAddresses() {
  std::lock_guard lock(g_ui_lock);
  return ui().addresses;
}
void OnModal(std::function<void(MemoryDialog&)> driver) {
  std::lock_guard lock(g_ui_lock);
  ui().on_modal = std::move(driver);
}
void OnSheet(std::function<void(MemorySheet&)> driver) {
  std::lock_guard lock(g_ui_lock);
  ui().on_sheet = std::move(driver);
}
void OnActivity(std::function<void()> hook) {
  std::lock_guard lock(g_ui_lock);
  ui().on_post = std::move(hook);
}

WindowsLock::WindowsLock() { windows_lock().Lock(); }
WindowsLock::~WindowsLock() {
  if (!windows_lock().Unlock()) return;
  std::function<void()> hook;
  {
    std::lock_guard lock(g_ui_lock);
    hook = ui().on_post;
  }
  if (hook) hook();
}

void UnlockedWhile(const std::function<void()>& wait) {
  const int depth = windows_lock().Release();
  wait();
  windows_lock().Retake(depth);
}

std::vector<MemoryDialog*> Modeless() {
  std::lock_guard lock(g_ui_lock);
  std::vector<MemoryDialog*> out;
  for (auto& d : ui().modeless) out.push_back(d.get());
  return out;
}

}  // namespace memory_ui

// The in-memory ends of the public functions (called by dialog.cpp).
namespace memory_backend {

int ShowMessageBox(std::string_view text, std::string_view caption, std::uint32_t style) {
  memory_ui::Box box{std::string(text), std::string(caption), style, 0};
  std::function<int(const memory_ui::Box&)> sink;
  int queued = 0;
  {
    std::lock_guard lock(g_ui_lock);
    sink = ui().sink;
    if (!ui().answers.empty()) {
      queued = ui().answers.front();
      ui().answers.pop_front();
    }
  }
  int sink_answer = sink ? sink(box) : 0;
  std::uint32_t buttons = style & 0xF;
  int first = buttons == kMbYesNo || buttons == kMbYesNoCancel ? kIdYes : kIdOk;
  box.answer = queued ? queued : sink_answer ? sink_answer : first;
  std::lock_guard lock(g_ui_lock);
  ui().boxes.push_back(box);
  return box.answer;
}

void SetSystemCursor(CursorShape shape) {
  std::lock_guard lock(g_ui_lock);
  ui().cursor = shape;
  ++ui().cursor_changes;
}

void OpenWebAddress(std::string_view url) {
  std::lock_guard lock(g_ui_lock);
  ui().addresses.emplace_back(url);
}

std::intptr_t RunModalDialog(int template_id, Dialog* parent, DialogLogic& logic) {
  const DialogDesc* desc = FindDialogDescription(template_id);
  if (!desc) return -1;
  MemoryDialog dialog(*desc, logic, parent);
  std::function<void(MemoryDialog&)> driver;
  {
    std::lock_guard lock(g_ui_lock);
    driver = ui().on_modal;
  }
  dialog.Start();
  if (driver) driver(dialog);
  else if (!dialog.HasEnded() && !dialog.RunUntilEnded(10'000)) dialog.End(-1);
  if (!dialog.HasEnded()) dialog.End(-1);
  return dialog.Result();
}

Dialog* CreateModelessDialog(int template_id, Dialog* parent, DialogLogic& logic) {
  const DialogDesc* desc = FindDialogDescription(template_id);
  if (!desc) return nullptr;
  auto dialog = std::make_unique<MemoryDialog>(*desc, logic, parent);
  MemoryDialog* raw = dialog.get();
  {
    std::lock_guard lock(g_ui_lock);
    ui().modeless.push_back(std::move(dialog));
  }
  raw->Start();
  return raw;
}

std::intptr_t RunPropertySheet(const SheetSpec& spec) {
  MemorySheet sheet(spec);
  if (!sheet.Start()) return -1;
  std::function<void(MemorySheet&)> driver;
  {
    std::lock_guard lock(g_ui_lock);
    driver = ui().on_sheet;
  }
  if (driver) driver(sheet);
  if (!sheet.HasEnded()) sheet.Apply(true);
  return sheet.Result();
}

}  // namespace memory_backend

}  // namespace platform
