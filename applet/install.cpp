// Install and remove.
#include "applet/install.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string>

#include "config/chrony_sources.h"
#include "config/defaults.h"
#include "config/registry.h"
#include "config/service_control.h"
#include "drift/drift_file.h"
#include "platform/error.h"
#include "platform/error_text.h"
#include "platform/machine.h"
#include "platform/thread.h"
#include "resources/resources.h"

namespace {

constexpr const char* kVersionKey = "\\\\Software\\Microsoft\\Windows NT\\CurrentVersion";
constexpr const char* kKaironServerParams = "\\\\Software\\Morvane\\Kairon Server\\Parameters";
constexpr const char* kKaironClientParams = "\\\\Software\\Morvane\\Kairon Client\\Parameters";
constexpr std::uint32_t kProductSettingsSize = 335;   // "Server Settings" / "Client Settings"
constexpr std::uint32_t kNameSlotsOffset = 43, kNameSlotSize = 66, kNameSlots = 4;
constexpr std::uint32_t kDomainControllerBits = 0x8 | 0x10;

void step(const InstallContext& c, platform::Dialog* progress) {
  if (progress && !c.quiet) progress->StepProgress(IDC_PROGRESS);
}

// Tells the person (text formatted into 509 characters), unless the operation is quiet.
__attribute__((format(printf, 4, 5))) void tell(const InstallContext& c, platform::Dialog* owner, std::uint32_t style,
                                                const char* format, ...) {
  if (c.quiet || !c.message) return;
  char text[510];
  va_list args;
  va_start(args, format);
  std::vsnprintf(text, sizeof text, format, args);
  va_end(args);
  c.message(owner, style, text);
}

// Service control shows its errors unless the operation is quiet.
std::uint32_t show_error(const InstallContext& c) { return c.quiet ? 0 : 1; }

// The end of an operation: the completion message to the wait window, the code left.
int finish(platform::Dialog* progress, int result, std::uint32_t err) {
  if (progress) progress->Post(CW_MSG_WORK_DONE, 0, result);
  platform::SetLastError(err);
  return result;
}

std::string error_text(std::uint32_t code) {
  char buf[256];
  return SystemErrorText(code, buf, sizeof buf);
}

// "<SystemRoot>\system32\" of the target (the local machine when the layer is local).
std::string target_system_dir(const InstallContext& c) {
  char root[260];
  reg_get_string(c.reg, kVersionKey, "SystemRoot", root, sizeof root, "c:\\windows");
  return std::string(root) + "\\system32\\";
}

void write_uninstall_entry(const InstallContext& c) {
  const char* key = defaults::kUninstallKey;
  std::string dir = target_system_dir(c);
  reg_set_string(c.reg, key, "DisplayName", "Chronwarden Control Panel Applet");
  reg_set_string_fmt(c.reg, key, "UninstallString", "rundll32.exe %s%s,RunDll -remove", dir.c_str(), defaults::kModuleFileName);
  reg_set_string_fmt(c.reg, key, "DisplayIcon", "%s%s,0", dir.c_str(), defaults::kModuleFileName);
  reg_set_string(c.reg, key, "PublisherName", "Selvox, Inc.");
  reg_set_string(c.reg, key, "Publisher", "Selvox, Inc.");
  reg_set_string(c.reg, key, "URLInfoAbout", defaults::kDocumentationHost);
  reg_set_dword(c.reg, key, "NoModify", 1);
  reg_set_dword(c.reg, key, "NoRepair", 1);
  reg_set_dword(c.reg, key, "TSAware", 0);
  reg_set_dword(c.reg, key, "WindowsInstaller", 0);
  reg_set_dword(c.reg, key, "VersionMajor", 4);
  reg_set_dword(c.reg, key, "VerMinor", 2);
  reg_set_string(c.reg, key, "DisplayVersion", defaults::kProductVersion);
  reg_set_string(c.reg, key, "HelpTelephone", "+1 555 0142 7700");
  reg_set_string(c.reg, key, "Contact", "support@selvox.example");
  reg_set_string_fmt(c.reg, key, "HelpLink", "http://%s/support", defaults::kDocumentationHost);
  reg_set_string_fmt(c.reg, key, "URLInfoAbout", "http://%s/", defaults::kDocumentationHost);
  reg_set_string_fmt(c.reg, key, "URLUpdateInfo", "http://%s/downloads", defaults::kDocumentationHost);
}

// The coexistence adjustments and the first-install values.
void adjust_settings(const InstallContext& c, W32tSettings& s, bool servers_from_chrony) {
  std::uint8_t value[kProductSettingsSize] = {};
  bool have_value = false;
  const std::uint32_t product = g_w32t_env.installed_product;
  const bool serves_ntp = product == kProductKaironServer && w32t_kairon_serves_ntp(c.reg);
  if (product == kProductKaironServer) {
    have_value = reg_get_binary(c.reg, kKaironServerParams, "Server Settings", value, sizeof value);
    std::uint32_t slave_flag = 0;
    std::memcpy(&slave_flag, value + 4, 4);
    if (reg_get_bool(c.reg, kKaironServerParams, "Slave Mode", 0) || slave_flag || serves_ntp) {
      s.ntp_client_enabled = 0;
      s.ntp_client_input_provider = 0;
      s.sync_type = kW32tNoSync;
    } else {
      s.ntp_client_enabled = 1;
      s.ntp_client_input_provider = 1;
    }
  } else if (product == kProductKaironClient || product == kProductKaironThinClient || product == kProductKaironUltraThinClient) {
    have_value = reg_get_binary(c.reg, kKaironClientParams, "Client Settings", value, sizeof value);
    s.ntp_client_enabled = 0;
    s.ntp_client_input_provider = 0;
    s.sync_type = kW32tNoSync;
  }
  if (have_value) {
    for (std::uint32_t i = 0; i < kNameSlots; ++i) {
      char name[kNameSlotSize + 1] = {};
      std::memcpy(name, value + kNameSlotsOffset + i * kNameSlotSize, kNameSlotSize);
      install_add_server(s, name);
    }
  }
  if (!servers_from_chrony) {
    install_add_server(s, defaults::kPublicNtpServer1);
    install_add_server(s, defaults::kPublicNtpServer2);
  }
  if (!s.service_installed) {
    // First installation: the agent on with its defaults, and on a domain controller that runs a
    // Kairon Server that does not serve NTP itself, Windows Time serves and announces time.
    s.provider_enabled = w32t_forced_disable(c.reg) ? 0 : 1;
    s.check_interval = defaults::kCheckIntervalS;
    s.alert_threshold = defaults::kAlertThresholdS;
    s.alert_if_unverified = 1;
    s.alert_if_unsynchronized = 1;
    s.dns_lookups_enabled = 1;
    if (product == kProductKaironServer && (c.target_type & kDomainControllerBits) && !serves_ntp) {
      s.ntp_server_enabled = 1;
      s.announce_flags = 0x2 | 0x8;   // automatic time server, automatic reliable source
    }
    s.service_installed = 1;
  }
}

}  // namespace

void install_add_server(W32tSettings& s, const char* name) {
  if (!name || !*name || s.server_count >= kW32tMaxServers) return;
  for (std::uint32_t i = 0; i < s.server_count; ++i)
    if (strcasecmp(s.servers[i].name, name) == 0) return;
  W32tServer& e = s.servers[s.server_count++];
  std::snprintf(e.name, sizeof e.name, "%s", name);
  e.flags = 0x1;
  e.work = -1;
}

int CopyModuleToTarget(const char* target) {
  char dest[400];
  if (target[0]) {
    const char* name = target;
    while (*name == '\\') ++name;
    std::snprintf(dest, sizeof dest, "\\\\%s\\admin$\\system32\\%s", name, defaults::kModuleFileName);
  } else {
    std::snprintf(dest, sizeof dest, "%s%s", g_w32t_env.system_dir, defaults::kModuleFileName);
  }
  std::string mine = platform::ThisModuleFile();
  if (strcasecmp(mine.c_str(), dest) == 0) return 1;
  std::uint64_t there = platform::FileVersion(dest);
  if (there && there >= platform::ThisFileVersion()) {
    platform::SetLastError(0);
    return 1;
  }
  platform::ClearFileAttributes(dest);
  if (!platform::CopyFileOver(mine, dest)) return 0;
  platform::SetLastError(0);
  return 1;
}

int InstallModule(const InstallContext& c, platform::Dialog* progress) {
  const char* target = c.target;
  step(c, progress);
  DriftFileOpen(target);
  DriftFileClose();
  step(c, progress);
  w32t_secure_keys(c.reg);
  step(c, progress);
  write_uninstall_entry(c);
  step(c, progress);
  W32tSettings s{};
  w32t_load(c.reg, s);
  const W32tSettings untouched = s;
  step(c, progress);
  int copied = CopyModuleToTarget(target);
  std::uint32_t err = copied ? 0 : platform::LastError();
  step(c, progress);
  // A machine whose chrony already has sources: settings without servers take them, and the public
  // defaults are never added to what its administrator chose (nor at a later install).
  adjust_settings(c, s, chrony_import_sources(s));
  step(c, progress);
  bool stopped = false;
  if (!copied) {
    if (c.control(progress, target, kServiceOpQuery, 0)) {
      stopped = c.control(progress, target, kServiceOpStop, show_error(c)) != 0;
      copied = CopyModuleToTarget(target);
      err = copied ? 0 : platform::LastError();
    }
    if (!copied)
      tell(c, progress, 0x30, "Could not install %s to the system32 folder on %s; %s", defaults::kModuleFileName,
                     target[0] ? target : g_w32t_env.computer_name, error_text(err).c_str());
  }
  step(c, progress);
  if (std::memcmp(&s, &untouched, sizeof s) != 0) {
    if (!stopped && c.control(progress, target, kServiceOpQuery, 0))
      stopped = c.control(progress, target, kServiceOpStop, show_error(c)) != 0;
    if (const std::uint32_t st = w32t_save(c.reg, s, 1)) {
      tell(c, progress, 0x30, "Could not save the time service settings on %s; %s",
                     target[0] ? target : g_w32t_env.computer_name, error_text(st).c_str());
      copied = 0;
      err = st;
    } else if (!target[0]) {
      (void)chrony_apply_settings(s);   // this machine's NTP client takes the servers (chrony on Linux)
    }
  }
  step(c, progress);
  if (stopped) c.control(progress, target, kServiceOpStart, show_error(c));
  return finish(progress, copied, err);
}

int RemoveModule(const InstallContext& c, platform::Dialog* progress) {
  const char* target = c.target;
  step(c, progress);
  c.control(progress, target, kServiceOpStop, show_error(c));
  step(c, progress);
  W32tSettings s{};
  w32t_load(c.reg, s);
  reg_delete_key(c.reg, defaults::kUninstallKey);
  const std::uint32_t saved = w32t_save(c.reg, s, 0);
  step(c, progress);
  int started = c.control(progress, target, kServiceOpStart, show_error(c));
  if (saved) return finish(progress, 0, saved);
  return finish(progress, started, platform::LastError());
}

int RetireModuleFile(const InstallContext& c) {
  char root[260];
  reg_get_string(c.reg, kVersionKey, "SystemRoot", root, sizeof root, "c:\\windows");
  std::string cpl = std::string(root) + "\\system32\\" + defaults::kModuleFileName;
  std::string old = std::string(root) + "\\system32\\w32tmkr.old";
  auto attempt = [&] {
    platform::ClearFileAttributes(cpl);
    platform::ClearFileAttributes(old);
    platform::DeleteFileAt(old);
    return platform::MoveFileReplacing(cpl, old);
  };
  bool moved = attempt();
  if (!moved && platform::LastError() == platform::kErrorAccessDenied && c.control(nullptr, "", kServiceOpStop, 1)) {
    moved = attempt();
    std::uint32_t err = moved ? 0 : platform::LastError();
    c.control(nullptr, "", kServiceOpStart, 0);
    platform::SetLastError(err);
  }
  return moved ? 1 : 0;
}

namespace {

// The please-wait window: a worker thread runs the operation and posts its end.
struct WaitWindow : platform::DialogLogic {
  const InstallContext& context;
  InstallOperation operation;
  platform::ThreadHandle worker = nullptr;
  platform::Dialog* dialog = nullptr;
  int result = 0;
  std::uint32_t error = 0;

  WaitWindow(const InstallContext& c, InstallOperation o) : context(c), operation(o) {}

  static void run(void* self) {
    auto* w = static_cast<WaitWindow*>(self);
    w->result = w->operation == InstallOperation::kInstall ? InstallModule(w->context, w->dialog)
                                                           : RemoveModule(w->context, w->dialog);
    w->error = platform::LastError();
  }
  bool init(platform::Dialog& d) override {
    dialog = &d;
    char text[400];
    std::snprintf(text, sizeof text, "%s%s%s...",
                  operation == InstallOperation::kInstall ? "Installing/Upgrading" : "Removing",
                  context.target[0] ? " on " : "", context.target);
    d.SetText(IDC_WAIT_TEXT, text);
    d.SetProgressRange(IDC_PROGRESS, 0, 10, 1);
    worker = platform::CreateThreadSuspended(run, this);
    if (!worker) {
      error = platform::LastError();
      d.End(0);
    } else {
      platform::ResumeThread(worker);
    }
    return true;
  }
  std::intptr_t message(platform::Dialog& d, std::uint32_t msg, std::uintptr_t, std::intptr_t lparam) override {
    if (msg == CW_MSG_WORK_DONE) d.End(lparam);
    return 0;
  }
  void close(platform::Dialog&, int) override {}   // the window closes when the work is done
};

}  // namespace

std::intptr_t RunWaitDialog(const InstallContext& context, InstallOperation operation) {
  resources::RegisterDialogs();
  platform::InitDialogSystem();
  WaitWindow w(context, operation);
  std::intptr_t r = platform::RunModalDialog(IDD_WAIT, nullptr, w);
  if (w.worker) {
    platform::WaitForThread(w.worker, 0xFFFFFFFF);
    platform::CloseThread(w.worker);
  }
  if (r < 0) {
    platform::SetLastError(platform::LastError());
    return 0;
  }
  platform::SetLastError(w.error);
  return w.result;
}
