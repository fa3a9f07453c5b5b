// The drift graph window's logic. Every handler that does real work clears the ready flag first
// and sets it again at the end, and does nothing while it is clear: ticks, scrolls, clicks and
// redraw requests that arrive while another handler runs are dropped.
#include "drift/drift_graph_window.h"

#include <cstdio>
#include <cstring>
#include <new>

#include "drift/report.h"
#include "platform/canvas.h"
#include "platform/file_chooser.h"
#include "resources/resource_ids.h"

namespace {

using platform::Dialog;

constexpr std::uint32_t kQuestionStyle = platform::kMbYesNo | platform::kMbIconQuestion | platform::kMbTopmost;
constexpr std::uint32_t kNoticeStyle = platform::kMbOk | platform::kMbTopmost;

bool AskYesNo(const DriftUi& ui, const char* caption, const char* text) {
  return platform::ShowMessageBox(static_cast<Dialog*>(ui.context), text, caption, kQuestionStyle) == platform::kIdYes;
}

void Notify(const DriftUi& ui, NoticeIcon icon, const char* caption, const char* text) {
  const std::uint32_t glyph = icon == NoticeIcon::Information ? platform::kMbIconInformation : platform::kMbIconExclamation;
  platform::ShowMessageBox(static_cast<Dialog*>(ui.context), text, caption, kNoticeStyle | glyph);
}

bool ChooseFile(const DriftUi& ui, DriftLog& log) {
  return ChooseDriftLogFile(static_cast<Dialog*>(ui.context), log.initial_dir, log.path);
}

ScrollAction ActionOf(int code) {
  switch (code) {
    case platform::kSbLineLeft: return ScrollAction::LineLeft;
    case platform::kSbLineRight: return ScrollAction::LineRight;
    case platform::kSbPageLeft: return ScrollAction::PageLeft;
    case platform::kSbPageRight: return ScrollAction::PageRight;
    case platform::kSbThumbPosition:
    case platform::kSbThumbTrack: return ScrollAction::Thumb;
    case platform::kSbLeft: return ScrollAction::Left;
    case platform::kSbRight: return ScrollAction::Right;
    default: return ScrollAction::Other;
  }
}

void CopyPath(char (&out)[kDriftPathMax + 1], const char* text) {
  std::memset(out, 0, sizeof out);
  if (text) std::strncpy(out, text, kDriftPathMax);
}

}  // namespace

DriftUi DriftUiFor(Dialog& dialog) {
  DriftUi ui;
  ui.window = dialog.NativeHandle();
  ui.context = &dialog;
  ui.ask_yes_no = AskYesNo;
  ui.notify = Notify;
  ui.choose_file = ChooseFile;
  return ui;
}

bool ChooseDriftLogFile(Dialog* owner, const char* initial_dir, char (&path)[kDriftPathMax + 1]) {
  platform::OpenFileRequest request;
  request.title = "Select Kairon II Sync Log File";
  request.filter_name = "Sync Log Files";
  request.pattern = "*.KR";
  request.default_ext = "KR";
  request.initial_dir = initial_dir ? initial_dir : "";
  request.path = path;
  std::string chosen;
  if (!platform::ChooseFileToOpen(owner, request, chosen)) return false;
  CopyPath(path, chosen.c_str());
  return true;
}

DriftGraphWindow::DriftGraphWindow(std::unique_ptr<DriftLog> log, bool modeless)
    : log_(std::move(log)), modeless_(modeless) {}

bool DriftGraphWindow::init(Dialog& d) {
  ready_ = false;
  const DriftUi ui = DriftUiFor(d);
  if (!DriftLogLoadWithUser(&ui, *log_)) {
    Finish(d, log_->last_error);
    return false;
  }
  ReportTimeZoneText(log_->local_time, time_zone_, sizeof time_zone_);
  SetTitle(d);
  d.ClearItems(IDC_GRAPH_SCALE);
  d.AddItem(IDC_GRAPH_SCALE, DriftGraphScaleItemText(kDriftGraphAuto), kDriftGraphAuto);
  for (const auto scale : kDriftGraphScales) d.AddItem(IDC_GRAPH_SCALE, DriftGraphScaleItemText(scale), scale);
  d.Select(IDC_GRAPH_SCALE, 0);
  d.SetText(IDC_GRAPH_DESCRIPTION, "");
  d.SetText(IDC_GRAPH_LABEL, "");
  UpdateControls(d);
  d.Show(IDC_GRAPH_OPEN_FILE, log_->open_flag > 0);
  d.SetTimer(kDriftGraphTimerId, kDriftGraphTimerMs);
  selected_ = -1;
  ready_ = true;
  return true;
}

void DriftGraphWindow::SetTitle(Dialog& d) {
  char title[kDriftPathMax + 64];
  std::snprintf(title, sizeof title, "Kairon II Drift Data: %s", log_->display_name);
  d.SetTitle(title);
}

void DriftGraphWindow::UpdateControls(Dialog& d) {
  const DriftGraphControlState s = DriftGraphControls(*log_);
  d.SetScrollRange(IDC_GRAPH_SCROLL, 0, static_cast<int>(s.scroll_max));
  d.SetScrollPos(IDC_GRAPH_SCROLL, static_cast<int>(s.scroll_pos));
  d.Enable(IDC_GRAPH_SCROLL, s.scroll_enabled);
  d.Enable(IDC_GRAPH_RAW_DATA, s.raw_data_enabled);
}

void DriftGraphWindow::Plot(Dialog& d) {
  if (!ready_) return;
  ready_ = false;
  if (auto canvas = platform::CreateControlCanvas(d, IDC_GRAPH_PLOT)) {
    const int item = d.Selection(IDC_GRAPH_SCALE);
    const auto data = item < 0 ? kDriftGraphAuto : static_cast<std::uint32_t>(d.ItemData(IDC_GRAPH_SCALE, item));
    const DriftGraphTexts texts = DrawDriftGraph(*canvas, log_.get(), selected_, data);
    d.SetText(IDC_GRAPH_LABEL, texts.label);
    if (!texts.keep_description) d.SetText(IDC_GRAPH_DESCRIPTION, texts.description);
  }
  ready_ = true;
}

void DriftGraphWindow::paint(Dialog& d) { Plot(d); }

std::intptr_t DriftGraphWindow::message(Dialog& d, std::uint32_t msg, std::uintptr_t, std::intptr_t) {
  if (msg == kGraphRedrawMessage) Plot(d);
  return 0;
}

void DriftGraphWindow::timer(Dialog& d, int timer_id) {
  if (timer_id != static_cast<int>(kDriftGraphTimerId) || !ready_) return;
  ready_ = false;
  d.KillTimer(kDriftGraphTimerId);
  if (DriftGraphFollow(*log_)) {
    UpdateControls(d);
    d.Post(kGraphRedrawMessage, 0, 0);
  }
  d.SetTimer(kDriftGraphTimerId, kDriftGraphTimerMs);
  ready_ = true;
}

void DriftGraphWindow::scroll(Dialog& d, int id, int code, int pos) {
  if (id != IDC_GRAPH_SCROLL || !ready_) return;
  ready_ = false;
  if (DriftGraphScroll(*log_, ActionOf(code), pos)) {
    d.SetScrollPos(IDC_GRAPH_SCROLL, static_cast<int>(log_->first_shown));
    d.Post(kGraphRedrawMessage, 0, 0);
  }
  ready_ = true;
}

std::int32_t DriftGraphWindow::PointAt(Dialog& d, platform::DlgPoint p) const {
  const platform::DlgRect plot = d.ControlRect(IDC_GRAPH_PLOT);
  return DriftGraphHitTest(*log_, p.x - plot.left, p.y - plot.top);
}

void DriftGraphWindow::mouse_move(Dialog& d, platform::DlgPoint p) {
  if (PointAt(d, p) >= 0) d.SetCursorResource(IDC_CW_GRAPH_HAND);
  else d.SetCursor(platform::CursorShape::Arrow);
}

void DriftGraphWindow::SelectPoint(Dialog& d, std::int32_t index) {
  char text[512];
  if (!DriftPointText(*log_, index, text, sizeof text)) return;
  selected_ = index;
  d.SetText(IDC_GRAPH_DESCRIPTION, text);
  d.Post(kGraphRedrawMessage, 0, 0);
  d.SetCursorResource(IDC_CW_GRAPH_HAND);
  d.Focus(IDC_GRAPH_PLOT);
}

void DriftGraphWindow::left_up(Dialog& d, platform::DlgPoint p) {
  if (!ready_) return;
  ready_ = false;
  if (const std::int32_t index = PointAt(d, p); index >= 0) {
    SelectPoint(d, index);
  } else {
    selected_ = -1;
    d.Post(kGraphRedrawMessage, 0, 0);
  }
  ready_ = true;
}

bool DriftGraphWindow::command(Dialog& d, int id, int code) {
  switch (id) {
    case IDC_GRAPH_SCALE:
      if (code == platform::kCbnSelChange) d.Post(kGraphRedrawMessage, 0, 0);
      return true;
    case platform::kIdOk:
    case platform::kIdCancel:
      close(d, id);
      return true;
    case IDC_GRAPH_RAW_DATA:
      if (code == platform::kBnClicked) RawData(d);
      return true;
    case IDC_GRAPH_OPEN_FILE:
      if (code == platform::kBnClicked) OpenFile(d);
      return true;
    default:
      return false;
  }
}

void DriftGraphWindow::RawData(Dialog& d) {
  if (!ready_) return;
  ready_ = false;
  const DriftUi ui = DriftUiFor(d);
  WriteDriftReport(&ui, *log_, time_zone_);
  ready_ = true;
}

void DriftGraphWindow::OpenFile(Dialog& d) {
  if (!ready_) return;
  ready_ = false;
  if (!ChooseDriftLogFile(&d, log_->initial_dir, log_->path)) {
    ready_ = true;
    return;
  }
  DriftLogReset(*log_);
  const DriftUi ui = DriftUiFor(d);
  if (!DriftLogLoadWithUser(&ui, *log_)) return close(d, platform::kIdCancel);   // the window is gone
  SetTitle(d);
  UpdateControls(d);
  selected_ = -1;
  d.Post(kGraphRedrawMessage, 0, 0);
  ready_ = true;
}

void DriftGraphWindow::close(Dialog& d, int) {
  ready_ = false;
  d.KillTimer(kDriftGraphTimerId);
  DriftLogReset(*log_);
  Finish(d, 0);
}

// Ends the window: a modal one with modal_result; a modeless one lets its parent know (its logic
// and log go with the window, in destroyed).
void DriftGraphWindow::Finish(Dialog& d, std::intptr_t modal_result) {
  if (!modeless_) return d.End(modal_result);
  d.PostToParent(kGraphClosedMessage, 0, 0);
  d.End(0);
}

void DriftGraphWindow::destroyed(Dialog&) {
  if (modeless_) delete this;
}

Dialog* OpenDriftGraph(void* module, Dialog* parent, bool local_time, std::uint32_t allow_open, const char* initial_dir,
                       const char* path) {
  std::unique_ptr<DriftLog> log(new (std::nothrow) DriftLog());
  if (log) {
    log->module = module;
    log->open_flag = allow_open;
    log->local_time = local_time;
    log->follow_newest = true;
    CopyPath(log->initial_dir, initial_dir);
    DriftLogSetPath(*log, path ? path : "");
  }
  DriftGraphWindow* window = log ? new (std::nothrow) DriftGraphWindow(std::move(log), true) : nullptr;
  if (!window) {
    platform::ShowMessageBox(parent, kGraphNoMemory, kDriftUiCaption,
                             platform::kMbOk | platform::kMbTopmost | platform::kMbIconExclamation);
    return nullptr;
  }
  // From here the window owns itself: it goes with its dialog (destroyed), also when the load is
  // given up during the start.
  Dialog* d = platform::CreateModelessDialog(IDD_GRAPH, parent, *window);
  return d && d->Exists() ? d : nullptr;
}
