// Services on Linux: the backend is chosen at run time (systemd when it runs, else the supervisor
// of the store's service keys); the resync request and chrony commands run chronyc.
#include "platform/service.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "platform/error.h"
#include "platform/paths.h"
#include "platform/posix/service_systemd.h"
#include "platform/registry.h"

extern char** environ;

namespace platform {

namespace {

constexpr const char* kServicesKey = "System\\CurrentControlSet\\Services\\";

bool Fail(std::uint32_t code) {
  SetLastError(code);
  return false;
}

std::string Host(const char* machine) {
  std::string m = machine ? machine : "";
  while (!m.empty() && m.front() == '\\') m.erase(0, 1);
  return m;
}

// The registry of the service's machine, open while this lives.
struct Store {
  RegKey root = nullptr;
  bool remote = false;
  explicit Store(const std::string& host) {
    if (host.empty()) root = RegLocalMachine();
    else if (RegConnectRegistry("\\\\" + host, false, root) == 0) remote = true;
    else root = nullptr;
  }
  ~Store() { if (remote) RegCloseKey(root); }
};

}  // namespace

struct ServiceObject {
  bool manager;
  bool systemd;
  std::string host;   // "" for the local machine
  std::string name;   // the service's name (services only)
  void* bus = nullptr;   // the systemd backend's connection (managers)
  ServiceObject* owner = nullptr;   // a service's manager
};

namespace {

std::string MachineRootOf(const std::string& host) { return host.empty() ? MachineRoot() : RemoteMachineRoot(host); }
std::string RunDir(const ServiceObject* s) { return MachineRootOf(s->host) + "/run"; }
std::string PidFile(const ServiceObject* s) { return RunDir(s) + "/" + s->name + ".pid"; }
std::string StopFile(const ServiceObject* s) { return RunDir(s) + "/" + s->name + ".stop"; }

bool ReadValue(const ServiceObject* s, const char* value, std::string* text, std::uint32_t* number) {
  Store store(s->host);
  RegKey key = nullptr;
  if (!store.root || RegOpenKey(store.root, kServicesKey + s->name, kKeyRead, key) != 0) return false;
  char buf[4096] = {};
  std::uint32_t type = 0, size = sizeof buf - 1;
  const bool ok = RegQueryValue(key, value, &type, buf, &size) == 0;
  RegCloseKey(key);
  if (!ok) return false;
  if (text) *text = std::string(buf, strnlen(buf, size));
  if (number) {
    if (size > 4) return false;
    std::uint32_t n = 0;
    std::memcpy(&n, buf, size);
    *number = n;
  }
  return true;
}

// The pid of the running program; 0 when none lives (stale files are removed).
pid_t LivePid(const ServiceObject* s) {
  std::ifstream in(PidFile(s));
  long pid = 0;
  if (!(in >> pid) || pid <= 0) return 0;
  std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
  std::string line;
  std::getline(stat, line);
  const auto close = line.rfind(')');
  const bool alive = close != std::string::npos && close + 2 < line.size() && line[close + 2] != 'Z' &&
                     line[close + 2] != 'X';
  if (alive) return pid_t(pid);
  ::unlink(PidFile(s).c_str());
  ::unlink(StopFile(s).c_str());
  return 0;
}

// The state of the service whose live process is pid (0: none).
void SupervisorStatusOf(const ServiceObject* s, pid_t pid, ServiceStatus& status) {
  status = ServiceStatus{};
  if (pid <= 0) {
    status.current_state = kServiceStopped;
    return;
  }
  struct stat st;
  if (::stat(StopFile(s).c_str(), &st) != 0) {
    status.current_state = kServiceRunning;
    return;
  }
  status.current_state = kServiceStopPending;
  status.check_point = std::uint32_t(::time(nullptr) - st.st_mtime) + 1;
  std::uint32_t hint = 0;
  if (ReadValue(s, "StopWaitHint", nullptr, &hint)) status.wait_hint = hint;
}

void SupervisorStatus(const ServiceObject* s, ServiceStatus& status) { SupervisorStatusOf(s, LivePid(s), status); }

// The command line split at blanks; double quotes group.
std::vector<std::string> SplitCommandLine(const std::string& line) {
  std::vector<std::string> args;
  std::string cur;
  bool quoted = false, any = false;
  for (char c : line) {
    if (c == '"') quoted = !quoted, any = true;
    else if (c == ' ' && !quoted) {
      if (any) args.push_back(cur);
      cur.clear();
      any = false;
    } else cur += c, any = true;
  }
  if (any) args.push_back(cur);
  return args;
}

bool SupervisorStart(const ServiceObject* s) {
  std::uint32_t start = kServiceDemandStart;
  ReadValue(s, "Start", nullptr, &start);
  if (start == kServiceDisabledStart) return Fail(kErrorServiceDisabled);
  if (LivePid(s)) return Fail(kErrorAlreadyRunning);
  std::string image;
  ReadValue(s, "ImagePath", &image, nullptr);
  std::vector<std::string> args = SplitCommandLine(image);
  if (args.empty()) return Fail(kErrorFileNotFound);
  ::mkdir(RunDir(s).c_str(), 0755);
  ::unlink(StopFile(s).c_str());

  // Everything the children use is prepared before fork: only async-signal-safe calls follow it.
  std::vector<char*> argv;
  for (auto& a : args) argv.push_back(a.data());
  argv.push_back(nullptr);
  std::string root_env = "CHRONWARDEN_ROOT=" + MachineRootOf(s->host);
  std::vector<char*> envp;
  for (char** e = environ; *e; ++e)
    if (std::strncmp(*e, "CHRONWARDEN_ROOT=", 17) != 0) envp.push_back(*e);
  envp.push_back(root_env.data());
  envp.push_back(nullptr);
  const std::string log = RunDir(s) + "/" + s->name + ".log";

  int pipefd[2];
  if (::pipe2(pipefd, O_CLOEXEC) != 0) return Fail(kErrorNotEnoughMemory);
  const pid_t child = ::fork();
  if (child < 0) return ::close(pipefd[0]), ::close(pipefd[1]), Fail(kErrorNotEnoughMemory);
  if (child == 0) {
    ::setsid();
    const pid_t daemon = ::fork();
    if (daemon != 0) {
      int32_t p = daemon;
      (void)!::write(pipefd[1], &p, sizeof p);
      ::_exit(0);
    }
    int null = ::open("/dev/null", O_RDONLY);
    int out = ::open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
    if (null >= 0) ::dup2(null, 0);
    if (out < 0) out = ::open("/dev/null", O_WRONLY);   // never the caller's own output
    if (out >= 0) ::dup2(out, 1), ::dup2(out, 2);
    sigset_t none;
    sigemptyset(&none);
    ::sigprocmask(SIG_SETMASK, &none, nullptr);
    ::execve(argv[0], argv.data(), envp.data());
    int32_t err = errno;
    (void)!::write(pipefd[1], &err, sizeof err);
    ::_exit(127);
  }
  ::close(pipefd[1]);
  int status = 0;
  ::waitpid(child, &status, 0);
  int32_t daemon = 0, err = 0;
  const bool got_pid = ::read(pipefd[0], &daemon, sizeof daemon) == sizeof daemon;
  const bool failed = ::read(pipefd[0], &err, sizeof err) == sizeof err;
  ::close(pipefd[0]);
  if (!got_pid) return Fail(kErrorNotEnoughMemory);
  if (failed) return Fail(err == ENOENT || err == ENOTDIR ? kErrorFileNotFound : kErrorAccessDenied);
  const std::string tmp = PidFile(s) + ".tmp";
  std::ofstream(tmp) << daemon << "\n";
  ::rename(tmp.c_str(), PidFile(s).c_str());
  return true;
}

bool SupervisorControl(const ServiceObject* s, std::uint32_t control, ServiceStatus& status) {
  // The process is looked up once: the state and the signal go to the same one. Looked up twice, a
  // process ending in between left pid 0, and kill(0, ...) signalled the caller's own process group
  // (a restart under load ended the command that asked for it, and whatever ran it).
  const pid_t pid = LivePid(s);
  SupervisorStatusOf(s, pid, status);
  switch (control) {
    case kServiceControlInterrogate:
      return true;
    case kServiceControlStop:
      if (status.current_state == kServiceStopped) return Fail(kErrorNotActive);
      if (status.current_state == kServiceStopPending) return Fail(kErrorCannotAcceptControl);
      std::ofstream(StopFile(s)) << "";
      ::kill(pid, SIGTERM);
      SupervisorStatus(s, status);
      return true;
    case kServiceControlParamChange:
      if (status.current_state != kServiceRunning) return Fail(kErrorNotActive);
      ::kill(pid, SIGHUP);
      return true;
    default:
      return Fail(kErrorInvalidServiceControl);
  }
}

bool UseSystemd() {
  const char* choice = std::getenv("CHRONWARDEN_SERVICE_BACKEND");
  if (choice && *choice) return std::strcmp(choice, "systemd") == 0;
  struct stat st;
  return ::stat("/run/systemd/system", &st) == 0;
}

// Runs argv, its output (stdout and stderr) into output. The exit status, or -1 when it could not run.
int Run(std::vector<std::string> args, std::string& output) {
  output.clear();
  std::vector<char*> argv;
  for (auto& a : args) argv.push_back(a.data());
  argv.push_back(nullptr);
  int out[2];
  if (::pipe2(out, O_CLOEXEC) != 0) return -1;
  int err[2];
  if (::pipe2(err, O_CLOEXEC) != 0) return ::close(out[0]), ::close(out[1]), -1;
  const pid_t pid = ::fork();
  if (pid == 0) {
    ::dup2(out[1], 1);
    ::dup2(out[1], 2);
    ::execvp(argv[0], argv.data());
    (void)!::write(err[1], "x", 1);
    ::_exit(127);
  }
  ::close(out[1]);
  ::close(err[1]);
  char buf[4096];
  for (ssize_t n; pid > 0 && (n = ::read(out[0], buf, sizeof buf)) != 0;)
    if (n > 0) output.append(buf, n);
    else if (errno != EINTR) break;
  char x;
  const bool exec_failed = pid > 0 && ::read(err[0], &x, 1) == 1;
  ::close(out[0]);
  ::close(err[0]);
  int status = 0;
  if (pid < 0 || ::waitpid(pid, &status, 0) < 0 || exec_failed) return -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace

ServiceHandle OpenServiceManager(const char* machine, std::uint32_t) {
  auto* m = new ServiceObject{true, UseSystemd(), Host(machine), "", nullptr, nullptr};
  if (m->systemd) {
    if (!systemd_backend::Connect(m->host, m->bus)) return delete m, nullptr;
  } else if (!m->host.empty() && !Store(m->host).root) {
    delete m;
    return Fail(kErrorServerUnavailable), nullptr;
  }
  SetLastError(0);
  return m;
}

ServiceHandle OpenNamedService(ServiceHandle manager, const char* name, std::uint32_t) {
  if (!manager || !manager->manager || !name || !*name) return Fail(kErrorInvalidHandle), nullptr;
  auto* s = new ServiceObject{false, manager->systemd, manager->host, name, nullptr, manager};
  Store store(s->host);
  RegKey key = nullptr;
  const bool known = store.root && RegOpenKey(store.root, kServicesKey + s->name, kKeyRead, key) == 0;
  if (key) RegCloseKey(key);
  if (!s->systemd && !known) return delete s, Fail(kErrorNoSuchService), nullptr;
  if (s->systemd) {
    std::string unit = s->name + ".service";
    ReadValue(s, "SystemdUnit", &unit, nullptr);
    if (!systemd_backend::OpenUnit(manager->bus, unit, s->bus)) return delete s, nullptr;
  }
  SetLastError(0);
  return s;
}

void CloseServiceHandle(ServiceHandle handle) {
  if (!handle) return;
  if (handle->systemd) {
    if (handle->manager) systemd_backend::Disconnect(handle->bus);
    else systemd_backend::CloseUnit(handle->bus);
  }
  delete handle;
}

bool QueryServiceStatus(ServiceHandle service, ServiceStatus& status) {
  if (!service || service->manager) return Fail(kErrorInvalidHandle);
  if (service->systemd) return systemd_backend::Status(service->owner->bus, service->bus, status);
  SupervisorStatus(service, status);
  return true;
}

bool ControlService(ServiceHandle service, std::uint32_t control, ServiceStatus& status) {
  if (!service || service->manager) return Fail(kErrorInvalidHandle);
  if (service->systemd) return systemd_backend::Control(service->owner->bus, service->bus, control, status);
  return SupervisorControl(service, control, status);
}

bool GetServiceConfig(ServiceHandle service, ServiceConfig& config) {
  if (!service || service->manager) return Fail(kErrorInvalidHandle);
  if (service->systemd) return systemd_backend::Config(service->owner->bus, service->bus, config);
  config = ServiceConfig{};
  config.start_type = kServiceDemandStart;
  ReadValue(service, "Start", nullptr, &config.start_type);
  ReadValue(service, "ImagePath", &config.binary_path, nullptr);
  config.display_name = service->name;
  ReadValue(service, "DisplayName", &config.display_name, nullptr);
  return true;
}

bool ChangeServiceStartType(ServiceHandle service, std::uint32_t start_type) {
  if (!service || service->manager) return Fail(kErrorInvalidHandle);
  if (start_type < kServiceAutoStart || start_type > kServiceDisabledStart) return Fail(kErrorInvalidParameter);
  if (service->systemd) return systemd_backend::SetStartType(service->owner->bus, service->bus, start_type);
  Store store(service->host);
  RegKey key = nullptr;
  if (!store.root) return Fail(kErrorServerUnavailable);
  std::uint32_t rc = RegOpenKey(store.root, kServicesKey + service->name, kKeyWrite | kKeyRead, key);
  if (rc == 0) rc = RegSetValue(key, "Start", kRegDword, &start_type, sizeof start_type), RegCloseKey(key);
  if (rc != 0) return Fail(rc);
  SetLastError(0);
  return true;
}

bool StartNamedService(ServiceHandle service) {
  if (!service || service->manager) return Fail(kErrorInvalidHandle);
  if (service->systemd) return systemd_backend::Start(service->owner->bus, service->bus);
  if (!SupervisorStart(service)) return false;
  SetLastError(0);
  return true;
}

ServiceHandle InstallService(ServiceHandle manager, const char* name, const char* display_name,
                             const char* command_line, std::uint32_t start_type) {
  if (!manager || !manager->manager || !name || !*name) return Fail(kErrorInvalidHandle), nullptr;
  if (manager->systemd) return Fail(kErrorNotSupported), nullptr;
  Store store(manager->host);
  RegKey key = nullptr;
  std::uint32_t rc = store.root ? RegCreateKey(store.root, kServicesKey + std::string(name), kKeyAllAccess, key)
                                : kErrorServerUnavailable;
  if (rc == 0) {
    const std::string dn = display_name ? display_name : name;
    RegSetValue(key, "ImagePath", kRegExpandSz, command_line, std::uint32_t(std::strlen(command_line) + 1));
    RegSetValue(key, "DisplayName", kRegSz, dn.c_str(), std::uint32_t(dn.size() + 1));
    const std::uint32_t type = 0x10;   // an own-process service
    RegSetValue(key, "Type", kRegDword, &type, 4);
    RegSetValue(key, "Start", kRegDword, &start_type, 4);
    RegCloseKey(key);
  }
  if (rc != 0) return Fail(rc), nullptr;
  return OpenNamedService(manager, name, kServiceAllAccess);
}

bool DeleteService(ServiceHandle service) {
  if (!service || service->manager) return Fail(kErrorInvalidHandle);
  if (service->systemd) return Fail(kErrorNotSupported);
  Store store(service->host);
  const std::uint32_t rc = store.root ? RegDeleteKey(store.root, kServicesKey + service->name) : kErrorServerUnavailable;
  if (rc != 0) return Fail(rc);
  SetLastError(0);
  return true;
}

std::string ServiceBackendName() { return UseSystemd() ? "systemd" : "supervisor"; }

int ChronyCommand(const std::string& socket_path, const std::string& command, std::string& output) {
  return Run({"chronyc", "-n", "-N", "-h", socket_path, command}, output);
}

bool TimeSyncNow(const char* machine, const std::string& chrony_socket, std::uint32_t wait, std::uint32_t flags,
                 std::uint32_t& result) {
  std::vector<std::string> args;
  const std::string host = Host(machine);
  if (!host.empty()) args = {"ssh", "-o", "BatchMode=yes", host};
  for (const char* a : {"chronyc", "-n", "-m", "-h"}) args.emplace_back(a);
  args.push_back(chrony_socket);
  args.emplace_back("burst 4/4");
  if (flags & 0x1) args.emplace_back("makestep");
  if (wait) args.emplace_back("waitsync 30 0 0 1");
  std::string output;
  const int rc = Run(args, output);
  if (rc < 0) return Fail(kErrorFileNotFound);
  result = rc == 0 ? 0 : output.find("Cannot talk") != std::string::npos ? kErrorServerUnavailable : kErrorGenFailure;
  return true;
}

}  // namespace platform
