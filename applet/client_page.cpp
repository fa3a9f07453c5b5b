// The Client page.
//
// The clock status worker writes this page's status line, icon, per-row texts and "&Sync Now"
// while the page exists (g_status_page). When the page goes, the worker is stopped and waited for
// before the window's memory goes with it.
//
// While the page fills its own controls (the initialising flag), edit notifications neither mark
// the sheet changed nor ask the time service for its state: the page asks once when it is shown.
#include "applet/client_page.h"

#include <algorithm>
#include <cstring>

#include "applet/applet.h"
#include "applet/clock_status.h"
#include "config/defaults.h"
#include "config/registry.h"
#include "config/service_control.h"
#include "config/w32time.h"
#include "resources/resources.h"

namespace {

struct Row {
  int server, mode, variance, stratum;
};
constexpr Row kRows[kW32tMaxServers] = {
    {IDC_SERVER1, IDC_MODE1, IDC_VARIANCE1, IDC_STRATUM1}, {IDC_SERVER2, IDC_MODE2, IDC_VARIANCE2, IDC_STRATUM2},
    {IDC_SERVER3, IDC_MODE3, IDC_VARIANCE3, IDC_STRATUM3}, {IDC_SERVER4, IDC_MODE4, IDC_VARIANCE4, IDC_STRATUM4},
    {IDC_SERVER5, IDC_MODE5, IDC_VARIANCE5, IDC_STRATUM5}, {IDC_SERVER6, IDC_MODE6, IDC_VARIANCE6, IDC_STRATUM6}};
constexpr const char* kModeTexts[] = {"Special Interval", "Fallback Only", "Symmetric Active", "NTP Client Mode"};
constexpr std::uint32_t kModeFlags[] = {0x1, 0x2, 0x4, 0x8};
// The sync type buttons, and the controls a managing Kairon product takes away ("Disa&bled" stays).
constexpr int kSyncButtons[] = {IDC_SYNC_NOSYNC, IDC_SYNC_NT5DS, IDC_SYNC_NTP, IDC_SYNC_DISABLED, IDC_SYNC_ALLSYNC};
constexpr int kKaironLocked[] = {IDC_SYNC_NOSYNC, IDC_SYNC_NT5DS,    IDC_SYNC_NTP,    IDC_SYNC_ALLSYNC,
                                 IDC_SPECIAL_INTERVAL, IDC_SPECIAL_LABEL, IDC_SPECIAL_UNIT};
constexpr int kResyncTimer = 1;
constexpr std::uint32_t kAfterResyncFailedMs = 500;
constexpr std::uint32_t kAfterResyncMs = 17'000;
constexpr std::uint32_t kServerNameRead = 511;   // characters of a server edit read

const Row* RowOf(int id, int Row::*which) {
  for (const Row& r : kRows)
    if (r.*which == id) return &r;
  return nullptr;
}

// The client's three fields of a sync type choice.
void SetSyncFields(W32tSettings& s, std::uint32_t enabled, std::uint32_t input_provider, std::uint32_t type) {
  s.ntp_client_enabled = enabled;
  s.ntp_client_input_provider = input_provider;
  s.sync_type = type;
}

}  // namespace

std::uint32_t client_mode_flag(int position) {
  return position >= 0 && position < int(std::size(kModeFlags)) ? kModeFlags[position] : 0x1;
}

int client_mode_position(std::uint32_t flag) {
  const auto* it = std::find(std::begin(kModeFlags), std::end(kModeFlags), flag);
  return it == std::end(kModeFlags) ? 0 : int(it - std::begin(kModeFlags));
}

bool client_kairon_server_is_slave() {
  if (reg_get_bool(g_applet.reg, defaults::kKaironServerParamsKey, "Slave Mode", 0)) return true;
  std::uint8_t settings[defaults::kKaironServerSettingsSize] = {};
  if (!reg_get_binary(g_applet.reg, defaults::kKaironServerParamsKey, "Server Settings", settings, sizeof settings)) return false;
  std::uint32_t slave = 0;
  std::memcpy(&slave, settings + 4, sizeof slave);
  return slave != 0;
}

bool ClientPage::init(platform::Dialog& d) {
  initializing_ = true;
  g_status_page.store(&d);
  g_applet_client_refresh = &ClientPage::RefreshFromOtherPage;
  applet_setup_link(d);
  applet_set_sheet_title(d);
  d.SetText(IDC_TITLE, applet_version_line());
  for (const Row& r : kRows) {
    d.ClearItems(r.mode);
    for (const char* text : kModeTexts) d.AddItem(r.mode, text);
  }
  W32tSettings& s = g_applet.settings;
  const std::uint32_t product = g_w32t_env.installed_product;
  bool locked = false;
  if (product == kProductNone) {
    d.SetText(IDC_CLIENT_NOTE, kClientNote);
  } else if (product == kProductKaironServer) {
    locked = client_kairon_server_is_slave();
    d.SetText(IDC_CLIENT_NOTE, locked ? kClientNoteKaironSlave : kClientNoteKaironServer);
  } else {
    locked = true;
    d.SetText(IDC_CLIENT_NOTE, kClientNoteKaironClient);
  }
  for (int id : kKaironLocked) d.Enable(id, !locked);
  // A product that manages the clock leaves the time service enabled but not managing it; the sheet
  // is marked changed so that Apply writes that, even though the user touched nothing.
  if (locked && (s.ntp_client_enabled != 0 || s.ntp_client_input_provider != 0 || s.sync_type != kW32tNoSync)) {
    SetSyncFields(s, 0, 0, kW32tNoSync);
    applet_mark_changed(d);
  }
  if (g_applet.status_thread) platform::ResumeThread(g_applet.status_thread);
  initializing_ = false;
  return true;
}

void ClientPage::Read(platform::Dialog& d) {
  W32tSettings& s = g_applet.settings;
  if (d.Checked(IDC_SYNC_DISABLED)) SetSyncFields(s, 0, 0, kW32tNoSync);
  else if (d.Checked(IDC_SYNC_NOSYNC)) SetSyncFields(s, 1, 0, kW32tNoSync);
  else if (d.Checked(IDC_SYNC_NT5DS)) SetSyncFields(s, 1, 1, kW32tNt5ds);
  else if (d.Checked(IDC_SYNC_ALLSYNC)) SetSyncFields(s, 1, 1, kW32tAllSync);
  else SetSyncFields(s, 1, 1, kW32tNtp);
  // Empty rows are squeezed out; the servers keep their row order.
  s.server_count = 0;
  for (std::uint32_t row = 0; row < kW32tMaxServers; ++row) {
    s.servers[row].name[0] = '\0';
    s.servers[row].flags = 0x1;
    const std::string name = applet_trimmed(d.Text(kRows[row].server), kServerNameRead);
    if (name.empty()) continue;
    W32tServer& entry = s.servers[s.server_count++];
    std::memset(entry.name, 0, sizeof entry.name);
    std::memcpy(entry.name, name.data(), std::min(name.size(), sizeof entry.name - 1));
    entry.flags = client_mode_flag(d.Selection(kRows[row].mode));
  }
  // The Windows 2000 page has no special interval: the record keeps its own.
  if (d.HasControl(IDC_SPECIAL_INTERVAL)) {
    const auto interval = static_cast<std::int32_t>(d.Number(IDC_SPECIAL_INTERVAL));
    s.ntp_client_poll_interval = interval < 1 ? 1u : static_cast<std::uint32_t>(interval);
  }
}

void ClientPage::Show(platform::Dialog& d) {
  const W32tSettings& s = g_applet.settings;
  // The Windows 2000 page has no "Disabled": there the client cannot be turned off, and the record
  // read at that level leaves "ntp client enabled" at 0, which must not hide the sync type.
  const bool enabled = s.ntp_client_enabled != 0 || !d.HasControl(IDC_SYNC_DISABLED);
  d.SetChecked(IDC_SYNC_DISABLED, !enabled);
  d.SetChecked(IDC_SYNC_NOSYNC, enabled && s.sync_type == kW32tNoSync);
  d.SetChecked(IDC_SYNC_NT5DS, enabled && s.sync_type == kW32tNt5ds);
  d.SetChecked(IDC_SYNC_ALLSYNC, enabled && s.sync_type == kW32tAllSync);
  d.SetChecked(IDC_SYNC_NTP, enabled && s.sync_type == kW32tNtp);
  d.SetNumber(IDC_SPECIAL_INTERVAL, s.ntp_client_poll_interval);
  for (std::uint32_t row = 0; row < kW32tMaxServers; ++row) {
    d.SetText(kRows[row].server, s.servers[row].name);
    d.Select(kRows[row].mode, client_mode_position(s.servers[row].flags));
  }
  UpdateEnabling(d);
}

void ClientPage::UpdateEnabling(platform::Dialog& d) {
  const bool servers = d.Checked(IDC_SYNC_ALLSYNC) || d.Checked(IDC_SYNC_NTP);
  for (const Row& r : kRows) {
    d.Enable(r.server, servers);
    d.Enable(r.mode, servers && WindowHasText(d, r.server));
  }
  for (int id : {IDC_SPECIAL_INTERVAL, IDC_SPECIAL_LABEL, IDC_SPECIAL_UNIT}) d.Enable(id, servers);
}

void ClientPage::Changed(platform::Dialog& d) {
  if (!initializing_) applet_mark_changed(d);
}

// The time source first: "&Sync Now" is judged by its text ("Please wait...." keeps it off).
void ClientPage::RefreshSource(platform::Dialog& d) {
  ShowCurrentTimeSource(d);
  UpdateSyncNowButton(d);
}

void ClientPage::RefreshFromOtherPage(bool time_source) {
  platform::Dialog* page = g_status_page.load();
  if (!page) return;
  if (time_source) ShowCurrentTimeSource(*page);
  UpdateSyncNowButton(*page);
}

bool ClientPage::command(platform::Dialog& d, int id, int code) {
  if (std::find(std::begin(kSyncButtons), std::end(kSyncButtons), id) != std::end(kSyncButtons)) {
    if (code != platform::kBnClicked) return false;
    RefreshSource(d);
    Changed(d);
    UpdateEnabling(d);
  } else if (const Row* row = RowOf(id, &Row::server)) {
    if (!initializing_) RefreshSource(d);
    if (code == platform::kEnSetFocus || code == platform::kEnKillFocus) {
      const bool leaving = code == platform::kEnKillFocus;
      for (int text : {row->variance, row->stratum}) {
        d.SetText(text, "");
        d.Enable(text, leaving);
      }
    } else if (code == platform::kEnUpdate) {
      Changed(d);
      d.Enable(row->mode, WindowHasText(d, row->server));
    }
  } else if (RowOf(id, &Row::mode)) {
    if (code == platform::kCbnSelChange) Changed(d);
  } else if (id == IDC_SPECIAL_INTERVAL) {
    if (code == platform::kEnUpdate) Changed(d);
  } else if (id == IDC_LINK) {
    applet_open_help("clienttab");
  } else if (id == IDC_SYNC_NOW) {
    SyncNow(d);
  } else {
    return false;
  }
  return true;
}

void ClientPage::SyncNow(platform::Dialog& d) {
  std::uint32_t result = 0;
  int answer = platform::kIdNo;
  if (d.SheetChanged())
    answer = applet_message(&d, platform::kMbYesNoCancel | platform::kMbIconQuestion, "%s", kApplyBeforeResyncQuestion);
  if (answer == platform::kIdCancel) return;
  if (answer == platform::kIdYes) {
    // The apply step saves the record and itself asks for the resynchronization.
    initializing_ = true;
    Read(d);
    result = static_cast<std::uint32_t>(applet_apply(d));
    Show(d);
    initializing_ = false;
  } else {
    result = g_applet_services.resync(&d, g_applet.target, 0, kResyncHard);
  }
  d.Enable(IDC_SYNC_NOW, false);
  d.SetText(IDC_TIME_SOURCE, "Please wait....");
  if (result)
    applet_message(&d, platform::kMbIconExclamation | platform::kMbTaskModal | platform::kMbTopmost, "%s", kResyncFailed);
  else
    applet_message(&d, 0, "%s", kResyncAccepted);
  d.SetTimer(kResyncTimer, result ? kAfterResyncFailedMs : kAfterResyncMs);
}

void ClientPage::timer(platform::Dialog& d, int timer_id) {
  if (timer_id != kResyncTimer) return;
  d.KillTimer(kResyncTimer);
  RefreshSource(d);
}

std::intptr_t ClientPage::notify(platform::Dialog& d, int code) {
  switch (code) {
    case platform::kPsnSetActive:
      initializing_ = true;
      Show(d);
      RefreshSource(d);
      if (g_applet.status_check) platform::SetEvent(g_applet.status_check);
      initializing_ = false;
      break;
    case platform::kPsnKillActive:
      Read(d);
      break;
    case platform::kPsnApply:
      return applet_apply_notification(d);
  }
  return 0;
}

platform::StaticColours ClientPage::static_colours(platform::Dialog&, int id) {
  return id == IDC_LINK ? applet_link_colours() : platform::StaticColours{};
}

void ClientPage::destroyed(platform::Dialog& d) {
  platform::Dialog* self = &d;
  if (!g_status_page.compare_exchange_strong(self, nullptr)) return;
  g_applet_client_refresh = nullptr;
  // The worker may be in the middle of a check that writes to this window: it ends first (its
  // writes are answered meanwhile, so that it can get to its next look at the stop event).
  if (g_applet.status_thread && g_applet.status_stop) {
    platform::SetEvent(g_applet.status_stop);
    platform::WaitForThreadAnsweringSends(g_applet.status_thread, defaults::kStatusThreadWaitMs);
  }
}
