// Parts of platform/machine.h that are the same on every system.
#include <atomic>
#include <cctype>
#include <mutex>
#include <string>

#include "platform/machine.h"

#include <algorithm>

#include "platform/error.h"
#include "platform/file.h"

#ifndef CW_BUILD
#define CW_BUILD 1
#endif

namespace platform {

namespace {
std::mutex g_moves_lock;
std::string g_fail_name;
int g_fail_count = 0;
}  // namespace

std::atomic<int> g_admin_override{-1};

void SetAdministratorOverride(int answer) { g_admin_override = answer; }

std::uint64_t ThisFileVersion() { return (std::uint64_t(4) << 48) | (std::uint64_t(2) << 32) | std::uint64_t(CW_BUILD); }

void FailMovesOf(std::string_view file_name, int n) {
  std::lock_guard lock(g_moves_lock);
  g_fail_name = file_name;
  g_fail_count = n;
}

// True (and one failure used up) when a move of path is to fail; the backends call it.
bool MoveShouldFail(std::string_view path) {
  std::lock_guard lock(g_moves_lock);
  if (g_fail_count <= 0 || g_fail_name.empty() || path.size() < g_fail_name.size()) return false;
  std::string_view tail = path.substr(path.size() - g_fail_name.size());
  for (std::size_t i = 0; i < tail.size(); ++i)
    if (std::tolower(static_cast<unsigned char>(tail[i])) != std::tolower(static_cast<unsigned char>(g_fail_name[i])))
      return false;
  --g_fail_count;
  return true;
}

namespace {

// Writes all of bytes at the file pointer.
bool WriteAll(FileHandle file, std::string_view bytes) {
  while (!bytes.empty()) {
    std::uint32_t done = 0;
    const auto chunk = static_cast<std::uint32_t>(std::min<std::size_t>(bytes.size(), 1u << 30));
    if (!FileWrite(file, bytes.data(), chunk, done)) return false;
    if (done == 0) return SetLastError(kErrorWriteFault), false;
    bytes.remove_prefix(done);
  }
  return true;
}

}  // namespace

bool WriteFileWhole(std::string_view path, std::string_view bytes, bool readable_by_all) {
  const std::string part = std::string(path) + ".part";
  const FileHandle file = FileCreate(part, kGenericWrite, 0, kCreateAlways, 0);
  if (!file) return false;
  bool done = WriteAll(file, bytes);
  FileClose(file);
  done = done && (!readable_by_all || SecureDataFile(part)) && MoveFileReplacing(part, path);
  if (done) return true;
  const std::uint32_t error = LastError();
  FileDelete(part);   // the failure to report is the one above
  SetLastError(error ? error : kErrorGenFailure);
  return false;
}

}  // namespace platform
