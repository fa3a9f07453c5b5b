// Parts of platform/machine.h that are the same on every system.
#include "platform/machine.h"

#include <algorithm>
#include <string>

#include "platform/error.h"
#include "platform/file.h"

#ifndef CW_BUILD
#define CW_BUILD 1
#endif

namespace platform {

std::uint64_t ThisFileVersion() { return (std::uint64_t(4) << 48) | (std::uint64_t(2) << 32) | std::uint64_t(CW_BUILD); }

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
