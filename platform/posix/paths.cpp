// Product paths on POSIX: one folder per machine, other machines mounted under the network root.
#include "platform/paths.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <strings.h>

namespace platform {
namespace {

std::string FromEnv(const char* name, const char* fallback) {
  const char* v = std::getenv(name);
  std::string s = (v && *v) ? v : fallback;
  while (s.size() > 1 && s.back() == '/') s.pop_back();
  return s;
}

std::string Slashes(std::string_view p) {
  std::string s(p);
  std::replace(s.begin(), s.end(), '\\', '/');
  return s;
}

}  // namespace

std::string MachineRoot() { return FromEnv("CHRONWARDEN_ROOT", "/var/lib/chronwarden"); }
std::string SystemDirectory() { return MachineRoot() + "/system32"; }
std::string CockpitPackageDirectory() {
  if (const char* root = std::getenv("CHRONWARDEN_ROOT"); root && *root) return FromEnv("CHRONWARDEN_COCKPIT_DIR", "");
  return FromEnv("CHRONWARDEN_COCKPIT_DIR", "/usr/share/cockpit/chronwarden");
}
std::string NetworkRoot() { return FromEnv("CHRONWARDEN_NETWORK_ROOT", "/net"); }
std::string RemoteMachineRoot(std::string_view host) {
  const std::string name(host);
  std::string root = NetworkRoot() + "/" + name;
  std::error_code ec;
  if (std::filesystem::is_directory(root, ec)) return root;
  for (const auto& entry : std::filesystem::directory_iterator(NetworkRoot(), ec))
    if (strcasecmp(entry.path().filename().c_str(), name.c_str()) == 0 && entry.is_directory(ec)) return entry.path().string();
  return root;
}

std::string NativePath(std::string_view path) {
  if (path.size() < 3 || path[0] != '\\' || path[1] != '\\') return Slashes(path);
  std::string_view rest = path.substr(2);
  const auto host_end = rest.find('\\');
  const std::string_view host = rest.substr(0, host_end);
  if (host_end == std::string_view::npos) return RemoteMachineRoot(host);
  rest.remove_prefix(host_end + 1);
  const auto share_end = rest.find('\\');
  const std::string_view share = rest.substr(0, share_end);
  const std::string_view tail = share_end == std::string_view::npos ? std::string_view{} : rest.substr(share_end + 1);
  std::string native = RemoteMachineRoot(host);
  if (share.size() != 6 || strncasecmp(share.data(), "admin$", 6) != 0) native += "/" + std::string(share);
  if (!tail.empty()) native += "/" + Slashes(tail);
  return native;
}

void SetEnvironmentValue(const char* name, const char* value) {
  if (value) setenv(name, value, 1);
  else unsetenv(name);
}

}  // namespace platform
