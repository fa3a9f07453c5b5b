// The Service page.
#include "applet/service_page.h"

#include <algorithm>
#include <cctype>
#include <cstring>

#include "applet/applet.h"
#include "config/defaults.h"
#include "config/os_identify.h"
#include "config/service_control.h"
#include "config/w32time.h"
#include "drift/drift_graph_window.h"
#include "drift/report.h"
#include "platform/error.h"
#include "platform/error_text.h"
#include "platform/file.h"
#include "platform/sync.h"
#include "resources/resources.h"

namespace {

constexpr int kRefreshTimer = 1;
constexpr std::uint32_t kAfterControlMs = 500;   // pause between a start or stop and the status read
constexpr std::uint32_t kDefaultLogMegabytes = 3;
constexpr const char* kDefaultLogEntries = "0-300";
constexpr const char* kStop = "S&top";
constexpr const char* kStart = "S&tart";
// The log group, hidden for a Windows 2000 target.
constexpr int kLogControls[] = {IDC_LOG_GROUP,      IDC_LOG_HELP2,         IDC_LOG_PATH_LABEL, IDC_LOG_SIZE_LABEL,
                                IDC_LOG_SIZE_UNIT,  IDC_LOG_ENTRIES_LABEL, IDC_LOG_HELP1,      IDC_LOG_ENABLED,
                                IDC_LOG_PATH,       IDC_LOG_SIZE,          IDC_LOG_ENTRIES,    IDC_SHOW_LOG};

bool Win2000() { return g_w32t_env.level == kOsWin2000; }

void CopyText(char* to, std::size_t size, const std::string& text) {
  std::memset(to, 0, size);
  std::memcpy(to, text.data(), std::min(text.size(), size - 1));
}

}  // namespace

int service_start_position(std::uint32_t start_type) { return start_type == 2 ? 1 : start_type == 3 ? 2 : 0; }
std::uint32_t service_start_type(int position) { return position == 1 ? 2 : position == 2 ? 3 : 4; }

std::string service_default_log_path(const char* system_dir) {
  const std::string dir = system_dir ? system_dir : "";
  if (dir.size() >= 2 && std::isalpha(static_cast<unsigned char>(dir[0])) && dir[1] == ':')
    return std::string(1, dir[0]) + ":\\w32time.log";
  // No drive: the folder above the system directory (the machine root) stands for the drive's root.
  std::string root = dir;
  while (!root.empty() && (root.back() == '/' || root.back() == '\\')) root.pop_back();
  const auto cut = root.find_last_of("/\\");
  root = cut == std::string::npos ? std::string() : root.substr(0, cut);
  return root + "/w32time.log";
}

std::string service_log_read_path(const char* machine, const std::string& path) {
  if (!machine || !*machine) return path;
  while (*machine == '\\') ++machine;
  std::string share = path;
  if (share.size() > 1 && share[1] == ':') share[1] = '$';
  return "\\\\" + std::string(machine) + "\\" + share;
}

std::string service_status_text(const char* machine, bool running) {
  return std::string("The Windows Time service on ") + (machine && *machine ? machine : g_w32t_env.computer_name) +
         " is " + (running ? "running" : "stopped");
}

bool ServicePage::init(platform::Dialog& d) {
  initializing_ = true;
  applet_setup_link(d);
  const W32tSettings& s = g_applet.settings;
  d.ClearItems(IDC_START_TYPE);
  for (const char* item : {"Disabled", "Automatic", "Manual"}) d.AddItem(IDC_START_TYPE, item);
  d.Select(IDC_START_TYPE, service_start_position(s.service_start));
  if (!Win2000()) {
    d.SetChecked(IDC_LOG_ENABLED, s.file_logging_on != 0);
    d.SetText(IDC_LOG_PATH, s.file_log_name);
    d.SetText(IDC_LOG_ENTRIES, s.file_log_entries);
    d.SetNumber(IDC_LOG_SIZE, s.file_log_size >> 20);
  } else {
    for (int id : kLogControls) d.Show(id, false);
  }
  ApplyLogDefaults(d);
  RefreshStatus(d);
  initializing_ = false;
  return true;
}

void ServicePage::ApplyLogDefaults(platform::Dialog& d) {
  if (d.Number(IDC_LOG_SIZE) == 0) d.SetNumber(IDC_LOG_SIZE, kDefaultLogMegabytes);
  if (applet_trimmed(d.Text(IDC_LOG_PATH)).empty())
    d.SetText(IDC_LOG_PATH, service_default_log_path(g_w32t_env.system_dir));
  if (applet_trimmed(d.Text(IDC_LOG_ENTRIES)).empty()) d.SetText(IDC_LOG_ENTRIES, kDefaultLogEntries);
  const bool on = d.Checked(IDC_LOG_ENABLED);
  for (int id : {IDC_LOG_PATH, IDC_LOG_SIZE, IDC_LOG_ENTRIES, IDC_SHOW_LOG}) d.Enable(id, on);
}

void ServicePage::RefreshStatus(platform::Dialog& d) {
  const bool running = g_applet_services.control(&d, g_applet.target, kServiceOpQuery, 0) != 0;
  const std::string text = service_status_text(g_applet.target, running);
  if (d.Text(IDC_SERVICE_STATUS) != text) d.SetText(IDC_SERVICE_STATUS, text);
  const char* caption = running ? kStop : kStart;
  if (d.Text(IDC_START_STOP) != caption) d.SetText(IDC_START_STOP, caption);
}

void ServicePage::Changed(platform::Dialog& d) {
  if (!initializing_) applet_mark_changed(d);
}

void ServicePage::StartStop(platform::Dialog& d) {
  applet_wait_cursor(1);
  if (d.Text(IDC_START_STOP) == kStop) {
    g_applet_services.control(&d, g_applet.target, kServiceOpStop, 1);
  } else {
    if (d.Selection(IDC_START_TYPE) == 0) d.Select(IDC_START_TYPE, 1);
    g_applet_services.control(&d, g_applet.target, kServiceOpStart, 1);
  }
  platform::Sleep(kAfterControlMs);
  RefreshStatus(d);
  if (g_applet_client_refresh) g_applet_client_refresh(!Win2000());
  applet_wait_cursor(0);
}

void ServicePage::ShowLog(platform::Dialog& d) {
  const std::string path = service_log_read_path(g_applet.target, applet_trimmed(d.Text(IDC_LOG_PATH)));
  platform::FileHandle f = platform::FileCreate(path, platform::kGenericRead,
                                                platform::kShareRead | platform::kShareWrite, platform::kOpenExisting, 0);
  if (f) {
    platform::FileClose(f);
    const DriftUi ui = DriftUiFor(d);
    OpenInNotepad(&ui, path.c_str(), false);
    return;
  }
  const std::uint32_t err = platform::LastError();
  if (err == platform::kErrorFileNotFound)
    applet_message(&d, 0,
                   "The log file \"%s\" was not found. If you have just enabled logging, remember that you have to stop "
                   "and restart the Windows Time service before your changes take effect. Otherwise, check the Event "
                   "Viewer for error messages related to creating the log file.",
                   path.c_str());
  else if (err == platform::kErrorPathNotFound)
    applet_message(&d, 0,
                   "The path for \"%s\" was not found. Check your typing (or create the folder if necessary), and then "
                   "stop and restart the Windows Time service.",
                   path.c_str());
  else {
    char text[256];
    applet_message(&d, 0, "Unable to open %s; %s", path.c_str(), SystemErrorText(err, text, sizeof text));
  }
}

bool ServicePage::command(platform::Dialog& d, int id, int code) {
  switch (id) {
    case IDC_START_TYPE:
      if (code == platform::kCbnSelChange) Changed(d);
      return true;
    case IDC_START_STOP:
      if (code == platform::kBnClicked) StartStop(d);
      return true;
    case IDC_LOG_ENABLED:
      if (code == platform::kBnClicked && !Win2000()) {
        ApplyLogDefaults(d);
        Changed(d);
      }
      return true;
    case IDC_LOG_PATH:
    case IDC_LOG_SIZE:
    case IDC_LOG_ENTRIES:
      if (code == platform::kEnChange && !Win2000()) Changed(d);
      return true;
    case IDC_SHOW_LOG:
      if (code == platform::kBnClicked && !Win2000()) ShowLog(d);
      return true;
    case IDC_LINK:
      applet_open_help("servicetab");
      return true;
    default:
      return false;
  }
}

std::intptr_t ServicePage::notify(platform::Dialog& d, int code) {
  W32tSettings& s = g_applet.settings;
  switch (code) {
    case platform::kPsnSetActive:
      RefreshStatus(d);
      d.SetTimer(kRefreshTimer, defaults::kPageRefreshMs);
      return 0;
    case platform::kPsnKillActive:
      d.KillTimer(kRefreshTimer);
      s.service_start = service_start_type(d.Selection(IDC_START_TYPE));
      if (!Win2000()) {
        s.file_logging_on = d.Checked(IDC_LOG_ENABLED) ? 1 : 0;
        if (s.file_logging_on) {
          s.file_log_size = d.Number(IDC_LOG_SIZE) << 20;
          CopyText(s.file_log_name, sizeof s.file_log_name, applet_trimmed(d.Text(IDC_LOG_PATH), 128));
          CopyText(s.file_log_entries, sizeof s.file_log_entries, applet_trimmed(d.Text(IDC_LOG_ENTRIES), 64));
          // Incomplete log settings turn the log off without a word.
          if (s.file_log_size == 0 || !s.file_log_name[0] || !s.file_log_entries[0]) s.file_logging_on = 0;
        }
      }
      return 0;
    case platform::kPsnApply:
      return applet_apply_notification(d);
    default:
      return 0;
  }
}

void ServicePage::timer(platform::Dialog& d, int timer_id) {
  if (timer_id == kRefreshTimer) RefreshStatus(d);
}

platform::StaticColours ServicePage::static_colours(platform::Dialog&, int id) {
  return id == IDC_LINK ? applet_link_colours() : platform::StaticColours{};
}
