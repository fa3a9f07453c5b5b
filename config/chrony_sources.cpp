// The time service's servers as a chrony sources file, reloaded and checked.
#include "config/chrony_sources.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string_view>
#include <vector>

#include "config/defaults.h"
#include "config/registry.h"
#include "platform/error.h"
#include "platform/machine.h"
#include "platform/paths.h"
#include "platform/registry.h"
#include "platform/service.h"

namespace {

constexpr std::uint32_t kFlagSpecialInterval = 0x1;
constexpr std::uint32_t kFlagSymmetricActive = 0x4;
constexpr std::uint32_t kFlagClientMode = 0x8;

bool IsPool(const std::string& name) { return name.rfind("pool.", 0) == 0 || name.find(".pool.") != std::string::npos; }

std::string Setting(const char* value, const std::string& fallback) {
  char buf[1024];
  reg_get_string(reg_local(), defaults::kW32TimeParametersKey, value, buf, sizeof buf, "\x01");
  return buf[0] == '\x01' ? fallback : buf;
}

// The source names chronyc lists (-N: as configured), one per source line.
std::vector<std::string> ListedNames(const std::string& output) {
  std::vector<std::string> names;
  std::istringstream in(output);
  std::string line;
  bool body = false;
  while (std::getline(in, line)) {
    if (line.rfind("===", 0) == 0) body = true;
    else if (body) {
      std::istringstream words(line);
      std::string mode, name;
      if (words >> mode >> name) names.push_back(name);
    }
  }
  return names;
}

// A line's words, without a comment ('#', '%', ';' or '!' first).
std::vector<std::string> Words(const std::string& line) {
  std::vector<std::string> words;
  std::istringstream in(line);
  for (std::string w; in >> w;) words.push_back(w);
  if (!words.empty() && std::string_view("#%;!").find(words[0][0]) != std::string_view::npos) words.clear();
  return words;
}

// The files a pattern names: the pattern itself, or with '*' or '?' in its file name, the files of
// its folder that match, in name order.
std::vector<std::filesystem::path> Matching(const std::filesystem::path& pattern) {
  const std::string leaf = pattern.filename().string();
  if (leaf.find_first_of("*?") == std::string::npos) return {pattern};
  const auto matches = [](std::string_view p, std::string_view n, auto& self) -> bool {
    if (p.empty()) return n.empty();
    if (p[0] == '*') return self(p.substr(1), n, self) || (!n.empty() && self(p, n.substr(1), self));
    return !n.empty() && (p[0] == '?' || p[0] == n[0]) && self(p.substr(1), n.substr(1), self);
  };
  std::vector<std::filesystem::path> files;
  std::error_code ec;
  for (const auto& e : std::filesystem::directory_iterator(pattern.parent_path(), ec))
    if (matches(leaf, e.path().filename().string(), matches)) files.push_back(e.path());
  std::sort(files.begin(), files.end());
  return files;
}

void ReadSources(const std::filesystem::path& file, const std::filesystem::path& skip, int depth,
                 std::vector<ChronySource>& out) {
  std::error_code ec;
  if (depth > 4 || (!skip.empty() && std::filesystem::equivalent(file, skip, ec))) return;
  std::ifstream in(file);
  for (std::string line; std::getline(in, line);) {
    const auto w = Words(line);
    if (w.size() < 2) continue;
    if (w[0] == "server" || w[0] == "pool" || w[0] == "peer") {
      out.push_back({w[0], w[1]});
    } else if (w[0] == "sourcedir" || w[0] == "confdir") {
      for (std::size_t i = 1; i < w.size(); ++i)
        for (const auto& f : Matching(std::filesystem::path(w[i]) / (w[0] == "sourcedir" ? "*.sources" : "*.conf")))
          ReadSources(f, skip, depth + 1, out);
    } else if (w[0] == "include") {
      for (const auto& f : Matching(w[1])) ReadSources(f, skip, depth + 1, out);
    }
  }
}

bool Named(const std::vector<ChronySource>& sources, const char* name) {
  return std::any_of(sources.begin(), sources.end(), [&](const ChronySource& c) { return c.name == name; });
}

int Fail(std::uint32_t code) {
  platform::SetLastError(code);
  return 0;
}

}  // namespace

std::string chrony_source_line(const W32tServer& e, std::uint32_t poll_interval_s) {
  const std::string name = e.name;
  std::string line = (e.flags & kFlagSymmetricActive) ? "peer " : IsPool(name) ? "pool " : "server ";
  line += name;
  if (!(e.flags & kFlagSymmetricActive)) line += " iburst";
  if ((e.flags & kFlagSpecialInterval) && poll_interval_s) {
    const int p = std::clamp(int(std::lround(std::log2(double(poll_interval_s)))), 3, 17);
    line += " minpoll " + std::to_string(p) + " maxpoll " + std::to_string(p);
  }
  return line;
}

std::vector<ChronySource> chrony_config_sources(const std::string& conf, const std::string& skip) {
  std::vector<ChronySource> out;
  if (!conf.empty()) ReadSources(conf, skip, 0, out);
  return out;
}

std::string chrony_default_sources_file() {
  return platform::MachineRoot() == defaults::kDefaultMachineRoot ? defaults::kChronySourcesFile : "";
}

std::string chrony_default_config_file() {
  return platform::MachineRoot() == defaults::kDefaultMachineRoot ? defaults::kChronyConfigFile : "";
}

std::string chrony_command_socket(const char* machine) {
  while (machine && *machine == '\\') ++machine;
  std::string socket = defaults::kChronySocket;
  if (machine && *machine) return socket;
  platform::RegKey key = nullptr;
  if (platform::RegOpenKey(platform::RegLocalMachine(), defaults::kChronyParametersKey, platform::kKeyRead, key) == 0) {
    char buf[1024] = {};
    std::uint32_t type = 0, size = sizeof buf - 1;
    if (platform::RegQueryValue(key, defaults::kChronySocketValue, &type, buf, &size) == 0 && type == platform::kRegSz &&
        buf[0])
      socket = buf;
    platform::RegCloseKey(key);
  }
  return socket;
}

std::vector<ChronySource> chrony_machine_sources() {
  return chrony_config_sources(Setting(defaults::kChronyConfigValue, chrony_default_config_file()),
                               Setting(defaults::kChronySourcesValue, chrony_default_sources_file()));
}

bool chrony_import_sources(W32tSettings& s) {
  const std::vector<ChronySource> sources = chrony_machine_sources();
  if (s.server_count != 0) return !sources.empty();
  for (const ChronySource& c : sources) {
    if (s.server_count == kW32tMaxServers) break;
    if (c.name.size() >= sizeof s.servers[0].name) continue;
    bool known = false;
    for (std::uint32_t i = 0; i < s.server_count; ++i) known |= c.name == s.servers[i].name;
    if (known) continue;
    W32tServer& e = s.servers[s.server_count++];
    e = W32tServer{};
    std::memcpy(e.name, c.name.data(), c.name.size());
    e.flags = c.kind == "peer" ? kFlagSymmetricActive : kFlagClientMode;
  }
  return s.server_count != 0;
}

std::string chrony_sources_text(const W32tSettings& s, const std::vector<ChronySource>& skip) {
  std::string text = "# Written by Chronwarden from the Windows Time settings (sync type ";
  text += w32t_type_text(s.sync_type);
  text += "); it is replaced whenever they are saved.\n";
  if (s.sync_type == kW32tNoSync) return text;
  for (std::uint32_t i = 0; i < s.server_count && i < kW32tMaxServers; ++i)
    if (s.servers[i].name[0] && !Named(skip, s.servers[i].name))
      text += chrony_source_line(s.servers[i], s.ntp_client_poll_interval) + "\n";
  return text;
}

int chrony_apply_settings(const W32tSettings& s) {
  const std::string path = Setting(defaults::kChronySourcesValue, chrony_default_sources_file());
  if (path.empty()) return platform::SetLastError(0), 1;
  const std::filesystem::path file(path);
  std::error_code ec;
  if (!std::filesystem::is_directory(file.parent_path(), ec)) return platform::SetLastError(0), 1;   // no chrony here
  const std::string socket = Setting(defaults::kChronySocketValue, defaults::kChronySocket);

  const std::string text = chrony_sources_text(s, chrony_machine_sources());
  // Only a file is read (a folder in its place throws on reading): anything else is replaced.
  std::ifstream old;
  if (std::filesystem::is_regular_file(file, ec)) old.open(file, std::ios::binary);
  const std::string before((std::istreambuf_iterator<char>(old)), std::istreambuf_iterator<char>());
  const bool changed = !old.is_open() || before != text;
  std::string out;
  if (changed) {
    // chronyd reads it again after dropping its rights: everybody may read it.
    if (!platform::WriteFileWhole(path, text, true)) return Fail(platform::LastError());
    const int rc = platform::ChronyCommand(socket, "reload sources", out);
    if (rc < 0) return Fail(platform::kErrorFileNotFound);
    if (rc != 0) return Fail(platform::kErrorServerUnavailable);
  }
  // chrony 4.3 can drop a source that is removed and added again in one reload: add back any that
  // is missing, then check again.
  for (int pass = 0; pass < 2; ++pass) {
    const int rc = platform::ChronyCommand(socket, "sources", out);
    if (rc < 0) return Fail(platform::kErrorFileNotFound);
    if (rc != 0) return Fail(platform::kErrorServerUnavailable);
    const auto listed = ListedNames(out);
    bool missing = false;
    for (std::uint32_t i = 0; s.sync_type != kW32tNoSync && i < s.server_count && i < kW32tMaxServers; ++i) {
      const W32tServer& e = s.servers[i];
      if (!e.name[0] || std::find(listed.begin(), listed.end(), std::string(e.name)) != listed.end()) continue;
      missing = true;
      if (pass == 0) platform::ChronyCommand(socket, "add " + chrony_source_line(e, s.ntp_client_poll_interval), out);
    }
    if (!missing) return platform::SetLastError(0), 1;
  }
  return Fail(platform::kErrorInvalidData);
}
