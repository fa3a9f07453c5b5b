// The Agent page and the history functions under it.
//
// Names in the history list: the page fills the list at once with the times and addresses, and
// when reverse look-ups are on ("DNS Lookups Enabled") a worker thread looks the new addresses up
// and posts kAgentNamesMessage, on which the page writes the lines again with their names. A slow
// or dead name server therefore never holds up the window. Names are kept by address for the
// page's life, so each address is looked up once.
#include "applet/agent_page.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "applet/applet.h"
#include "config/defaults.h"
#include "config/registry.h"
#include "config/w32time.h"
#include "drift/drift_file.h"
#include "drift/drift_graph_window.h"
#include "platform/clock.h"
#include "platform/file.h"
#include "platform/net.h"
#include "resources/resources.h"
#include "timing/format.h"
#include "timing/precise_clock.h"

namespace {

constexpr int kRefreshTimer = 1;
constexpr const char* kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun", "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
// The option controls the coexistence rule hides, and those that follow the enable box.
constexpr int kOptionControls[] = {IDC_ALERT_OFF,   IDC_ALERT_UNVERIFIED, IDC_THRESHOLD,     IDC_REF_SERVER,
                                   IDC_INTERVAL,    IDC_REF_LABEL,        IDC_REF_HINT,      IDC_INTERVAL_LABEL,
                                   IDC_INTERVAL_UNIT, IDC_THRESHOLD_UNIT, IDC_MANAGERS_LABEL, IDC_MANAGERS};

}  // namespace

SourceHistory agent_read_source_history() {
  SourceHistory h{};
  if (!reg_get_binary(g_applet.reg, defaults::kProviderKey, defaults::kLastUsedTimeSourceValue, h.data(), std::uint32_t(h.size())))
    h.fill(0);
  return h;
}

std::vector<SourceHistoryEntry> agent_history_entries(const SourceHistory& history) {
  std::vector<SourceHistoryEntry> out;
  for (int i = 63; i >= 0; --i) {
    SourceHistoryEntry e{};
    std::memcpy(&e.address, history.data() + i * 8, 4);
    const std::uint8_t* t = history.data() + i * 8 + 4;
    e.time = std::uint32_t(t[0]) | std::uint32_t(t[1]) << 8 | std::uint32_t(t[2]) << 16 | std::uint32_t(t[3]) << 24;
    if (e.address && e.time) out.push_back(e);
  }
  return out;
}

std::string agent_history_line(const SourceHistoryEntry& entry, const char* name) {
  std::uint64_t ft = std::uint64_t(UnixSecondsToFileTime(entry.time));
  platform::SystemTime st{};
  if (!platform::FileTimeToLocalFileTime(ft, ft) || !platform::FileTimeToSystemTime(ft, st)) st = platform::SystemTime{};
  char dotted[16];
  FormatIPv4(entry.address, dotted);
  char line[400];
  std::snprintf(line, sizeof line, "%02d %s %04d %02d:%02d:%02d\t%s\t%s", st.day, kMonths[(st.month + 11) % 12], st.year,
                st.hour, st.minute, st.second, dotted, name ? name : "");
  return line;
}

std::string agent_lookup_name(std::uint32_t address) {
  char name[256] = {};
  if (!platform::LookupAddressV4(address, name, sizeof name)) return {};
  return name;
}

std::string agent_drift_path(const char* machine) {
  if (machine && *machine) return DriftFilePath(machine);
  return std::string(g_w32t_env.system_dir) + defaults::kDriftFileName;
}

std::uint32_t agent_clear_history(const char* machine) {
  const std::string path = agent_drift_path(machine);
  std::uint32_t status = 0;
  if (platform::FileHandle f = platform::FileCreate(path, platform::kGenericRead | platform::kGenericWrite,
                                                     platform::kShareRead | platform::kShareWrite,
                                                     platform::kOpenExisting, platform::kFlagNoLinks)) {
    // Never through a link planted in the history's folder; under the writers' lock between
    // processes, so that an append in progress is not cut in half (closing releases it).
    if (!platform::FileLockWriters(f, defaults::kDriftLockWaitMs) || !platform::FileSeek(f, 0, platform::SeekFrom::Begin) ||
        !platform::FileSetEnd(f))
      status = platform::LastError();
    platform::FileClose(f);
  } else if (const std::uint32_t open_error = platform::LastError();
             open_error != platform::kErrorFileNotFound && open_error != platform::kErrorPathNotFound) {
    status = open_error;
  }
  if (!reg_delete_value(g_applet.reg, defaults::kProviderKey, defaults::kLastUsedTimeSourceValue) && !status &&
      platform::LastError() != platform::kErrorFileNotFound)
    status = platform::LastError();
  return status;
}

bool agent_kairon_monitors() { return g_w32t_env.installed_product != kProductNone; }

// ---- The page ----

bool AgentPage::init(platform::Dialog& d) {
  page_ = &d;
  initializing_ = true;
  cache_.fill(0);
  {
    std::lock_guard hold(names_lock_);
    names_.clear();
    pending_.clear();
    stop_ = false;
  }
  W32tSettings& s = g_applet.settings;
  if (w32t_apply_coexistence(g_applet.reg, s)) applet_mark_changed(d);
  applet_setup_link(d);
  d.SetTabStops(IDC_HISTORY, {90, 160});
  shown_interval_minutes_ = s.check_interval / 60;
  d.SetNumber(IDC_INTERVAL, shown_interval_minutes_);
  d.SetText(IDC_REF_SERVER, s.reference_clock);
  d.SetText(IDC_MANAGERS, s.kr2_managers);
  d.SetNumber(IDC_THRESHOLD, s.alert_threshold);
  d.SetChecked(IDC_AGENT_ENABLED, s.provider_enabled != 0);
  d.SetChecked(IDC_ALERT_OFF, s.alert_if_unsynchronized != 0);
  d.SetChecked(IDC_ALERT_UNVERIFIED, s.alert_if_unverified != 0);
  const bool kairon = agent_kairon_monitors();
  d.SetText(IDC_AGENT_NOTE, kairon ? kAgentNoteKairon : kAgentNote);
  d.Enable(IDC_AGENT_ENABLED, !kairon);
  for (int id : kOptionControls) d.Show(id, !kairon);
  d.Show(IDC_REMOVE_AGENT, false);
  initializing_ = false;
  return true;
}

void AgentPage::Changed(platform::Dialog& d) {
  if (!initializing_) applet_mark_changed(d);
}

void AgentPage::UpdateControls(platform::Dialog& d) {
  const bool on = d.Checked(IDC_AGENT_ENABLED);
  for (int id : {IDC_REF_SERVER, IDC_INTERVAL, IDC_ALERT_UNVERIFIED, IDC_ALERT_OFF, IDC_REF_LABEL, IDC_REF_HINT,
                 IDC_INTERVAL_LABEL, IDC_INTERVAL_UNIT, IDC_THRESHOLD_UNIT, IDC_MANAGERS_LABEL, IDC_MANAGERS})
    d.Enable(id, on);
  d.Enable(IDC_THRESHOLD, on && d.Checked(IDC_ALERT_OFF));
  d.Enable(IDC_CLEAR_HISTORY, d.ItemCount(IDC_HISTORY) > 0);
}

bool AgentPage::command(platform::Dialog& d, int id, int code) {
  switch (id) {
    case IDC_REF_SERVER:
    case IDC_MANAGERS:
    case IDC_INTERVAL:
    case IDC_THRESHOLD:
      if (code == platform::kEnUpdate) Changed(d);
      return true;
    case IDC_ALERT_UNVERIFIED:
      if (code == platform::kBnClicked) Changed(d);
      return true;
    case IDC_ALERT_OFF:
    case IDC_AGENT_ENABLED:
      if (code == platform::kBnClicked) {
        Changed(d);
        UpdateControls(d);
      }
      return true;
    case IDC_CLEAR_HISTORY:
      ClearHistory(d);
      return true;
    case IDC_SHOW_GRAPH:
      ShowGraph(d);
      return true;
    case IDC_LINK:
      applet_open_help("agenttab");
      return true;
    default:
      return false;
  }
}

std::intptr_t AgentPage::notify(platform::Dialog& d, int code) {
  W32tSettings& s = g_applet.settings;
  switch (code) {
    case platform::kPsnSetActive:
      FillHistory(d);
      UpdateControls(d);
      d.SetTimer(kRefreshTimer, defaults::kPageRefreshMs);
      return 0;
    case platform::kPsnKillActive: {
      d.KillTimer(kRefreshTimer);
      const std::string ref = applet_trimmed(d.Text(IDC_REF_SERVER), 64);
      std::memset(s.reference_clock, 0, sizeof s.reference_clock);
      std::memcpy(s.reference_clock, ref.data(), std::min(ref.size(), sizeof s.reference_clock - 1));
      const std::string managers = applet_trimmed(d.Text(IDC_MANAGERS), sizeof s.kr2_managers);
      std::memset(s.kr2_managers, 0, sizeof s.kr2_managers);
      std::memcpy(s.kr2_managers, managers.data(), std::min(managers.size(), sizeof s.kr2_managers - 1));
      // An interval the page cannot show (seconds that are no whole minute: 20 s set in the
      // registry) is kept while its field still shows what it was filled with; only a typed
      // number of minutes replaces it. Otherwise leaving the page would turn 20 s into 0 (no
      // scheduled checks) and 1,799 s into 1,740 behind the user's back.
      if (d.Number(IDC_INTERVAL) != shown_interval_minutes_) {
        shown_interval_minutes_ = d.Number(IDC_INTERVAL);
        s.check_interval = shown_interval_minutes_ * 60;
      }
      s.alert_threshold = d.Number(IDC_THRESHOLD);
      s.alert_if_unverified = d.Checked(IDC_ALERT_UNVERIFIED) ? 1 : 0;
      s.alert_if_unsynchronized = d.Checked(IDC_ALERT_OFF) ? 1 : 0;
      s.provider_enabled = d.Checked(IDC_AGENT_ENABLED) ? 1 : 0;
      return 0;
    }
    case platform::kPsnApply:
      return applet_apply_notification(d);
    default:
      return 0;
  }
}

void AgentPage::timer(platform::Dialog& d, int timer_id) {
  if (timer_id == kRefreshTimer) FillHistory(d);
}

void AgentPage::FillHistory(platform::Dialog& d) {
  const SourceHistory h = agent_read_source_history();
  if (h == cache_) return;
  cache_ = h;
  applet_wait_cursor(1);
  ListLines(d);
  applet_wait_cursor(0);
}

// The list from the cached value with the names known so far; addresses without a known name are
// handed to the look-up worker.
void AgentPage::ListLines(platform::Dialog& d) {
  const bool lookups = g_applet.settings.dns_lookups_enabled != 0;
  const int selected = d.Selection(IDC_HISTORY);
  d.ClearItems(IDC_HISTORY);
  bool start = false;
  {
    std::lock_guard hold(names_lock_);
    for (const SourceHistoryEntry& e : agent_history_entries(cache_)) {
      auto known = names_.find(e.address);
      d.AddItem(IDC_HISTORY, agent_history_line(e, lookups && known != names_.end() ? known->second.c_str() : ""));
      if (lookups && known == names_.end() &&
          std::find(pending_.begin(), pending_.end(), e.address) == pending_.end()) {
        pending_.push_back(e.address);
        start = true;
      }
    }
  }
  if (selected >= 0 && selected < d.ItemCount(IDC_HISTORY)) d.Select(IDC_HISTORY, selected);
  if (!start) return;
  // One worker at a time: a finished one is collected; a running one takes the new addresses too.
  if (worker_ && platform::WaitForThread(worker_, 0)) {
    platform::CloseThread(worker_);
    worker_ = nullptr;
  }
  if (!worker_) {
    worker_ = platform::CreateThreadSuspended(LookupWorker, this);
    if (worker_) platform::ResumeThread(worker_);
  }
}

void AgentPage::LookupWorker(void* arg) {
  auto* self = static_cast<AgentPage*>(arg);
  for (;;) {
    std::uint32_t address = 0;
    {
      std::lock_guard hold(self->names_lock_);
      if (self->stop_ || self->pending_.empty()) return;
      address = self->pending_.front();
    }
    std::string name = agent_lookup_name(address);
    std::lock_guard hold(self->names_lock_);
    self->pending_.erase(std::remove(self->pending_.begin(), self->pending_.end(), address), self->pending_.end());
    self->names_[address] = std::move(name);
    if (!self->stop_ && self->page_) self->page_->Post(kAgentNamesMessage, 0, 0);
  }
}

void AgentPage::WaitForLookups(std::uint32_t timeout_ms) {
  if (!worker_) return;
  platform::WaitForThread(worker_, timeout_ms);
  platform::CloseThread(worker_);
  worker_ = nullptr;
}

std::intptr_t AgentPage::message(platform::Dialog& d, std::uint32_t msg, std::uintptr_t, std::intptr_t) {
  if (msg == kAgentNamesMessage) ListLines(d);
  else if (msg == kGraphClosedMessage) g_applet.helper = nullptr;
  return 0;
}

void AgentPage::ClearHistory(platform::Dialog& d) {
  if (applet_message(&d, platform::kMbYesNo | platform::kMbIconQuestion | platform::kMbTopmost, "%s",
                     kClearHistoryQuestion) != platform::kIdYes)
    return;
  agent_clear_history(g_applet.target);
  cache_.fill(0);   // names that arrive later list from the cleared value, not the old one
  d.ClearItems(IDC_HISTORY);
  UpdateControls(d);
}

void AgentPage::ShowGraph(platform::Dialog& d) {
  const std::string path = agent_drift_path(g_applet.target);
  if (g_applet.helper && g_applet.helper->Exists()) {
    g_applet.helper->BringToFront();
    return;
  }
  g_applet.helper = OpenDriftGraph(g_applet.module, &d, true, 0, g_w32t_env.system_dir, path.c_str());
}

platform::StaticColours AgentPage::static_colours(platform::Dialog&, int id) {
  return id == IDC_LINK ? applet_link_colours() : platform::StaticColours{};
}

void AgentPage::destroyed(platform::Dialog&) {
  {
    std::lock_guard hold(names_lock_);
    stop_ = true;
    page_ = nullptr;
  }
  // A look-up that hangs on a dead name server is left behind after this wait (it posts nothing).
  WaitForLookups(defaults::kStatusThreadWaitMs);
}
