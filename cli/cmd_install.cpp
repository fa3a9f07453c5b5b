// chronwarden install|remove [--machine NAME] [--managers LIST] [--quiet]: the applet's install and remove on this
// machine or on another one (its root under the network root), through the same launch.
#include <cstdio>
#include <optional>
#include <string>

#include "applet/applet.h"
#include "applet/install.h"
#include "cli/cockpit_package.h"
#include "cli/commands.h"
#include "config/address_list.h"
#include "config/defaults.h"
#include "config/registry.h"
#include "config/service_control.h"
#include "platform/machine.h"
#include "platform/paths.h"
#include "platform/dialog_memory.h"
#include "platform/error.h"
#include "platform/error_text.h"

namespace {

// Where the system has no time service of its own (Linux), the host daemon becomes the machine's
// "W32Time" service unless one is already registered, so that the service starts and stops the
// provider as Windows Time does. The same program path is used for another machine: machines of
// one fleet share their installed layout.
bool RegisterHostAsTimeService(const std::string& machine) {
  const std::string program = platform::TimeServiceProgram();
  if (program.empty()) return true;
  RegTarget target;
  if (!reg_open_target(machine.c_str(), target)) return false;
  char image[512];
  reg_get_string(target, defaults::kW32TimeServiceKey, "ImagePath", image, sizeof image, "");
  return image[0] || RegisterTimeServiceProgram(target, program.c_str(), true);
}

// "KR2 Managers" under the provider key of machine.
bool SetManagers(const std::string& machine, const std::string& list) {
  RegTarget target;
  if (!reg_open_target(machine.c_str(), target)) return false;
  return reg_set_string(target, defaults::kProviderKey, defaults::kKr2ManagersValue, list.c_str()) != 0;
}

// This machine's web console gets the applet's page with the provider, and loses it with it
// (another machine's console is that machine's own business).
bool UpdateCockpitPage(std::string_view command, const std::string& machine, std::uint32_t message, bool quiet) {
  const std::string dir = platform::CockpitPackageDirectory();
  if (!machine.empty() || dir.empty()) return true;
  std::string failed_path;
  const std::uint32_t error =
      message == kCplInstall ? WriteCockpitPackage(dir, failed_path) : DeleteCockpitPackage(dir, failed_path);
  if (error && !quiet) {
    char reason[256];
    SystemErrorText(error, reason, sizeof reason);
    std::fprintf(stderr, "chronwarden %s: the Cockpit page: %s: %s\n", std::string(command).c_str(),
                 failed_path.c_str(), reason);
  }
  return error == 0;
}

int Run(std::string_view command, CommandArgs args, std::uint32_t message) {
  std::string machine;
  std::optional<std::string> managers;   // install --managers
  bool quiet = false;
  for (std::size_t i = 0; i < args.size(); ++i) {
    if (IsHelp(args[i])) {
      std::printf(
          "Usage: chronwarden %s [--machine NAME]%s [--quiet]\n\n"
          "%s the provider module on this machine, or with --machine on NAME (its machine root mounted\n"
          "under $CHRONWARDEN_NETWORK_ROOT/NAME). Install copies the module ($CHRONWARDEN_MODULE, else\n"
          "w32tmkr.cpl beside this program) into the system directory unless the one there is as new,\n"
          "registers it as a time provider, writes the uninstall entry and restarts the time service;\n"
          "remove undoes the registration%s. On Linux, install also makes the host daemon\n"
          "(chronwarden-host) the time service when there is none yet and starts it; remove stops it and\n"
          "unregisters it again when install made it and no other time provider needs it.\n"
          "On this machine (no --machine), install also writes the Cockpit page into the web console's\n"
          "package folder and remove deletes it ($CHRONWARDEN_COCKPIT_DIR, else\n"
          "/usr/share/cockpit/chronwarden; none for a machine root of its own named by $CHRONWARDEN_ROOT).\n"
          "Needs administrator rights: the effective user root, or write access to the machine root.\n"
          "  --machine NAME  the target machine (\\\\NAME or NAME)\n"
          "  --managers LIST (install) the KR2 managers: the addresses (a.b.c.d) and prefixes (a.b.c.d/N)\n"
          "                  that may clear the history and demand a resync over KR2, or \"any\"; without it\n"
          "                  a new install lets only this machine (127.0.0.0/8), and a repeated one keeps the list\n"
          "  --quiet         show no messages; the exit code still tells\n",
          std::string(command).c_str(), message == kCplInstall ? " [--managers LIST]" : "",
          message == kCplInstall ? "Installs" : "Removes",
          message == kCplRemove ? " and moves the local module aside (w32tmkr.old)" : "");
      return kExitOk;
    }
    if (args[i] == "--quiet") quiet = true;
    else if (args[i] == "--machine" && i + 1 < args.size()) machine = args[++i];
    else if (args[i] == "--managers" && message == kCplInstall && i + 1 < args.size()) {
      managers = applet_trimmed(args[++i]);
      const AddressList list = ParseAddressList(*managers);
      if (managers->size() > 255) return UsageError(command, "--managers: at most 255 characters");
      if (!list.rejected.empty())
        return UsageError(command, "--managers: \"" + list.rejected.front() +
                                       "\" is neither an address (a.b.c.d), a prefix (a.b.c.d/N) nor \"any\"");
    }
    else return UsageError(command, "unknown argument: " + std::string(args[i]));
  }
  // Messages of the applet go to standard error; questions take their first answer.
  platform::memory_ui::SetSink([](const platform::memory_ui::Box& box) {
    std::fprintf(stderr, "chronwarden: %s\n", box.text.c_str());
    return 0;
  });
  platform::memory_ui::OnModal([](platform::MemoryDialog& d) { d.RunUntilEnded(0xFFFFFFFF); });
  applet_entry(nullptr, kCplInit, 0, 0);
  applet_entry(nullptr, kCplSetMachine, reinterpret_cast<std::intptr_t>(machine.c_str()), 0);
  applet_entry(nullptr, kCplQuiet, 0, quiet ? 1 : 0);
  if (message == kCplInstall && !RegisterHostAsTimeService(machine)) {
    if (!quiet) {
      char text[256];
      std::fprintf(stderr, "chronwarden install: cannot register the time service program: %s\n",
                   SystemErrorText(platform::LastError(), text, sizeof text));
    }
    return kExitFailed;
  }
  // The managers go in first: the install then saves them with the rest and restarts a running
  // time service when anything changed, and a host it starts reads them.
  if (managers && !SetManagers(machine, *managers)) {
    if (!quiet) {
      char text[256];
      std::fprintf(stderr, "chronwarden install: cannot write the KR2 managers: %s\n",
                   SystemErrorText(platform::LastError(), text, sizeof text));
    }
    return kExitFailed;
  }
  std::intptr_t ok = applet_entry(nullptr, message, 0, 0);
  std::uint32_t err = platform::LastError();
  if (ok && message == kCplRemove && machine.empty()) RetireModuleFile(applet_install_context());
  // What install started, remove stops: the host daemon install made the time service, once it
  // hosts no other provider, is stopped and unregistered (Windows Time is the system's own).
  if (RegTarget target; ok && !err && message == kCplRemove && reg_open_target(machine.c_str(), target) &&
                       UnregisterTimeServiceProgram(nullptr, target) < 0)
    err = platform::LastError();
  // A time service that already ran reads the new managers now.
  if (ok && !err && managers && ControlTimeService(nullptr, machine.c_str(), kServiceOpQuery, 0))
    ControlTimeService(nullptr, machine.c_str(), kServiceParamChange, 1);
  // The host daemon is started (and made automatic) once the provider is in place; Windows Time
  // already runs on its own.
  if (ok && !err && message == kCplInstall && !platform::TimeServiceProgram().empty() &&
      !ControlTimeService(nullptr, machine.c_str(), kServiceOpQuery, 0) &&
      !ControlTimeService(nullptr, machine.c_str(), kServiceOpStart, 0))
    err = platform::LastError();
  if (!ok || err) {
    if (!quiet) {
      char text[256];
      std::fprintf(stderr, "chronwarden %s: %s\n", std::string(command).c_str(), SystemErrorText(err, text, sizeof text));
    }
    return kExitFailed;
  }
  if (!UpdateCockpitPage(command, machine, message, quiet)) return kExitFailed;
  if (!quiet) std::printf("%s\n", message == kCplInstall ? "Installed." : "Removed.");
  return kExitOk;
}

}  // namespace

int CmdInstall(CommandArgs args) { return Run("install", args, kCplInstall); }
int CmdRemove(CommandArgs args) { return Run("remove", args, kCplRemove); }
