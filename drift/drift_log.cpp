// The applet-side snapshot of a drift history file.
#include "drift/drift_log.h"

#include <cctype>
#include <cstdio>
#include <cstring>
#include <new>
#include <string_view>

#include "config/defaults.h"
#include "platform/error.h"
#include "platform/error_text.h"
#include "platform/text.h"

namespace {


void CopyText(char* out, std::size_t size, std::string_view text) {
  std::memset(out, 0, size);
  std::memcpy(out, text.data(), text.size() < size - 1 ? text.size() : size - 1);
}

std::string_view WithoutExtension(std::string_view name) {
  const auto dot = name.rfind('.');
  return dot == std::string_view::npos ? name : name.substr(0, dot);
}

void ResetView(DriftLog& log) {
  log.first_shown = 0;
  log.per_screen = defaults::kDriftRecordsPerScreen;
  log.end_shown = 0;
  log.follow_newest = true;
  log.record_count = 0;
  log.loaded_size = 0;
  log.average_interval = 0;
  log.graph_word = 0;
  log.last_error = 0;
}

bool Fail(DriftLog& log, std::uint32_t code) {
  log.last_error = code;
  platform::SetLastError(code);
  return false;
}

// Takes a whole file's contents of `size` bytes, which `read(into, size)` puts into the records, as
// the snapshot: validated (a size that is not whole records, a record of a wrong version or check
// time: 87), the average interval worked out, and the view moved to the newest records when it
// follows them. An unchanged size keeps what the last load took.
template <typename Read>
bool TakeContents(DriftLog& log, std::uint64_t size, Read read) {
  if (size % kDriftRecordSize != 0) return Fail(log, platform::kErrorInvalidParameter);
  // A drift file holds at most a little over 16,384 records; anything near 4 GB cannot be held.
  if (size > 0xFFFFFFFFull - kDriftRecordSize) return Fail(log, platform::kErrorNotEnoughMemory);
  if (size == log.loaded_size) {
    log.last_error = 0;
    platform::SetLastError(0);
    return true;
  }

  log.changed = true;
  log.records.reset();
  log.point_cache = {};
  log.loaded_size = static_cast<std::uint32_t>(size);
  log.record_count = log.loaded_size / kDriftRecordSize;
  log.average_interval = 0;
  log.records.reset(new (std::nothrow) DriftRecord[log.record_count + 1]());
  if (!log.records) return Fail(log, platform::kErrorNotEnoughMemory);

  if (!read(log.records.get(), log.loaded_size)) return false;

  std::uint32_t sum = 0;
  for (std::uint32_t i = 0; i < log.record_count; ++i) {
    if (!DriftRecordValid(log.records[i])) return Fail(log, platform::kErrorInvalidParameter);
    if (i > 0) sum += log.records[i].check_time - log.records[i - 1].check_time;   // wraps, as unsigned
  }
  if (log.record_count >= 2) log.average_interval = sum / (log.record_count - 1);

  if (log.follow_newest) {
    const std::uint32_t page = defaults::kDriftRecordsPerScreen;
    log.per_screen = log.record_count < page ? log.record_count : page;
    log.first_shown = log.record_count < page ? 0 : log.record_count - page;
    log.end_shown = log.first_shown + log.per_screen;
  }
  log.last_error = 0;
  platform::SetLastError(0);
  return true;
}

}  // namespace

void DriftLogErrorText(std::uint32_t code, char* out, std::uint32_t size) {
  if (code == platform::kErrorInvalidParameter)
    std::snprintf(out, size, "%s", "the file is either not a drift record file, or it is corrupted.");
  else
    SystemErrorText(code, out, size);
}

void DriftLogSetPath(DriftLog& log, const char* path) { CopyText(log.path, sizeof log.path, path ? path : ""); }

void DriftLogDisplayName(DriftLog& log) {
  const std::string_view path(log.path);
  auto sep = path.rfind('\\');
  if (sep == std::string_view::npos) sep = path.rfind('/');
  std::string_view name;
  if (sep == std::string_view::npos) name = WithoutExtension(path);
  else if (platform::EqualsNoCase(path.substr(sep + 1), defaults::kDriftFileName)) name = path;
  else name = WithoutExtension(path.substr(sep + 1));
  CopyText(log.display_name, sizeof log.display_name, name);
}

bool DriftLogLoad(const DriftUi* owner, DriftLog& log) {
  log.changed = false;
  if (log.path[0] == 0) {
    const bool chosen = owner && owner->choose_file && owner->choose_file(*owner, log);
    if (!chosen || log.path[0] == 0) return Fail(log, platform::kErrorCancelled);
  }
  if (log.display_name[0] == 0) DriftLogDisplayName(log);
  if (!log.file) {
    ResetView(log);
    log.file = platform::FileCreate(log.path, platform::kGenericRead, platform::kShareRead | platform::kShareWrite,
                                    platform::kOpenExisting, platform::kFlagSequentialScan);
    if (!log.file) return Fail(log, platform::LastError());
  }
  std::uint64_t size = 0;
  if (!platform::FileSize(log.file, size)) return Fail(log, platform::LastError());
  return TakeContents(log, size, [&](void* into, std::uint32_t bytes) {
    std::uint32_t done = 0;
    if (!platform::FileSeek(log.file, 0, platform::SeekFrom::Begin)) return Fail(log, platform::LastError());
    if (bytes != 0) {
      if (!platform::FileRead(log.file, into, bytes, done)) return Fail(log, platform::LastError());
      if (done < bytes) return Fail(log, platform::kErrorHandleEof);
    }
    return true;
  });
}

bool DriftLogLoadBytes(DriftLog& log, const void* data, std::size_t size) {
  log.changed = false;
  return TakeContents(log, size, [&](void* into, std::uint32_t bytes) {
    if (bytes != 0) std::memcpy(into, data, bytes);
    return true;
  });
}

bool DriftLogReset(DriftLog& log) {
  platform::FileClose(log.file);
  log.file = nullptr;
  log.records.reset();
  log.changed = false;
  ResetView(log);
  log.display_name[0] = 0;
  log.point_cache = {};
  return true;
}

bool DriftLogLoadWithUser(const DriftUi* owner, DriftLog& log) {
  while (!DriftLogLoad(owner, log)) {
    if (log.path[0] == 0) return false;
    char reason[129] = {};
    DriftLogErrorText(log.last_error, reason, sizeof reason);
    char text[kDriftPathMax + 256] = {};
    std::snprintf(text, sizeof text, "Could not load file %s; %s\r\n\r\nWould you like to try a different file?",
                  log.path, reason);
    if (!owner || !owner->ask_yes_no || !owner->ask_yes_no(*owner, kDriftUiCaption, text)) {
      platform::SetLastError(log.last_error);
      return false;
    }
    // Another file: the snapshot lets go of this one (its handle would otherwise be read again in
    // place of the chosen file), and the empty path makes the next load ask for a file.
    DriftLogReset(log);
    log.path[0] = 0;
  }
  return true;
}
