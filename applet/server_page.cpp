// The Server page and its NTP server test.
#include "applet/server_page.h"

#include "applet/applet.h"
#include "applet/clock_status.h"
#include "config/defaults.h"
#include "config/os_identify.h"
#include "config/w32time.h"
#include "platform/error.h"
#include "platform/error_text.h"
#include "platform/sync.h"
#include "resources/resources.h"
#include "timing/ntp_client.h"

namespace {

// "AnnounceFlags" bits.
constexpr std::uint32_t kAnnounceServer = 1, kAnnounceAutoServer = 2, kAnnounceReliable = 4, kAnnounceAutoReliable = 8;
constexpr const char* kTesting = "Testing...Please wait...";
constexpr int kServingRadios[] = {IDC_SERVE_DISABLED, IDC_SERVE_ENABLED, IDC_SERVE_AUTO};
constexpr int kReliableRadios[] = {IDC_RELIABLE_NEVER, IDC_RELIABLE_ALWAYS, IDC_RELIABLE_AUTO};

bool Win2000() { return g_w32t_env.level == kOsWin2000; }
bool KaironServerInstalled() { return g_w32t_env.installed_product == kProductKaironServer; }

}  // namespace

ServerTestResult server_test(const char* host, int client_icon, std::uint32_t pause_ms) {
  const std::string name = host && *host ? host : g_w32t_env.computer_name;
  const NtpResult r = NtpQuery({.server = name.c_str(), .timeout_ms = defaults::kNtpTimeoutMs});
  if (!r.valid) {
    const std::string text = "Unable to get the time from " + name + ". ";
    if (r.error == std::uint32_t(platform::kNtpErrorClockNotSet)) {
      platform::Sleep(pause_ms);
      return {IDI_STATUS_OFF, text +
                                  "The server responded to the NTP query, but it reports that it does not know the "
                                  "correct time. This usually means that the NTP client has failed to synchronize (or "
                                  "is in the middle of synchronizing) the clock."};
    }
    return {IDI_STATUS_BAD, text + "A socket error occurred: " + LastSocketErrorText()};
  }
  platform::Sleep(pause_ms);
  // The reference identifier: a primary server's four characters, else the upstream's address.
  const std::string text =
      applet_trimmed(name + " provided a valid timestamp, and it believes the time to be correct. The NTP stratum "
                            "reported was " + std::to_string(r.stratum) + ", and the time source was " +
                     NtpReferenceIdText(r)) + ". ";
  switch (client_icon) {
    case IDI_STATUS_BAD: return {IDI_STATUS_BAD, text + "HOWEVER, the time being served is WRONG."};
    case IDI_STATUS_OFF: return {IDI_STATUS_OFF, text + "HOWEVER, the time is not well-synchronized."};
    case IDI_STATUS_SYNCED: return {IDI_STATUS_SYNCED, text + "The time being served appears relatively accurate."};
    default: return {IDI_STATUS_OFF, text + "The time being served cannot be verified with listed sources."};
  }
}

bool ServerPage::init(platform::Dialog& d) {
  warn_ = g_applet.settings.ntp_server_enabled == 0;
  // The header under the icon is the product line, as on the Client page: every page of the sheet
  // that has the header says the same thing, whichever tab is open.
  d.SetText(IDC_TITLE, applet_version_line());
  applet_setup_link(d);
  for (int id : {IDC_SERVE_DISABLED, IDC_RELIABLE_NEVER, IDC_RELIABLE_ALWAYS, IDC_RELIABLE_AUTO})
    d.Show(id, !Win2000());
  d.Show(IDC_RELIABLE_W2K, Win2000());
  d.SetText(IDC_SERVE_DISABLED, !KaironServerInstalled()    ? "&Disabled"
                                : w32t_kairon_serves_ntp(g_applet.reg) ? "&Disabled - Let Kairon II serve NTP time"
                                : "&Disabled - The Windows Time NtpClient owns port UDP/123");
  return true;
}

void ServerPage::UpdateEnabling(platform::Dialog& d) {
  const bool serving = !d.Checked(IDC_SERVE_DISABLED);
  for (int id : kReliableRadios) d.Enable(id, serving);
  for (int id : {IDC_TEST_SERVER, IDC_TEST_RESULT}) d.Enable(id, serving || KaironServerInstalled());
}

void ServerPage::Show(platform::Dialog& d) {
  const W32tSettings& s = g_applet.settings;
  d.SetChecked(IDC_NET_TIME, s.lanman_time_source != 0);
  if (Win2000()) {
    d.SetChecked(IDC_RELIABLE_W2K, s.reliable_time_source != 0);
    d.SetChecked(IDC_SERVE_ENABLED, s.local_ntp != 0);
    d.SetChecked(IDC_SERVE_AUTO, s.local_ntp == 0);
    return;
  }
  for (int id : kServingRadios) d.SetChecked(id, false);
  for (int id : kReliableRadios) d.SetChecked(id, false);
  const std::uint32_t flags = s.ntp_server_enabled ? s.announce_flags : 0;
  d.SetChecked(flags & kAnnounceServer       ? IDC_SERVE_ENABLED
               : flags & kAnnounceAutoServer ? IDC_SERVE_AUTO
                                             : IDC_SERVE_DISABLED,
               true);
  d.SetChecked(flags & kAnnounceReliable       ? IDC_RELIABLE_ALWAYS
               : flags & kAnnounceAutoReliable ? IDC_RELIABLE_AUTO
                                               : IDC_RELIABLE_NEVER,
               true);
  UpdateEnabling(d);
}

void ServerPage::Read(platform::Dialog& d) {
  W32tSettings& s = g_applet.settings;
  s.lanman_time_source = d.Checked(IDC_NET_TIME) ? 1 : 0;
  if (Win2000()) {
    s.local_ntp = d.Checked(IDC_SERVE_ENABLED) ? 1 : 0;
    s.reliable_time_source = d.Checked(IDC_RELIABLE_W2K) ? 1 : 0;
    return;
  }
  if (d.Checked(IDC_SERVE_DISABLED)) {
    s.announce_flags = 0;
    s.ntp_server_enabled = 0;
    return;
  }
  s.ntp_server_enabled = 1;
  s.announce_flags = (d.Checked(IDC_SERVE_ENABLED) ? kAnnounceServer : kAnnounceAutoServer) |
                     (d.Checked(IDC_RELIABLE_ALWAYS) ? kAnnounceReliable
                      : d.Checked(IDC_RELIABLE_AUTO) ? kAnnounceAutoReliable
                                                     : 0);
}

// A radio of either group. Switching the NTP server on while Kairon II serves NTP asks first, once
// per page; a refusal puts the check back on "Disabled".
void ServerPage::RadioClicked(platform::Dialog& d, int id) {
  if (!Win2000()) {
    const bool enabling = id == IDC_SERVE_ENABLED || id == IDC_SERVE_AUTO;
    if (enabling && warn_ && w32t_kairon_serves_ntp(g_applet.reg) &&
        applet_message(&d, platform::kMbYesNo | platform::kMbIconQuestion, "%s", kServerTakeoverQuestion) !=
            platform::kIdYes) {
      d.SetChecked(id, false);
      d.SetChecked(IDC_SERVE_DISABLED, true);
      return;
    }
    if (enabling) warn_ = false;
    UpdateEnabling(d);
  }
  d.SetIcon(IDC_STATUS_ICON, IDI_STATUS_UNKNOWN, 0);
  applet_mark_changed(d);
}

void ServerPage::SetTesting(platform::Dialog& d, bool testing) {
  constexpr int kPageControls[] = {IDC_SERVE_DISABLED, IDC_SERVE_ENABLED,   IDC_SERVE_AUTO,   IDC_RELIABLE_NEVER,
                                   IDC_RELIABLE_ALWAYS, IDC_RELIABLE_AUTO, IDC_RELIABLE_W2K, IDC_NET_TIME,
                                   IDC_TEST_SERVER,    IDC_TEST_RESULT,   IDC_LINK};
  for (int id : kPageControls)
    if (d.HasControl(id)) d.Enable(id, !testing);
  if (!testing) UpdateEnabling(d);
}

void ServerPage::Test(platform::Dialog& d) {
  SetTesting(d, true);
  applet_wait_cursor(1);
  d.SetIcon(IDC_STATUS_ICON, IDI_STATUS_UNKNOWN, 0);
  d.SetText(IDC_TEST_RESULT, kTesting);
  const platform::Dialog* client = g_status_page.load();
  const ServerTestResult result = server_test(g_applet.target, client ? client->Icon(IDC_STATUS_ICON) : 0);
  d.SetIcon(IDC_STATUS_ICON, result.icon, 0);
  d.SetText(IDC_TEST_RESULT, result.text);
  applet_wait_cursor(0);
  SetTesting(d, false);
}

bool ServerPage::command(platform::Dialog& d, int id, int code) {
  switch (id) {
    case IDC_SERVE_DISABLED:
    case IDC_SERVE_ENABLED:
    case IDC_SERVE_AUTO:
    case IDC_RELIABLE_NEVER:
    case IDC_RELIABLE_ALWAYS:
    case IDC_RELIABLE_AUTO:
      if (code == platform::kBnClicked) RadioClicked(d, id);
      return true;
    case IDC_RELIABLE_W2K:
      if (code == platform::kBnClicked) applet_mark_changed(d);
      return true;
    case IDC_NET_TIME:   // taken when the page is left; by itself no change to apply
      return true;
    case IDC_TEST_SERVER:
      if (code == platform::kBnClicked) Test(d);
      return true;
    case IDC_LINK:
      applet_open_help("servertab");
      return true;
    default:
      return false;
  }
}

std::intptr_t ServerPage::notify(platform::Dialog& d, int code) {
  switch (code) {
    case platform::kPsnSetActive:
      Show(d);
      return 0;
    case platform::kPsnKillActive:
      Read(d);
      return 0;
    case platform::kPsnApply:
      return applet_apply_notification(d);
    default:
      return 0;
  }
}

platform::StaticColours ServerPage::static_colours(platform::Dialog&, int id) {
  return id == IDC_LINK ? applet_link_colours() : platform::StaticColours{};
}
