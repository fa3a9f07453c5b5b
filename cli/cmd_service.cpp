// chronwarden service / resync: the time service (or any named service) of a machine, and the
// request to synchronise now.
#include <cstdint>
#include <cstdio>
#include <string>

#include "cli/commands.h"
#include "cli/service_cli.h"
#include "config/defaults.h"
#include "config/os_identify.h"
#include "config/service_control.h"
#include "config/w32time.h"
#include "platform/error.h"
#include "platform/error_text.h"
#include "platform/service.h"
#include "platform/sync.h"

namespace {

constexpr const char* kServiceHelp =
    "Usage: chronwarden service status|start|stop|restart [NAME] [--machine NAME] [--json]\n"
    "       chronwarden service start-type automatic|manual|disabled [NAME] [--machine NAME]\n\n"
    "NAME is the service (default W32Time, the time service).\n"
    "  status      its state, start type and program (exit 0 whatever the state)\n"
    "  start       starts it; the time service is made automatic first\n"
    "  stop        stops it and waits until it has stopped (at most 30 seconds)\n"
    "  restart     stops and starts it\n"
    "  start-type  changes how it starts\n\n"
    "On Linux the service manager is systemd when it runs, else Chronwarden's own supervisor of the\n"
    "services registered under System\\CurrentControlSet\\Services (CHRONWARDEN_SERVICE_BACKEND\n"
    "chooses). A failure exits 1 with the system's text.\n";

constexpr const char* kResyncHelp =
    "Usage: chronwarden resync [--machine NAME] [--wait] [--hard]\n\n"
    "Asks the time service to synchronise now (Linux: chrony's burst).\n"
    "  --wait   waits for the outcome\n"
    "  --hard   a hard resynchronization: the clock is stepped when it is off (chrony: makestep)\n";

void PrintMessage(void*, const char* text, const char* caption, std::uint32_t) {
  std::string t = text;
  while (!t.empty() && (t.back() == '\n' || t.back() == '\r')) t.pop_back();
  std::fprintf(stderr, "%s: %s\n", caption, t.c_str());
}

const char* StateText(std::uint32_t state) {
  switch (state) {
    case 1: return "stopped";
    case 2: return "start pending";
    case 3: return "stop pending";
    case 4: return "running";
    case 5: return "continue pending";
    case 6: return "pause pending";
    case 7: return "paused";
    default: return "unknown";
  }
}

const char* StartTypeText(std::uint32_t start) {
  return start == 2 ? "automatic" : start == 3 ? "manual" : start == 4 ? "disabled" : "boot";
}

struct Opened {
  platform::ServiceHandle manager = nullptr, service = nullptr;
  ~Opened() {
    platform::CloseServiceHandle(service);
    platform::CloseServiceHandle(manager);
  }
};

int Status(const std::string& machine, const std::string& name, bool json) {
  Opened o;
  platform::ServiceStatus st;
  platform::ServiceConfig config;
  o.manager = platform::OpenServiceManager(machine.c_str(), platform::kScManagerAllAccess);
  if (o.manager) o.service = platform::OpenNamedService(o.manager, name.c_str(), platform::kServiceAllAccess);
  if (!o.service || !platform::QueryServiceStatus(o.service, st) || !platform::GetServiceConfig(o.service, config))
    return CliFailure("service", name + ": " + SystemErrorLine(platform::LastError()));
  if (json) {
    std::printf("{\"name\": %s, \"state\": %s, \"state_code\": %u, \"start_type\": %s, \"start_type_code\": %u, "
                "\"check_point\": %u, \"wait_hint_ms\": %u, \"program\": %s, \"backend\": %s}\n",
                JsonString(name).c_str(), JsonString(StateText(st.current_state)).c_str(), st.current_state,
                JsonString(StartTypeText(config.start_type)).c_str(), config.start_type, st.check_point, st.wait_hint,
                JsonString(config.binary_path).c_str(), JsonString(platform::ServiceBackendName()).c_str());
  } else {
    std::printf("%s: %s, start type %s\n  program: %s\n", name.c_str(), StateText(st.current_state),
                StartTypeText(config.start_type), config.binary_path.c_str());
  }
  return kExitOk;
}

// Start and stop of a service other than the time service: start is not waited for; stop waits
// as a restart does.
int Other(const std::string& machine, const std::string& name, bool start) {
  Opened o;
  platform::ServiceStatus st;
  o.manager = platform::OpenServiceManager(machine.c_str(), platform::kScManagerAllAccess);
  if (o.manager) o.service = platform::OpenNamedService(o.manager, name.c_str(), platform::kServiceAllAccess);
  bool ok = o.service != nullptr;
  if (ok && start) ok = platform::StartNamedService(o.service);
  if (ok && !start) {
    ok = platform::ControlService(o.service, platform::kServiceControlStop, st);
    for (std::uint32_t i = 0; ok && i < defaults::kRestartPolls && st.current_state != platform::kServiceStopped; ++i) {
      platform::Sleep(defaults::kRestartPollMs);
      ok = platform::QueryServiceStatus(o.service, st);
    }
    if (ok && st.current_state != platform::kServiceStopped) platform::SetLastError(platform::kErrorServiceTimeout), ok = false;
  }
  if (!ok) return CliFailure("service", name + ": " + SystemErrorLine(platform::LastError()));
  std::printf("%s %s.\n", name.c_str(), start ? "start requested" : "stopped");
  return kExitOk;
}

int StartType(const std::string& machine, const std::string& name, std::uint32_t type) {
  Opened o;
  o.manager = platform::OpenServiceManager(machine.c_str(), platform::kScManagerAllAccess);
  if (o.manager) o.service = platform::OpenNamedService(o.manager, name.c_str(), platform::kServiceAllAccess);
  if (!o.service || !platform::ChangeServiceStartType(o.service, type))
    return CliFailure("service", name + ": " + SystemErrorLine(platform::LastError()));
  std::printf("%s now starts %s.\n", name.c_str(), type == 2 ? "automatically" : type == 3 ? "manually" : "never (disabled)");
  return kExitOk;
}

}  // namespace

int CliFailure(const std::string& command, const std::string& message) {
  std::fprintf(stderr, "chronwarden %s: %s\n", command.c_str(), message.c_str());
  return kExitFailed;
}

const ServiceOwner* CliServiceOwner() {
  static const ServiceOwner owner{nullptr, PrintMessage};
  return &owner;
}

bool NotifyTimeService(const char* machine) {
  if (!ControlTimeService(CliServiceOwner(), machine, kServiceOpQuery, 0)) {
    if (platform::LastError() != 0) {
      std::fprintf(stderr, "The time service could not be asked: %s\n", SystemErrorLine(platform::LastError()).c_str());
      return false;
    }
    std::printf("The time service is not running; it reads the settings when it starts.\n");
    return true;
  }
  const bool told = g_w32t_env.level == kOsWin2000
                        ? RestartService(CliServiceOwner(), machine, defaults::kTimeServiceName) != 0
                        : ControlTimeService(CliServiceOwner(), machine, kServiceParamChange, 1) != 0;
  if (!told) return false;
  std::printf("The time service was told that its parameters changed.\n");
  const std::uint32_t rc = TriggerResync(CliServiceOwner(), machine, 0, kResyncHard);
  if (rc == 0) std::printf("Resynchronization requested.\n");
  else
    std::fprintf(stderr, "The resynchronization request was not accepted (%u): %s\n", rc, SystemErrorLine(rc).c_str());
  return true;
}

int CmdService(CommandArgs args) {
  if (args.empty()) return UsageError("service", "an action is needed");
  if (IsHelp(args[0])) return std::fputs(kServiceHelp, stdout), kExitOk;
  const std::string action(args[0]);
  std::string machine, name = defaults::kTimeServiceName, type_word;
  bool json = false, named = false;
  std::size_t i = 1;
  if (action == "start-type") {
    if (args.size() < 2 || args[1].starts_with("-")) return UsageError("service", "start-type needs automatic, manual or disabled");
    type_word = args[1];
    i = 2;
  } else if (action != "status" && action != "start" && action != "stop" && action != "restart") {
    return UsageError("service", "unknown action '" + action + "'");
  }
  for (; i < args.size(); ++i) {
    if (IsHelp(args[i])) return std::fputs(kServiceHelp, stdout), kExitOk;
    if (args[i] == "--machine" && i + 1 < args.size()) machine = args[++i];
    else if (args[i] == "--json") json = true;
    else if (!args[i].starts_with("-") && !named) name = args[i], named = true;
    else return UsageError("service", "unexpected argument '" + std::string(args[i]) + "'");
  }
  const bool time_service = name == defaults::kTimeServiceName;
  if (action == "status") return Status(machine, name, json);
  if (action == "start-type") {
    const std::uint32_t type = type_word == "automatic" || type_word == "auto" ? 2
                               : type_word == "manual"                        ? 3
                               : type_word == "disabled"                      ? 4
                                                                               : 0;
    if (!type) return UsageError("service", "start-type needs automatic, manual or disabled");
    return StartType(machine, name, type);
  }
  if (action == "restart") {
    if (!RestartService(CliServiceOwner(), machine.c_str(), name.c_str()))
      return CliFailure("service", name + " did not restart: " + SystemErrorLine(platform::LastError()));
    std::printf("%s restarted.\n", name.c_str());
    return kExitOk;
  }
  if (!time_service) return Other(machine, name, action == "start");
  if (action == "stop") std::printf("Stopping %s...\n", name.c_str()), std::fflush(stdout);
  const std::uint32_t code = action == "start" ? kServiceOpStart : kServiceOpStop;
  if (!ControlTimeService(CliServiceOwner(), machine.c_str(), code, 1)) return kExitFailed;
  std::printf("%s %s.\n", name.c_str(), action == "start" ? "start requested" : "stopped");
  return kExitOk;
}

int CmdResync(CommandArgs args) {
  std::string machine;
  std::uint32_t wait = 0, flags = kResyncSoft;
  for (std::size_t i = 0; i < args.size(); ++i) {
    if (IsHelp(args[i])) return std::fputs(kResyncHelp, stdout), kExitOk;
    if (args[i] == "--machine" && i + 1 < args.size()) machine = args[++i];
    else if (args[i] == "--wait") wait = 1;
    else if (args[i] == "--hard") flags = kResyncHard;
    else return UsageError("resync", "unexpected argument '" + std::string(args[i]) + "'");
  }
  if (wait) std::printf("Waiting for the time service to synchronise...\n"), std::fflush(stdout);
  const std::uint32_t rc = TriggerResync(CliServiceOwner(), machine.c_str(), wait, flags);
  if (rc == 1) return CliFailure("resync", "the time service cannot be asked to synchronise on this system");
  if (rc != 0) return CliFailure("resync", "the time service did not accept the request: " + SystemErrorLine(rc));
  std::printf(wait ? "The time service has synchronised.\n" : "Resynchronization requested.\n");
  return kExitOk;
}
