// chronwarden-host: the Linux stand-in for the Windows Time service's provider host. It loads the
// enabled time providers of the store, answers their questions from chronyd (the real NTP client)
// and the kernel clock, tells them of clock steps and new settings, polls them for samples and
// closes them when told to stop.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "config/defaults.h"
#include "config/registry.h"
#include "config/service_control.h"
#include "host/time_service.h"
#include "platform/error.h"
#include "platform/error_text.h"
#include "platform/host.h"
#include "platform/paths.h"

namespace {

constexpr std::uint32_t kDefaultPollS = 64;   // the host's own sample poll (s)
constexpr int kLogInfo = 6, kLogError = 3;

const char kUsage[] =
    "Usage: chronwarden-host [--foreground] [--poll SECONDS] [--chrony-socket PATH]\n"
    "Hosts the enabled time providers of the Windows Time settings (the Linux \"W32Time\").\n"
    "  --foreground          also write every log line to standard error (terminals, containers)\n"
    "  --poll SECONDS        ask the providers for samples this often (1 to 86400; default 64)\n"
    "  --chrony-socket PATH  chronyd's command socket (default: the W32Time Parameters value\n"
    "                        \"ChronyCommandSocket\", else /run/chrony/chronyd.sock)\n"
    "  --register            make this program the machine's \"W32Time\" service: its ImagePath\n"
    "                        (run with --foreground, so that the supervisor's log file gets the\n"
    "                        lines too), Start 2 when not set, SystemdUnit chronwarden-host.service\n"
    "  --help                this text\n"
    "Signals: SIGTERM or SIGINT stop the host, SIGHUP reloads the providers' settings.\n"
    "A store that cannot be read (damaged) is no set of settings: the host does not start on one\n"
    "(exit code 1), and on SIGHUP the providers keep the settings they last read. The host ends on\n"
    "its next sample poll when its machine root ($CHRONWARDEN_ROOT) is deleted.\n"
    "Log lines go to the system log: the host's as chronwarden-host, a provider's as its name\n"
    "(journalctl -t Chronwarden).\n";


struct Options {
  bool foreground = false;
  bool register_service = false;
  std::uint32_t poll_s = kDefaultPollS;
  std::string chrony_socket;
};

// 0 to run, 1 after --help, 2 for a wrong command line.
int Parse(int argc, char** argv, Options& o) {
  for (int i = 1; i < argc; ++i) {
    const std::string a = argv[i];
    if (a == "--help" || a == "-h") {
      std::fputs(kUsage, stdout);
      return 1;
    } else if (a == "--register") {
      o.register_service = true;
    } else if (a == "--foreground") {
      o.foreground = true;
    } else if (a == "--poll" && i + 1 < argc) {
      char* end = nullptr;
      const unsigned long v = std::strtoul(argv[++i], &end, 10);
      if (!*argv[i] || *end || v < 1 || v > 86400) {
        std::fprintf(stderr, "chronwarden-host: --poll wants 1 to 86400 seconds, not \"%s\"\n", argv[i]);
        return 2;
      }
      o.poll_s = static_cast<std::uint32_t>(v);
    } else if (a == "--chrony-socket" && i + 1 < argc) {
      o.chrony_socket = argv[++i];
    } else {
      std::fprintf(stderr, "chronwarden-host: unknown or incomplete option \"%s\"\n%s", a.c_str(), kUsage);
      return 2;
    }
  }
  return 0;
}

// Both Linux service backends start the program the W32Time key names: the supervisor runs its
// ImagePath, systemd its SystemdUnit.
int Register() {
  const std::string image = std::string(platform::host::ProgramPath()) + " --foreground";
  if (!RegisterTimeServiceProgram(reg_local(), image.c_str())) {
    std::fprintf(stderr, "chronwarden-host: cannot write the W32Time service key (error %u)\n",
                 static_cast<unsigned>(platform::LastError()));
    return 1;
  }
  std::printf("W32Time service: ImagePath \"%s\", SystemdUnit %s\n", image.c_str(), defaults::kHostSystemdUnit);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  if (const int parsed = Parse(argc, argv, options)) return parsed == 1 ? 0 : 2;
  if (options.register_service) return Register();
  platform::host::OpenSystemLog(options.foreground);
  // Before any provider starts a thread: the signals are taken through a descriptor.
  if (!platform::host::OpenWakeups()) {
    HostLog(kLogError, "cannot watch signals and clock steps: %s", SystemErrorLine(platform::LastError()).c_str());
    return 1;
  }
  // A store that cannot be read is no list of providers: the host has no settings to run on.
  if (const std::uint32_t st = reg_readable(reg_local(), kTimeProvidersKey)) {
    HostLog(kLogError, "cannot read the time providers' settings, not starting: %s", SystemErrorLine(st).c_str());
    return 1;
  }
  // The machine root goes with the machine: deleted under the host, it ends the host.
  if (!platform::host::WatchMachineRoot()) {
    HostLog(kLogError, "the machine root %s is not there, not starting", platform::MachineRoot().c_str());
    return 1;
  }
  if (options.chrony_socket.empty()) {
    char path[512];
    reg_get_string(reg_local(), defaults::kW32TimeParametersKey, defaults::kChronySocketValue, path, sizeof path,
                   defaults::kChronySocket);
    options.chrony_socket = path;
  }
  HostSetChronySocket(options.chrony_socket);
  std::vector<LoadedProvider> providers = HostLoadProviders();
  HostLog(kLogInfo, "started: %zu time provider(s), sample poll %u s, chronyd at %s", providers.size(),
          options.poll_s, options.chrony_socket.c_str());
  platform::host::NotifyServiceManager("READY=1\nSTATUS=hosting the time providers");

  using Clock = std::chrono::steady_clock;
  auto next_poll = Clock::now() + std::chrono::seconds(options.poll_s);
  for (bool running = true; running;) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(next_poll - Clock::now()).count();
    switch (platform::host::WaitWakeup(left > 0 ? static_cast<std::uint32_t>(left) : 0)) {
      case platform::host::Wake::Terminate:
        running = false;
        break;
      case platform::host::Wake::Reload:
        if (const std::uint32_t st = reg_readable(reg_local(), kTimeProvidersKey)) {
          HostLog(kLogError, "settings changed, but they cannot be read; the settings last read stay in use: %s",
                  SystemErrorLine(st).c_str());
        } else {
          HostLog(kLogInfo, "settings changed: the providers reload them");
        }
        HostCommand(providers, platform::TPC_UpdateConfig, nullptr);
        break;
      case platform::host::Wake::ClockStepped: {
        HostLog(kLogInfo, "the system clock was stepped");
        platform::TpcTimeJumpedArgs args{platform::TJF_Default};
        HostCommand(providers, platform::TPC_TimeJumped, &args);
        break;
      }
      case platform::host::Wake::Failed: {
        HostLog(kLogError, "waiting failed: %s", SystemErrorLine(platform::LastError()).c_str());
        running = false;
        break;
      }
      case platform::host::Wake::Timeout:
        break;
    }
    if (running && Clock::now() >= next_poll) {
      // Checked on the poll's own wake-up: no extra wake-ups for it.
      if (platform::host::MachineRootGone()) {
        // The providers are not closed: all they would write back belongs to the machine that is
        // gone, and writing it would make a root of that name again.
        HostLog(kLogError, "the machine root %s was deleted: stopping", platform::MachineRoot().c_str());
        platform::host::NotifyServiceManager("STOPPING=1");
        std::_Exit(0);
      }
      HostPollSamples(providers);
      next_poll += std::chrono::seconds(options.poll_s);
      if (next_poll < Clock::now()) next_poll = Clock::now() + std::chrono::seconds(options.poll_s);
    }
  }
  platform::host::NotifyServiceManager("STOPPING=1");
  HostCloseProviders(providers);
  HostLog(kLogInfo, "stopped");
  platform::host::CloseWakeups();
  return 0;
}
