// The applet's entry, launch and shared helpers.
#include "applet/applet.h"

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "config/chrony_sources.h"
#include "config/defaults.h"
#include "config/os_identify.h"
#include "config/registry.h"
#include "config/service_control.h"
#include "drift/report.h"
#include "platform/clock.h"
#include "platform/error.h"
#include "platform/error_text.h"
#include "platform/machine.h"
#include "platform/net.h"
#include "platform/text.h"
#include "resources/resources.h"

AppletState g_applet;
platform::ThreadFunction g_status_thread_fn = nullptr;

namespace {

using defaults::kProviderKey;
constexpr const char* kAccessTestKey = "\\\\System\\CurrentControlSet\\Services\\LanmanServer";
constexpr const char* kAccessTestShownKey = defaults::kW32TimeParametersKey;
constexpr std::uint32_t kDefaultStyle = 0x42040;   // information icon, task-modal, topmost

// Service control messages go through the applet's message box (and so obey the quiet flag).
void service_message(void* owner, const char* text, const char*, std::uint32_t style) {
  applet_message(static_cast<platform::Dialog*>(owner), style, "%s", text);
}
ServiceOwner owner_of(platform::Dialog* d) { return ServiceOwner{d, service_message}; }
// Install's and remove's messages likewise.
void install_message(platform::Dialog* owner, std::uint32_t style, const char* text) {
  applet_message(owner, style, "%s", text);
}

int real_control(platform::Dialog* owner, const char* machine, std::uint32_t code, std::uint32_t show_error) {
  ServiceOwner o = owner_of(owner);
  return ControlTimeService(&o, machine, code, show_error);
}
int real_restart(platform::Dialog* owner, const char* machine, const char* service) {
  ServiceOwner o = owner_of(owner);
  return RestartService(&o, machine, service);
}
std::uint32_t real_resync(platform::Dialog* owner, const char* machine, std::uint32_t wait, std::uint32_t flags) {
  ServiceOwner o = owner_of(owner);
  return TriggerResync(&o, machine, wait, flags);
}

// The machine name without leading backslashes.
const char* bare_name(const char* name) {
  while (*name == '\\') ++name;
  return name;
}

// This computer under any of its names is the local machine ("" target).
void forget_own_name() {
  if (platform::EqualsNoCase(bare_name(g_applet.target), g_w32t_env.computer_name)) g_applet.target[0] = '\0';
}

std::string error_text(std::uint32_t code) {
  char buf[256];
  return SystemErrorText(code, buf, sizeof buf);
}

}  // namespace

AppletServices g_applet_services{real_control, real_restart, real_resync};

InstallContext applet_install_context() {
  return InstallContext{g_applet.target, g_applet.reg, g_applet.target_type, g_applet.quiet != 0, g_applet_services.control,
                        install_message};
}

int applet_message(platform::Dialog* owner, std::uint32_t style, const char* format, ...) {
  if (g_applet.quiet) return 1;
  char text[510];
  va_list args;
  va_start(args, format);
  std::vsnprintf(text, sizeof text, format, args);
  va_end(args);
  return platform::ShowMessageBox(owner, text, defaults::kAppletCaption, style ? style : kDefaultStyle);
}

void applet_wait_cursor(int begin) {
  if (begin) {
    if (g_applet.wait_depth++ == 0) platform::SetSystemCursor(platform::CursorShape::Wait);
    return;
  }
  if (g_applet.wait_depth && --g_applet.wait_depth) return;
  platform::SetSystemCursor(platform::CursorShape::Arrow);
}

int applet_is_admin() {
  if (!platform::IsNtFamily()) return 1;
  if (platform::AdminShareOpens(platform::ComputerName())) return 1;
  if (platform::EnableTcbPrivilege()) return 1;
  return platform::TokenHasAdministrators() ? 1 : 0;
}

int applet_access_test(platform::Dialog*, const char* machine, const char* key, char* message) {
  char name[64];
  // Named after the tick count (milliseconds since the system started, never below 0).
  std::snprintf(name, sizeof name, "morvane-test-%u", std::uint32_t(platform::CounterMilliseconds()));
  const bool given = key && *key;
  const char* path = given ? key : kAccessTestKey;
  const char* shown = given ? key : kAccessTestShownKey;   // the texts name the Parameters key on purpose
  const char* where = machine && *machine ? machine : "this";
  message[0] = '\0';
  if (!reg_set_string(g_applet.reg, path, name, "Access Test")) {
    std::uint32_t e = platform::LastError();
    std::snprintf(message, 512, "Could not write test value to %s key on %s machine's registry; %s", shown, where,
                  error_text(e).c_str());
    platform::SetLastError(e);
    return 0;
  }
  char def[] = "";
  char* read = reg_get_string_alloc(g_applet.reg, path, name, def);
  std::uint32_t e = platform::LastError();
  bool same = read != def && std::memcmp(read, "Access Test", 12) == 0;
  reg_free_string(read, def);
  if (!same) {
    if (e == 0) e = platform::kErrorAccessDenied;
    std::snprintf(message, 512, "Could not read test value from %s key on %s machine's registry; %s", shown, where,
                  error_text(e).c_str());
    platform::SetLastError(e);
    return 0;
  }
  if (!reg_delete_value(g_applet.reg, path, name)) {
    e = platform::LastError();
    std::snprintf(message, 512, "Could not delete test value from %s key on %s machine's registry; %s", shown, where,
                  error_text(e).c_str());
    platform::SetLastError(e);
    return 0;
  }
  platform::SetLastError(0);
  return 1;
}

int applet_open_target(const char* machine) {
  applet_entry(nullptr, kCplSetMachine, reinterpret_cast<std::intptr_t>(machine), 0);
  w32t_environment_init(reg_local());
  forget_own_name();
  if (!reg_open_target(g_applet.target, g_applet.reg)) return 0;
  w32t_environment_init(g_applet.reg);
  return 1;
}

std::intptr_t applet_entry(void* window, std::uint32_t message, std::intptr_t first, std::intptr_t second) {
  switch (message) {
    case kCplInit:
      g_applet.quiet = 0;
      g_applet.target[0] = '\0';
      os_identify();
      return g_os.level >= kOsWin2000;
    case kCplGetCount:
      return g_os.level >= kOsWin2000;
    case kCplInquire: {
      auto* info = reinterpret_cast<CplInfo*>(second);
      if (info) *info = CplInfo{IDI_APPLET, IDS_APPLET_NAME, IDS_APPLET_INFO, 0};
      return 0;
    }
    case kCplDblClk:
      if (void* m = platform::FindModuleHandle(defaults::kModuleFileName)) {
        g_applet.module = m;
        platform::SetResourceModule(m);
      }
      return applet_launch(window, kCplDblClk);
    case kCplSetMachine: {
      g_applet.target[0] = '\0';
      const char* arg = reinterpret_cast<const char*>(first);
      if (!arg || !*arg) return 0;
      std::string s(arg, strnlen(arg, sizeof g_applet.target - 1));
      const char* blanks = " \t\r\n";
      std::size_t b = s.find_first_not_of(blanks), e = s.find_last_not_of(blanks);
      s = b == std::string::npos ? std::string() : s.substr(b, e - b + 1);
      for (char& c : s) c = char(std::toupper(static_cast<unsigned char>(c)));
      std::snprintf(g_applet.target, sizeof g_applet.target, "%s", s.c_str());
      return g_applet.target[0] != '\0';
    }
    case kCplInstall:
    case kCplRemove:
    case kCplSheet:
      return applet_launch(window, message);
    case kCplQuiet:
      g_applet.quiet = second ? 1 : 0;
      return 1;
    default:
      return 0;
  }
}

int applet_needs_upgrade(const char* registered, const char* mine, int service_installed) {
  if (!service_installed || !registered || !*registered) return 1;
  std::string reg(registered), me(mine);
  bool reg_release = reg.find('R') != std::string::npos, my_release = me.find('R') != std::string::npos;
  reg = reg.substr(0, reg.find('R'));
  me = me.substr(0, me.find('R'));
  int order = strcasecmp(me.c_str(), reg.c_str());
  if (my_release == reg_release) return order > 0;
  return my_release && order >= 0;   // a pre-release never replaces a release
}

int applet_sheet_pages(std::uint32_t level, int service_installed, int ids[5]) {
  int n = 0;
  ids[n++] = level == kOsWin2000 ? IDD_CLIENT_W2K : IDD_CLIENT;
  ids[n++] = IDD_SERVER;
  if (level > kOsWin2000 && service_installed) ids[n++] = IDD_AGENT;
  ids[n++] = IDD_SERVICE;
  ids[n++] = IDD_ABOUT;
  return n;
}

void applet_set_sheet_title(platform::Dialog& page) {
  char title[300];
  std::snprintf(title, sizeof title, "Windows Time Service - %s",
                g_applet.target[0] ? g_applet.target : g_w32t_env.computer_name);
  page.SetSheetTitle(title);
}

void applet_open_help(const char* subject) {
  std::string url = std::string("http://") + defaults::kDocumentationHost +
                    "/onlinehelp.asp?product=w32tmkrcpl&subject=" + subject + "&version=" + defaults::kProductVersion;
  platform::OpenWebAddress(url);
}

platform::StaticColours applet_link_colours() {
  using namespace platform;
  Colour bg = SystemColour(kColorMenu) == SystemColour(kColorBtnFace) ? SystemColour(kColorBtnFace)
                                                                      : SystemColour(kColorWindow);
  return StaticColours{true, Rgb(70, 70, 245), true, kFontLink, bg};
}

void applet_setup_link(platform::Dialog& page) {
  page.SetClassCursor(IDC_LINK, IDC_CW_LINK);
  page.SetText(IDC_LINK, defaults::kDocumentationHost);
}

std::intptr_t applet_apply(platform::Dialog& page) {
  if (!page.SheetChanged()) return 0;
  page.SetSheetChanged(false);
  applet_wait_cursor(1);
  W32tSettings& s = g_applet.settings;
  const char* target = g_applet.target;
  // A store that refuses the settings keeps the sheet changed and says so; the service is not told.
  g_applet.save_status = w32t_save(g_applet.reg, s, 1);
  if (g_applet.save_status) {
    page.SetSheetChanged(true);
    applet_wait_cursor(0);
    applet_message(&page, 0x10, "Could not save the time service settings on %s; %s",
                   target[0] ? target : g_w32t_env.computer_name, error_text(g_applet.save_status).c_str());
    return std::intptr_t(g_applet.save_status);
  }
  // On the local machine the NTP client (chrony on Linux) takes the servers at once.
  if (!target[0] && !chrony_apply_settings(s))
    applet_message(&page, 0x30, "The NTP client did not take the time servers; %s",
                   error_text(platform::LastError()).c_str());
  std::intptr_t result = 0;
  if (g_w32t_env.installed_product == kProductKaironServer && s.ntp_server_enabled && w32t_kairon_serves_ntp(g_applet.reg)) {
    reg_set_bool(g_applet.reg, defaults::kKaironProtocolsKey, ProtocolName(1), 0);
    reg_set_bool(g_applet.reg, defaults::kKaironServerParamsKey, "Skip Splash Once", 1);
    g_applet_services.control(&page, target, kServiceOpStop, 0);
    g_applet_services.restart(&page, target, "Kairon Server");
    g_applet_services.control(&page, target, kServiceOpStart, 1);
  } else if (g_applet_services.control(&page, target, kServiceOpQuery, 0)) {
    if (g_w32t_env.level != kOsWin2000) g_applet_services.control(&page, target, kServiceParamChange, 1);
    else g_applet_services.restart(&page, target, "W32Time");
    result = std::intptr_t(g_applet_services.resync(&page, target, 0, kResyncHard));
  }
  applet_wait_cursor(0);
  page.NotifySheet(false);
  return result;
}

std::intptr_t applet_apply_notification(platform::Dialog& page) {
  applet_apply(page);
  // Saved: the sheet may close, whatever the resync said. Not saved: the page stays open.
  return g_applet.save_status ? platform::kPsnRetInvalidNoChangePage : 0;
}

namespace {

// A store that cannot be read (damaged, refused): its error, where pages of defaults would be.
void settings_unreadable(const char* machine, std::uint32_t status) {
  applet_message(nullptr, 0, "Could not read the time service settings from %s machine's registry; %s", machine,
                 error_text(status).c_str());
}

// Runs the sheet of a launch: status worker, settings, silent upgrade, pages.
std::intptr_t run_sheet(void* window, std::uint32_t mode, bool remote) {
  using namespace platform;
  g_applet.win2k_target = g_os.level > kOsWin2000 && remote && g_applet.target_level == kOsWin2000;
  if (remote) {
    g_w32t_env.level = g_applet.target_level;
    g_w32t_env.installed_product = w32t_installed_product(g_applet.reg);
  }
  W32tSettings& s = g_applet.settings;
  // Settings that cannot be read are said so, never shown as pages of defaults.
  if (const std::uint32_t st = w32t_load(g_applet.reg, s)) {
    settings_unreadable(remote ? g_applet.target : "this", st);
    SetLastError(st);
    return 0;
  }
  g_applet.status_stop = CreateSyncEvent(true, false);
  g_applet.status_check = CreateSyncEvent(false, false);
  g_applet.status_thread = g_status_thread_fn ? CreateThreadSuspended(g_status_thread_fn, nullptr) : nullptr;
  char registered[32];
  reg_get_string(g_applet.reg, kProviderKey, "Current Version", registered, sizeof registered, "");
  if (mode == kCplDblClk && g_w32t_env.level > kOsWin2000 &&
      applet_needs_upgrade(registered, defaults::kProductVersion, int(s.service_installed))) {
    int quiet = g_applet.quiet;
    g_applet.quiet = 1;
    int installed = InstallModule(applet_install_context(), nullptr);
    g_applet.quiet = quiet;
    if (installed) {
      w32t_load(g_applet.reg, s);
      w32t_apply_coexistence(g_applet.reg, s);
      // A store that refuses it: the pages show what was loaded, and Apply says what failed.
      if (!w32t_save(g_applet.reg, s, 1) && !remote) (void)chrony_apply_settings(s);   // this machine's NTP client, as Apply does
      g_applet_services.restart(nullptr, g_applet.target, "W32Time");
    }
  }
  // The pages, in order.
  int ids[5];
  int count = applet_sheet_pages(g_w32t_env.level, int(s.service_installed), ids);
  std::vector<SheetPage> pages;
  std::memset(g_applet.pages_shown, 0, sizeof g_applet.pages_shown);
  for (int i = 0; i < count; ++i) {
    pages.push_back({ids[i], &applet_page_logic(ids[i])});
    g_applet.pages_shown[i] = std::uint32_t(ids[i]);
  }
  SheetSpec spec{defaults::kAppletCaption, pages, "&OK", "&Cancel", true};
  (void)window;
  std::intptr_t shown = RunPropertySheet(spec, nullptr);
  std::uint32_t err = shown < 0 ? LastError() : 0;
  if (g_applet.helper && g_applet.helper->Exists()) g_applet.helper->End(0);
  g_applet.helper = nullptr;
  g_applet.sheet_page = nullptr;
  if (g_applet.status_thread) ResumeThread(g_applet.status_thread);
  SetEvent(g_applet.status_stop);
  if (g_applet.status_thread) {
    WaitForThread(g_applet.status_thread, defaults::kStatusThreadWaitMs);
    CloseThread(g_applet.status_thread);
  }
  CloseEvent(g_applet.status_stop);
  CloseEvent(g_applet.status_check);
  g_applet.status_thread = nullptr;
  g_applet.status_stop = g_applet.status_check = nullptr;
  SetLastError(err);
  return shown >= 0 ? 1 : 0;
}

// The launch's steps. Each says what stops the launch and leaves its code in err (false: stop).

bool check_administrator(std::uint32_t& err) {
  if (applet_is_admin()) return true;
  err = platform::kErrorAccessDenied;
  applet_message(nullptr, 0, "Sorry, you must have administrative privileges in order to run this applet.");
  return false;
}

// The target's OS level and server type: a remote target's from its server information.
bool identify_target(bool remote, std::uint32_t& err) {
  platform::ServerInfo info{};
  if (!remote) {
    g_applet.target_level = g_os.level;
    g_applet.target_type = platform::GetServerInfo("", info) == 0 ? info.type : 4097;
    return true;
  }
  if (std::uint32_t st = platform::GetServerInfo(bare_name(g_applet.target), info)) {
    err = st;
    applet_message(nullptr, 0, "Could not retrieve operating system version information for %s; %s", g_applet.target,
                   error_text(st).c_str());
    return false;
  }
  g_applet.target_type = info.type;
  g_applet.target_level = os_level_from_server(info.type, info.major, info.minor);
  return true;
}

// Both systems are Windows 2000 or later, and this process is native to its system.
bool check_systems(const char* name, std::uint32_t& err) {
  char text[512];
  if (g_os.level < kOsWin2000)
    applet_message(nullptr, 0, "This program requires Windows 2000 or later. This machine is %s.", os_local_text(text, sizeof text));
  else if (g_applet.target_level < kOsWin2000)
    applet_message(nullptr, 0, "This program requires Windows 2000 or later. %s appears to be %s.", name,
                   os_remote_text(kArchNoPrefix1, g_applet.target_level, text, sizeof text));
  else if (os_is_wow64())
    applet_message(nullptr, 0,
                   "You have launched the 32-bit version of this program, but you are running a 64-bit operating "
                   "system.\r\nPlease use the 64-bit version instead.");
  else
    return true;
  err = platform::kErrorUnsupported;
  return false;
}

bool start_winsock(bool& winsock, std::uint32_t& err) {
  if (int st = platform::NetStartup()) {
    char text[512];
    err = std::uint32_t(st);
    applet_message(nullptr, 0, "Unable to start the Winsock subsystem. %s", SocketErrorText(std::uint32_t(st), text, sizeof text));
    return false;
  }
  winsock = true;
  return true;
}

// The registry layer on the target, whose store is sound and may be written.
bool open_target_store(bool remote, const char* name, std::uint32_t& err) {
  using namespace platform;
  if (remote && !reg_open_target(g_applet.target, g_applet.reg)) {
    err = LastError();
    applet_message(nullptr, 0, "Cannot set focus to remote machine; %s", error_text(err).c_str());
    return false;
  }
  // A damaged store is never shown, installed over or removed from as if it held defaults: the
  // store's own quick check must find it sound first (the system registry on Windows always is).
  // A machine without a store yet gets a new one, as any first use makes it.
  RegistryStoreReport report;
  if (std::uint32_t st = RegistryStoreCheck(g_applet.target, true, report); st && st != kErrorFileNotFound) {
    err = st;
    settings_unreadable(remote ? name : "this", st);
    return false;
  }
  char text[512];
  if (!applet_access_test(nullptr, g_applet.target, "", text)) {
    err = LastError();
    applet_message(nullptr, 0, "%s", text);
    return false;
  }
  return true;
}

// Install or remove (mode kCplInstall or kCplRemove) on the target: only to a machine of this
// architecture; quiet runs it at once, else under the please-wait window.
std::intptr_t run_install(std::uint32_t mode, bool remote, const char* name) {
  using namespace platform;
  if (mode == kCplInstall && remote) {
    std::uint32_t arch = reg_target_architecture(g_applet.reg);
    if (arch != g_os.arch) {
      applet_message(nullptr, 0, "%s is %s. You cannot install to a different machine architecture remotely.", name,
                     os_arch_name(arch));
      SetLastError(kErrorUnsupported);
      return 0;
    }
  }
  if (remote) {
    g_w32t_env.level = g_applet.target_level;
    g_w32t_env.installed_product = w32t_installed_product(g_applet.reg);
  }
  const InstallContext context = applet_install_context();
  const InstallOperation operation = mode == kCplInstall ? InstallOperation::kInstall : InstallOperation::kRemove;
  if (!g_applet.quiet) return RunWaitDialog(context, operation);
  return operation == InstallOperation::kInstall ? InstallModule(context, nullptr) : RemoveModule(context, nullptr);
}

}  // namespace

std::intptr_t applet_launch(void* window, std::uint32_t mode) {
  using namespace platform;
  resources::RegisterDialogs();
  InitDialogSystem();
  w32t_environment_init(g_applet.reg);
  forget_own_name();
  const bool remote = g_applet.target[0] != '\0';
  const char* name = remote ? g_applet.target : g_w32t_env.computer_name;
  bool winsock = false;
  std::uint32_t err = 0;

  // Every way out disconnects the registry layer, cleans up Winsock and leaves the code.
  struct Cleanup {
    bool& winsock;
    std::uint32_t& err;
    ~Cleanup() {
      g_applet.reg = RegTarget();
      if (winsock) NetCleanup();
      SetLastError(err);
    }
  } cleanup{winsock, err};

  if (!check_administrator(err) || !identify_target(remote, err) || !check_systems(name, err) ||
      !start_winsock(winsock, err) || !open_target_store(remote, name, err))
    return 0;
  DeleteNotepadTemps();   // the reports the last launch showed
  const std::intptr_t result =
      mode == kCplInstall || mode == kCplRemove ? run_install(mode, remote, name) : run_sheet(window, mode, remote);
  err = LastError();
  return result;
}

void applet_mark_changed(platform::Dialog& page) {
  page.SetSheetChanged(true);
  page.NotifySheet(true);
}

void (*g_applet_client_refresh)(bool time_source) = nullptr;

std::string applet_version_line() {
  return std::string("Chronwarden Version ") + defaults::kProductVersion + "\r\n" + defaults::kCopyright;
}

std::string applet_trimmed(std::string_view text, std::size_t at_most) {
  text = text.substr(0, at_most);
  const char* blanks = " \t\r\n";
  const auto b = text.find_first_not_of(blanks);
  if (b == std::string_view::npos) return {};
  return std::string(text.substr(b, text.find_last_not_of(blanks) - b + 1));
}

std::intptr_t applet_rundll(void*, const char* command_line) {
  using namespace platform;
  if (void* m = FindModuleHandle(defaults::kModuleFileName)) {
    g_applet.module = m;
    SetResourceModule(m);
  }
  os_identify();
  w32t_environment_init(g_applet.reg);
  g_applet.target[0] = '\0';
  const std::uint32_t exclamation = kMbIconExclamation;
  if (g_os.level < kOsWin2000)
    return ShowMessageBox(nullptr, "Sorry, this program requires Windows 2000 or above.", defaults::kAppletCaption, exclamation);
  std::string cmd = command_line ? command_line : "";
  for (char& c : cmd) c = char(std::tolower(static_cast<unsigned char>(c)));
  g_applet.quiet = cmd.find("-quiet") != std::string::npos || cmd.find("/quiet") != std::string::npos;
  if (cmd.find_first_not_of(" \t") == std::string::npos) {
    SetLastError(platform::kErrorInvalidParameter);
    if (g_applet.quiet) return 0;
    return ShowMessageBox(nullptr, "Was expecting a command like -remove or -install.", defaults::kAppletCaption, exclamation);
  }
  std::uint32_t err = 0;
  if (cmd.find("-install") != std::string::npos || cmd.find("/install") != std::string::npos) {
    RunWaitDialog(applet_install_context(), InstallOperation::kInstall);
    err = LastError();
  } else if (cmd.find("-remove") != std::string::npos || cmd.find("/remove") != std::string::npos) {
    const InstallContext context = applet_install_context();
    if (RunWaitDialog(context, InstallOperation::kRemove)) RetireModuleFile(context);
    err = LastError();
  } else {
    if (g_applet.quiet) return 0;
    return ShowMessageBox(nullptr, "Was expecting either -remove or -install on the command line.", defaults::kAppletCaption,
                          exclamation);
  }
  SetLastError(err);
  if (err == 0 || g_applet.quiet) return 0;
  return ShowMessageBox(nullptr, error_text(err), defaults::kAppletCaption, exclamation);
}
