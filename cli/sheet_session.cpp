// The sheet process: one loop on the main thread drives the in-memory windows (events from the
// front end, posted messages, timers at their real periods) and sends what changed; a reader thread
// takes the input lines, answers the questions (message boxes, the file chooser) that any thread
// may be waiting on, and sees the input end.
//
// Decisions of this front end, where a real sheet gives no rule:
//   - the sheet is launched as rundll32 launches it (no silent upgrade of the provider: the sheet
//     process never installs anything by itself);
//   - input that ends, or a termination signal, is the sheet's Cancel;
//   - a question that is open when the input ends is answered Cancel (else No, else OK);
//   - while a question waits, every other input is refused, as a modal box refuses clicks;
//   - edits that accept digits only (ES_NUMBER) refuse typed text with other characters, and
//     read-only edits refuse typing, as the system's edit controls do.
#include "cli/sheet_session.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <deque>
#include <list>
#include <map>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

#include "applet/applet.h"
#include "applet/clock_status.h"
#include "cli/commands.h"
#include "cli/json_line.h"
#include "config/defaults.h"
#include "platform/canvas.h"
#include "platform/dialog_memory.h"
#include "platform/file.h"
#include "platform/file_chooser.h"
#include "platform/recording_canvas.h"
#include "platform/stdio.h"
#include "resources/resource_ids.h"

namespace {

using namespace platform;
using Clock = std::chrono::steady_clock;

constexpr std::size_t kMaxInputLine = 65536;
constexpr std::size_t kMaxDocument = 1 << 20;
constexpr int kFirstWindowNumber = 100;

// ---------------------------------------------------------------- JSON out

// A JSON object built field by field, in order.
class Json {
 public:
  Json& Raw(std::string_view key, std::string_view raw) {
    text_ += text_.size() > 1 ? "," : "";
    text_ += JsonString(key);
    text_ += ':';
    text_ += raw;
    return *this;
  }
  Json& Str(std::string_view key, std::string_view value) { return Raw(key, JsonString(value)); }
  Json& Num(std::string_view key, std::int64_t value) { return Raw(key, std::to_string(value)); }
  Json& Bool(std::string_view key, bool value) { return Raw(key, value ? "true" : "false"); }
  bool Empty() const { return text_.size() == 1; }
  std::string Done() const { return text_ + "}"; }

 private:
  std::string text_ = "{";
};

std::string JsonArray(const std::vector<std::string>& raw_items) {
  std::string out = "[";
  for (std::size_t i = 0; i < raw_items.size(); ++i) out += (i ? "," : "") + raw_items[i];
  return out + "]";
}

const char* KindName(ControlKind kind) {
  switch (kind) {
    case ControlKind::Text: return "text";
    case ControlKind::CenterText: return "center_text";
    case ControlKind::Link: return "link";
    case ControlKind::Icon: return "icon";
    case ControlKind::Frame: return "frame";
    case ControlKind::Group: return "group";
    case ControlKind::Button: return "button";
    case ControlKind::DefButton: return "default_button";
    case ControlKind::Check: return "check";
    case ControlKind::Radio: return "radio";
    case ControlKind::Edit: return "edit";
    case ControlKind::List: return "list";
    case ControlKind::Combo: return "combo";
    case ControlKind::HScroll: return "hscroll";
    case ControlKind::Progress: return "progress";
  }
  return "text";
}

std::string FlagNames(std::uint32_t flags) {
  static constexpr std::pair<std::uint32_t, const char*> kNames[] = {
      {kCtlGroup, "group"},       {kCtlNumber, "number"},     {kCtlMulti, "multiline"},
      {kCtlReadOnly, "readonly"}, {kCtlVScroll, "vscroll"},   {kCtlHidden, "hidden"},
      {kCtlDisabled, "disabled"}, {kCtlTabStops, "tabstops"}, {kCtlSunken, "sunken"}};
  std::vector<std::string> names;
  for (const auto& [bit, name] : kNames)
    if (flags & bit) names.push_back(JsonString(name));
  return JsonArray(names);
}

std::string FontJson(const FontSpec& f) {
  return Json().Str("face", f.face ? f.face : "").Num("points", f.points).Num("weight", f.weight).Bool("underline", f.underline).Done();
}

std::string ColourText(Colour c) {
  char buf[8];
  std::snprintf(buf, sizeof buf, "#%02x%02x%02x", c & 0xFF, (c >> 8) & 0xFF, (c >> 16) & 0xFF);
  return JsonString(buf);
}

// The key of a control in state messages: its id, or "#index" for controls without one.
std::string ControlKey(const ControlDesc& c, std::size_t index) {
  return c.id == -1 ? "#" + std::to_string(index) : std::to_string(c.id);
}

std::string TemplateJson(const DialogDesc& d) {
  std::vector<std::string> controls;
  for (std::size_t i = 0; i < d.controls.size(); ++i) {
    const ControlDesc& c = d.controls[i];
    Json j;
    if (c.id == -1) j.Num("index", std::int64_t(i));
    else j.Num("id", c.id);
    j.Str("kind", KindName(c.kind)).Str("text", c.text ? c.text : "");
    j.Num("x", c.x).Num("y", c.y).Num("w", c.w).Num("h", c.h).Raw("flags", FlagNames(c.flags));
    controls.push_back(j.Done());
  }
  return JsonArray(controls);
}

const char* CursorName(CursorShape shape) {
  switch (shape) {
    case CursorShape::Wait: return "wait";
    case CursorShape::Hand: return "hand";
    default: return "arrow";
  }
}

// Every field of a control's state, each as its JSON text.
using Fields = std::map<std::string, std::string>;
Fields ControlFields(MemoryDialog& d, const MemoryControl& c) {
  Fields f;
  f["text"] = JsonString(c.desc.kind == ControlKind::Icon ? "" : c.text);
  f["checked"] = c.checked ? "true" : "false";
  f["enabled"] = c.enabled ? "true" : "false";
  f["visible"] = c.visible ? "true" : "false";
  std::vector<std::string> items;
  for (const auto& item : c.items) items.push_back(JsonString(item.first));
  f["items"] = JsonArray(items);
  f["selection"] = std::to_string(c.selection);
  f["scroll"] = Json().Num("min", c.scroll.min).Num("max", c.scroll.max).Num("pos", c.scroll.pos).Done();
  f["font"] = FontJson(c.font);
  f["icon"] = std::to_string(c.icon);
  f["progress"] = Json().Num("min", c.progress_min).Num("max", c.progress_max).Num("pos", c.progress).Done();
  std::vector<std::string> stops;
  for (const int s : c.tab_stops) stops.push_back(std::to_string(s));
  f["tabstops"] = JsonArray(stops);
  const bool is_static = c.desc.kind == ControlKind::Text || c.desc.kind == ControlKind::CenterText ||
                         c.desc.kind == ControlKind::Link;
  const StaticColours colours = is_static && c.desc.id != -1 ? d.ColoursOf(c.desc.id) : StaticColours{};
  f["colours"] = colours.custom
                     ? Json().Raw("text", ColourText(colours.text)).Raw("background", ColourText(colours.background)).Done()
                     : "null";
  return f;
}

std::vector<std::pair<std::string, std::string>> BoxButtons(std::uint32_t style) {
  switch (style & 0xF) {
    case kMbOkCancel: return {{"1", "OK"}, {"2", "Cancel"}};
    case kMbYesNoCancel: return {{"6", "&Yes"}, {"7", "&No"}, {"2", "Cancel"}};
    case kMbYesNo: return {{"6", "&Yes"}, {"7", "&No"}};
    default: return {{"1", "OK"}};
  }
}

const char* BoxIcon(std::uint32_t style) {
  switch (style & 0xF0) {
    case kMbIconError: return "\"error\"";
    case kMbIconQuestion: return "\"question\"";
    case kMbIconExclamation: return "\"warning\"";
    case kMbIconInformation: return "\"information\"";
    default: return "null";
  }
}

// The answer to a question whose front end went away: Cancel, else No, else OK.
int AnswerWhenGone(std::uint32_t style) {
  switch (style & 0xF) {
    case kMbOkCancel:
    case kMbYesNoCancel: return kIdCancel;
    case kMbYesNo: return kIdNo;
    default: return kIdOk;
  }
}

// ---------------------------------------------------------------- the session

class Session {
 public:
  Session() : main_thread_(std::this_thread::get_id()) {}

  void StartInput() {
    reader_ = std::thread([this] { ReadInput(); });
  }
  // The reader stops at the input's end; a sheet that closed by itself ends the input first.
  void StopInput() {
    if (!reader_.joinable()) return;
    EndInput();
    reader_.join();
  }

  // Hooks of the in-memory user interface: they may run on any thread.
  int AskBox(const memory_ui::Box& box) {
    if (!sheet_) {   // the launch's own failure: told, not asked
      Send(BoxJson(box, 0));
      return 0;
    }
    if (OnMainThread()) SendChanges();
    Question q;
    q.style = box.style;
    for (const auto& [answer, text] : BoxButtons(box.style)) q.buttons.push_back(std::stoi(answer));
    const int id = Open(q);
    Send(BoxJson(box, id));
    return Wait(id).answer;
  }
  bool AskFile(const OpenFileRequest& r, std::string& path) {
    if (OnMainThread()) SendChanges();
    Question q;
    q.file = true;
    const int id = Open(q);
    Send(Json()
             .Str("event", "choose_file")
             .Num("question", id)
             .Str("title", r.title)
             .Str("filter", r.filter_name)
             .Str("pattern", r.pattern)
             .Str("initial_dir", r.initial_dir)
             .Str("path", r.path)
             .Done());
    const Question answered = Wait(id);
    path = answered.path;
    return !answered.path.empty();
  }
  bool ShowDocument(std::string_view path) {
    std::string text;
    if (FileHandle f = FileCreate(path, kGenericRead, kShareRead | kShareWrite, kOpenExisting, 0)) {
      char buf[16384];
      std::uint32_t done = 0;
      while (text.size() < kMaxDocument && FileRead(f, buf, sizeof buf, done) && done) text.append(buf, done);
      FileClose(f);
    } else {
      return false;
    }
    text.resize(std::min(text.size(), kMaxDocument));
    Send(Json().Str("event", "document").Str("path", path).Str("text", text).Done());
    return true;
  }
  void Woken() {
    std::lock_guard lock(m_);
    woken_ = true;
    cv_.notify_all();
  }

  // The sheet's driver: runs until the sheet ends.
  void Drive(MemorySheet& sheet) {
    sheet_ = &sheet;
    memory_ui::WindowsLock hold;
    SendSheet();
    for (;;) {
      RunDue();
      SendChanges();
      if (sheet.HasEnded()) break;
      std::optional<std::string> line;
      bool ended = false;
      memory_ui::UnlockedWhile([&] { WaitForWork(line, ended); });
      if (line) Handle(*line);
      else if (ended) {
        sheet.Cancel();
        break;
      }
    }
    SendChanges();
    Send(Json().Str("event", "end").Num("result", sheet.Result()).Done());
    sheet_ = nullptr;
  }

  // The modal windows the pages open (the please-wait dialog): shown, run to their end, closed.
  void RunModal(MemoryDialog& dialog) {
    Track(dialog, true);
    SendChanges();
    dialog.RunUntilEnded(defaults::kStatusThreadWaitMs * 60);
    if (!dialog.HasEnded()) dialog.End(-1);
    SendChanges();
  }

 private:
  struct Question {
    int id = 0;
    bool file = false;
    std::uint32_t style = 0;
    std::vector<int> buttons;
    bool answered = false;
    int answer = 0;
    std::string path;
  };
  struct TimerDue {
    std::uint64_t serial;
    Clock::time_point due;
  };
  struct Window {
    MemoryDialog* dialog;
    int number;
    bool page;
    std::map<std::string, Fields> sent;   // by control key
    std::string title, cursor;
    std::map<int, TimerDue> timers;
    int invalidated = 0;
  };

  bool OnMainThread() const { return std::this_thread::get_id() == main_thread_; }

  void Send(const std::string& line) {
    if (!WriteOutputLine(line)) {   // the front end is gone: as if its input ended
      std::lock_guard lock(m_);
      output_gone_ = true;
      cv_.notify_all();
    }
  }
  void Error(std::string_view message, std::string_view input) {
    Send(Json().Str("event", "error").Str("message", message).Str("input", input.substr(0, 200)).Done());
  }

  std::string BoxJson(const memory_ui::Box& box, int id) {
    std::vector<std::string> buttons;
    for (const auto& [answer, text] : BoxButtons(box.style))
      buttons.push_back(Json().Raw("answer", answer).Str("text", text).Done());
    Json j;
    j.Str("event", "box");
    if (id) j.Num("question", id);
    return j.Str("caption", box.caption).Str("text", box.text).Raw("icon", BoxIcon(box.style)).Raw("buttons", JsonArray(buttons)).Done();
  }

  // ---- questions
  int Open(Question q) {
    std::lock_guard lock(m_);
    q.id = ++last_question_;
    if (input_ended_ || output_gone_) {
      q.answered = true;
      q.answer = AnswerWhenGone(q.style);
    }
    questions_.push_back(q);
    return q.id;
  }
  Question Wait(int id) {
    Question out;
    memory_ui::UnlockedWhile([&] {
      std::unique_lock lock(m_);
      auto it = std::find_if(questions_.begin(), questions_.end(), [&](const Question& q) { return q.id == id; });
      cv_.wait(lock, [&] { return it->answered || input_ended_ || output_gone_; });
      if (!it->answered) it->answer = AnswerWhenGone(it->style), it->path.clear();
      out = *it;
      questions_.erase(it);
    });
    return out;
  }
  // On the reader thread, under m_: an answer to an open question (what is wrong with it in
  // error). False when the line is no answer.
  bool TakeAnswer(const JsonLine& msg, std::string& error) {
    const std::string* what = msg.String("do");
    if (!what || *what != "answer") return false;
    const auto id = msg.Number("question");
    auto it = std::find_if(questions_.begin(), questions_.end(), [&](const Question& q) { return id && q.id == *id; });
    if (it == questions_.end() || it->answered) return error = "no such question is waiting", true;
    if (it->file) {
      const std::string* path = msg.String("path");
      if (!path) return error = "the answer to a file choice needs \"path\"", true;
      it->path = *path;
    } else {
      const auto answer = msg.Number("answer");
      if (!answer || std::find(it->buttons.begin(), it->buttons.end(), *answer) == it->buttons.end())
        return error = "that answer is not a button of the question", true;
      it->answer = int(*answer);
    }
    it->answered = true;
    cv_.notify_all();
    return true;
  }

  // ---- input
  void ReadInput() {
    std::string line;
    for (;;) {
      const InputStatus status = ReadInputLine(line, kMaxInputLine);
      if (status == InputStatus::End) break;
      if (status == InputStatus::TooLong) {
        Error("the line is longer than 65536 bytes", "");
        continue;
      }
      if (line.find_first_not_of(" \t") == std::string::npos) continue;
      std::string why, error;
      const std::optional<JsonLine> msg = ParseJsonLine(line, why);
      {
        std::lock_guard lock(m_);
        const bool waiting = std::any_of(questions_.begin(), questions_.end(), [](const Question& q) { return !q.answered; });
        if (!msg) error = "not a JSON object: " + why;
        else if (TakeAnswer(*msg, error)) {}
        else if (waiting) error = "a question is waiting for its answer";
        else lines_.push_back(line), cv_.notify_all();
      }
      if (!error.empty()) Error(error, line);
    }
    std::lock_guard lock(m_);
    input_ended_ = true;
    cv_.notify_all();
  }

  void WaitForWork(std::optional<std::string>& line, bool& ended) {
    std::unique_lock lock(m_);
    const auto ready = [&] { return !lines_.empty() || input_ended_ || output_gone_ || woken_; };
    if (next_due_) cv_.wait_until(lock, *next_due_, ready);
    else cv_.wait(lock, ready);
    woken_ = false;
    if (!lines_.empty()) {
      line = std::move(lines_.front());
      lines_.pop_front();
    } else {
      ended = input_ended_ || output_gone_;
    }
  }

  // ---- windows
  Window* Find(int number) {
    for (Window& w : windows_)
      if (w.number == number && w.dialog->Exists()) return &w;
    return nullptr;
  }
  Window* FindDialog(const Dialog* d) {
    for (Window& w : windows_)
      if (w.dialog == d) return &w;
    return nullptr;
  }

  void SendSheet() {
    std::vector<std::string> pages;
    for (int i = 0; i < sheet_->PageCount(); ++i) {
      const DialogDesc* d = FindDialogDescription(int(g_applet.pages_shown[i]));
      if (!d) continue;
      pages.push_back(Json()
                          .Num("window", i)
                          .Num("template", d->id)
                          .Str("title", d->title ? d->title : "")
                          .Num("width", d->w)
                          .Num("height", d->h)
                          .Raw("font", FontJson({d->face, d->points, 400, false}))
                          .Raw("controls", TemplateJson(*d))
                          .Done());
    }
    const std::string icons = Json()
                                  .Str(std::to_string(IDI_APPLET), "app")
                                  .Str(std::to_string(IDI_STATUS_UNKNOWN), "status_unknown")
                                  .Str(std::to_string(IDI_STATUS_SYNCED), "status_synced")
                                  .Str(std::to_string(IDI_STATUS_BAD), "status_bad")
                                  .Str(std::to_string(IDI_STATUS_OFF), "status_off")
                                  .Done();
    Send(Json()
             .Str("event", "sheet")
             .Str("title", sheet_->title)
             .Str("ok", sheet_->ok_text)
             .Str("cancel", sheet_->cancel_text)
             .Str("apply", "&Apply")
             .Raw("base_units", Json().Num("x", 6).Num("y", 13).Done())
             .Raw("icons", icons)
             .Raw("pages", JsonArray(pages))
             .Done());
  }

  void Track(MemoryDialog& d, bool modal) {
    Window w{&d, next_window_++, false, {}, {}, {}, {}, d.InvalidateCount()};
    windows_.push_back(std::move(w));
    const DialogDesc& desc = d.Description();
    Send(Json()
             .Str("event", "open")
             .Num("window", windows_.back().number)
             .Num("template", desc.id)
             .Str("title", d.Title())
             .Bool("modal", modal)
             .Num("width", desc.w)
             .Num("height", desc.h)
             .Raw("font", FontJson({desc.face, desc.points, 400, false}))
             .Raw("controls", TemplateJson(desc))
             .Done());
    d.Paint();
  }

  // New pages and windows, windows gone.
  void FollowWindows() {
    for (int i = 0; i < sheet_->PageCount(); ++i) {
      if (!sheet_->PageMade(i)) continue;
      MemoryDialog& page = sheet_->Page(i);
      if (!FindDialog(&page)) windows_.push_back({&page, i, true, {}, {}, {}, {}, page.InvalidateCount()});
    }
    for (MemoryDialog* d : memory_ui::Modeless())
      if (d->Exists() && !FindDialog(d)) Track(*d, false);
    for (auto it = windows_.begin(); it != windows_.end();) {
      if (!it->page && !it->dialog->Exists()) {
        Send(Json().Str("event", "close").Num("window", it->number).Done());
        it = windows_.erase(it);
      } else {
        ++it;
      }
    }
  }

  // Posted messages, paints and timers that are due.
  void RunDue() {
    for (int round = 0; round < 64; ++round) {   // what the handlers post is delivered too, within reason
      FollowWindows();
      int work = 0;
      for (std::size_t i = 0; i < windows_.size(); ++i) {
        MemoryDialog* d = windows_[i].dialog;
        if (!d->Exists()) continue;
        work += d->DeliverPosted();
        if (d->Exists() && d->InvalidateCount() != windows_[i].invalidated) {
          windows_[i].invalidated = d->InvalidateCount();
          d->Paint();
          ++work;
        }
      }
      work += FireTimers();
      if (!work) break;
    }
  }

  int FireTimers() {
    int fired = 0;
    const Clock::time_point now = Clock::now();
    next_due_.reset();
    for (std::size_t i = 0; i < windows_.size(); ++i) {
      MemoryDialog* d = windows_[i].dialog;
      if (!d->Exists()) continue;
      std::map<int, TimerDue> running;
      for (const TimerInfo& t : d->Timers()) {
        const auto& known = windows_[i].timers;
        auto it = known.find(t.id);
        TimerDue due = it != known.end() && it->second.serial == t.serial
                           ? it->second
                           : TimerDue{t.serial, now + std::chrono::milliseconds(t.period_ms)};
        if (due.due <= now) {
          d->FireTimer(t.id);   // its handler may open or close windows
          ++fired;
          due.due = now + std::chrono::milliseconds(t.period_ms);
          if (i >= windows_.size() || windows_[i].dialog != d || !d->Exists()) return fired;
        }
        running[t.id] = due;
      }
      // A timer set again by its own handler starts its period again; one killed is gone.
      std::map<int, TimerDue> kept;
      for (const TimerInfo& t : d->Timers()) {
        auto it = running.find(t.id);
        TimerDue due = it != running.end() && it->second.serial == t.serial
                           ? it->second
                           : TimerDue{t.serial, now + std::chrono::milliseconds(t.period_ms)};
        kept[t.id] = due;
        if (!next_due_ || due.due < *next_due_) next_due_ = due.due;
      }
      windows_[i].timers = std::move(kept);
    }
    return fired;
  }

  void SendChanges() {
    if (!sheet_) return;
    FollowWindows();
    for (const ControlPicture& p : TakeControlPictures()) {
      if (const Window* w = FindDialog(p.window))
        Send(Json()
                 .Str("event", "picture")
                 .Num("window", w->number)
                 .Num("id", p.id)
                 .Num("width", p.width)
                 .Num("height", p.height)
                 .Str("svg", p.svg)
                 .Done());
    }
    for (Window& w : windows_) {
      if (!w.dialog->Exists()) continue;
      Json changed;
      const auto& controls = w.dialog->Description().controls;
      for (std::size_t i = 0; i < controls.size(); ++i) {
        const MemoryControl* c = controls[i].id == -1 ? nullptr : w.dialog->Control(controls[i].id);
        MemoryControl unnamed;   // controls without an id keep their template's state
        if (!c) {
          unnamed.desc = controls[i];
          unnamed.text = controls[i].text ? controls[i].text : "";
          unnamed.visible = !(controls[i].flags & kCtlHidden);
          unnamed.enabled = !(controls[i].flags & kCtlDisabled);
          if (controls[i].kind == ControlKind::Icon) unnamed.icon = controls[i].text ? std::atoi(controls[i].text) : 0;
          c = &unnamed;
        }
        const std::string key = ControlKey(controls[i], i);
        Fields now = ControlFields(*w.dialog, *c);
        Fields& before = w.sent[key];
        Json diff;
        for (const auto& [field, value] : now)
          if (before[field] != value) diff.Raw(field, value);
        if (!diff.Empty()) changed.Raw(key, diff.Done());
        before = std::move(now);
      }
      if (!changed.Empty())
        Send(Json().Str("event", "state").Num("window", w.number).Raw("controls", changed.Done()).Done());
      if (!w.page) {
        const std::string cursor = w.dialog->CurrentCursorResource() == IDC_CW_GRAPH_HAND
                                       ? "hand"
                                       : CursorName(w.dialog->CurrentCursor());
        if (w.dialog->Title() != w.title || cursor != w.cursor) {
          w.title = w.dialog->Title();
          w.cursor = cursor;
          Send(Json().Str("event", "window").Num("window", w.number).Str("title", w.title).Str("cursor", cursor).Done());
        }
      }
    }
    bool apply = false;
    for (const auto& [id, changed] : sheet_->page_changed) apply = apply || changed;
    const std::string state = Json()
                                  .Str("event", "sheet_state")
                                  .Str("title", sheet_->title)
                                  .Num("current", sheet_->Current())
                                  .Bool("changed", sheet_->changed)
                                  .Bool("apply_enabled", apply)
                                  .Str("cursor", CursorName(memory_ui::SystemCursor()))
                                  .Done();
    if (state != sheet_state_) Send(sheet_state_ = state);
    const std::vector<std::string> urls = memory_ui::OpenedAddresses();
    for (; urls_sent_ < urls.size(); ++urls_sent_) Send(Json().Str("event", "url").Str("url", urls[urls_sent_]).Done());
  }

  // ---- what a person does
  void Handle(const std::string& line) {
    std::string why;
    const std::optional<JsonLine> parsed = ParseJsonLine(line, why);
    if (!parsed) return Error("not a JSON object: " + why, line);
    const JsonLine& msg = *parsed;
    const std::string* what = msg.String("do");
    if (!what) return Error("the message needs \"do\"", line);
    const std::string& act = *what;
    if (act == "ok") return void(sheet_->Apply(true));
    if (act == "cancel") return sheet_->Cancel();
    if (act == "apply") {
      bool apply = false;
      for (const auto& [id, changed] : sheet_->page_changed) apply = apply || changed;
      if (!apply) return Error("Apply is not enabled", line);
      return void(sheet_->Apply(false));
    }
    if (act == "tab") {
      const auto page = msg.Number("page");
      if (!page || *page < 0 || *page >= sheet_->PageCount()) return Error("no such page", line);
      sheet_->Show(int(*page));
      return;
    }
    if (act == "answer") return Error("no question is waiting", line);
    static constexpr std::string_view kWindowActions[] = {"close", "mouse", "click", "type", "focus", "choose", "scroll"};
    if (std::find(std::begin(kWindowActions), std::end(kWindowActions), act) == std::end(kWindowActions))
      return Error("unknown action", line);
    // The rest names a window (the current page by default).
    const auto number = msg.Number("window");
    Window* w = Find(number ? int(*number) : sheet_->Current());
    if (!w) return Error("no such window", line);
    MemoryDialog& d = *w->dialog;
    if (act == "close") {
      if (w->page) return Error("a page has no close box: use \"cancel\"", line);
      return d.CloseBox(kIdCancel);
    }
    if (act == "mouse") {
      const auto x = msg.Number("x"), y = msg.Number("y");
      if (!x || !y || *x < -32768 || *x > 32767 || *y < -32768 || *y > 32767) return Error("the mouse needs \"x\" and \"y\"", line);
      d.MouseMove({int(*x), int(*y)});
      if (msg.Bool("click").value_or(false)) d.LeftUp({int(*x), int(*y)});
      return;
    }
    const auto id = msg.Number("id");
    const MemoryControl* c = id && *id != -1 && *id >= INT32_MIN && *id <= INT32_MAX ? d.Control(int(*id)) : nullptr;
    if (!c) return Error("no such control", line);
    const bool usable = c->enabled && c->visible;
    if (act == "click") {
      if (!d.Click(int(*id))) return Error("the control cannot be clicked now (disabled or hidden)", line);
      return;
    }
    if (act == "type") {
      const std::string* text = msg.String("text");
      if (!text) return Error("typing needs \"text\"", line);
      if (c->desc.kind != ControlKind::Edit) return Error("only an edit box takes typing", line);
      if (!usable || (c->desc.flags & kCtlReadOnly)) return Error("the edit box cannot be typed in now", line);
      if ((c->desc.flags & kCtlNumber) && text->find_first_not_of("0123456789") != std::string::npos)
        return Error("only digits can be typed in this box", line);
      return d.Type(int(*id), *text);
    }
    if (act == "focus") {
      const auto in = msg.Bool("in");
      if (!in) return Error("focus needs \"in\": true or false", line);
      if (!usable) return Error("the control cannot take the focus now", line);
      return *in ? d.FocusIn(int(*id)) : d.FocusOut(int(*id));
    }
    if (act == "choose") {
      const auto index = msg.Number("index");
      if (c->desc.kind != ControlKind::List && c->desc.kind != ControlKind::Combo) return Error("only a list has items", line);
      if (!usable) return Error("the list cannot be used now", line);
      if (!index || *index < 0 || *index >= std::int64_t(c->items.size())) return Error("no such item", line);
      return d.Choose(int(*id), int(*index));
    }
    if (act == "scroll") {
      const auto code = msg.Number("code"), pos = msg.Number("pos");
      if (c->desc.kind != ControlKind::HScroll) return Error("only a scroll bar scrolls", line);
      if (!usable) return Error("the scroll bar cannot be used now", line);
      if (!code || *code < kSbLineLeft || *code > kSbEndScroll) return Error("scrolling needs a \"code\" from 0 to 8", line);
      return d.ScrollBar(int(*id), int(*code), int(std::clamp<std::int64_t>(pos.value_or(0), INT32_MIN, INT32_MAX)));
    }
  }

  std::thread::id main_thread_;
  std::thread reader_;
  std::mutex m_;
  std::condition_variable cv_;
  std::deque<std::string> lines_;
  std::list<Question> questions_;   // a list: a waiter keeps its place while others come and go
  int last_question_ = 0;
  bool input_ended_ = false, output_gone_ = false, woken_ = false;
  std::optional<Clock::time_point> next_due_;

  MemorySheet* sheet_ = nullptr;
  std::vector<Window> windows_;
  int next_window_ = kFirstWindowNumber;
  std::string sheet_state_;
  std::size_t urls_sent_ = 0;
};

}  // namespace

int RunSheetSession(const std::string& machine) {
  EndInputOnTermination();
  UseMemoryDialogs(true);
  memory_ui::Reset();
  DrawControlPictures(CreateSvgTextCanvas);
  Session session;
  memory_ui::SetSink([&](const memory_ui::Box& box) { return session.AskBox(box); });
  memory_ui::OnActivity([&] { session.Woken(); });
  memory_ui::OnSheet([&](MemorySheet& sheet) { session.Drive(sheet); });
  memory_ui::OnModal([&](MemoryDialog& dialog) { session.RunModal(dialog); });
  memory_file_chooser::SetSink([&](const OpenFileRequest& r, std::string& path) { return session.AskFile(r, path); });
  SetTextViewerHook([&](std::string_view path) { return session.ShowDocument(path); });
  session.StartInput();

  applet_entry(nullptr, kCplInit, 0, 0);
  if (!machine.empty()) applet_entry(nullptr, kCplSetMachine, reinterpret_cast<std::intptr_t>(machine.c_str()), 0);
  g_status_thread_fn = StatusThreadEntry;
  const std::intptr_t launched = applet_entry(nullptr, kCplSheet, 0, 0);
  g_status_thread_fn = nullptr;
  // The launch has stopped the status worker: nothing writes to the windows any more.
  SetTextViewerHook(nullptr);
  memory_file_chooser::SetSink(nullptr);
  memory_ui::OnActivity(nullptr);
  session.StopInput();
  memory_ui::SetSink(nullptr);
  memory_ui::OnSheet(nullptr);
  memory_ui::OnModal(nullptr);
  DrawControlPictures(nullptr);
  return launched ? kExitOk : kExitFailed;
}
