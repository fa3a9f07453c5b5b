#include "cli/file_output.h"

#include <algorithm>

#include "platform/error.h"
#include "platform/file.h"
#include "platform/machine.h"

namespace {

// Writes all of bytes at the file pointer.
bool WriteAll(platform::FileHandle file, std::string_view bytes) {
  while (!bytes.empty()) {
    std::uint32_t done = 0;
    const auto chunk = static_cast<std::uint32_t>(std::min<std::size_t>(bytes.size(), 1u << 30));
    if (!platform::FileWrite(file, bytes.data(), chunk, done)) return false;
    if (done == 0) return platform::SetLastError(platform::kErrorWriteFault), false;
    bytes.remove_prefix(done);
  }
  return true;
}

}  // namespace

std::uint32_t WriteFileWhole(const std::string& path, std::string_view bytes, bool readable_by_all) {
  const std::string part = path + ".part";
  const platform::FileHandle file =
      platform::FileCreate(part, platform::kGenericWrite, 0, platform::kCreateAlways, 0);
  if (!file) return platform::LastError();
  const bool written = WriteAll(file, bytes);
  const std::uint32_t write_error = written ? 0 : platform::LastError();
  platform::FileClose(file);
  const bool done = written && (!readable_by_all || platform::SecureDataFile(part)) &&
                    platform::MoveFileReplacing(part, path);
  if (done) return 0;
  const std::uint32_t error = written ? platform::LastError() : write_error;
  platform::FileDelete(part);   // the failure to report is the one above
  return error ? error : platform::kErrorGenFailure;
}
