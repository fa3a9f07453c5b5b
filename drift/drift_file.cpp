// The drift history file inside the time provider.
#include "drift/drift_file.h"

#include <atomic>
#include <cctype>
#include <chrono>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>

#include "config/defaults.h"
#include "platform/clock.h"
#include "platform/error.h"
#include "platform/file.h"
#include "platform/paths.h"
#include "platform/net.h"

namespace {

// The lock is created by the first open and retired by close. The mutex object itself lives for
// the whole process so that a thread still waiting on it when the file closes never touches a
// destroyed object; "exists" is what open creates and close destroys.
std::timed_mutex g_lock;
std::atomic<bool> g_lock_exists{false};
platform::FileHandle g_file = nullptr;   // guarded by g_lock

constexpr std::uint32_t kOpenFlags = platform::kAttrNotContentIndexed | platform::kFlagSequentialScan;
constexpr std::uint32_t kShareReadWrite = platform::kShareRead | platform::kShareWrite;

// Holds the lock for one operation; false when the lock does not exist or the wait failed.
class DriftLock {
 public:
  DriftLock() {
    if (!g_lock_exists.load()) return;
    if (!g_lock.try_lock_for(std::chrono::milliseconds(defaults::kDriftLockWaitMs))) return;
    held_ = true;
  }
  ~DriftLock() {
    if (held_) g_lock.unlock();
  }
  DriftLock(const DriftLock&) = delete;
  DriftLock& operator=(const DriftLock&) = delete;
  // Held, and the file was not closed while this thread waited.
  bool Usable() const { return held_ && g_lock_exists.load(); }
  bool Held() const { return held_; }

 private:
  bool held_ = false;
};

// Cuts a torn tail back to the last whole record. The caller holds the lock.
void RepairTornTail(platform::FileHandle file) {
  std::uint64_t size = 0;
  if (!platform::FileSize(file, size) || size % kDriftRecordSize == 0) return;
  if (platform::FileSeek(file, static_cast<std::int64_t>(size - size % kDriftRecordSize), platform::SeekFrom::Begin) &&
      platform::FileSetEnd(file))
    platform::FileFlush(file);
}

bool EqualsNoCase(const char* a, const char* b) {
  for (; *a && *b; ++a, ++b)
    if (std::tolower(static_cast<unsigned char>(*a)) != std::tolower(static_cast<unsigned char>(*b))) return false;
  return *a == *b;
}

std::uint32_t SourceAddress(const char* source_name) {
  if (!source_name) return kAddressUnresolved;
  std::uint32_t address = platform::InetAddr(source_name);
  if (address != kAddressUnresolved) return address;
  if (EqualsNoCase(source_name, "Averaged Time")) return kAddressAveraged;
  std::uint32_t resolved = 0;
  if (*source_name && platform::LookupHostV4(source_name, resolved)) address = resolved;
  return address;
}

}  // namespace

std::string DriftFilePath(std::string_view machine) {
  while (!machine.empty() && machine.front() == '\\') machine.remove_prefix(1);
  if (machine.empty()) {
    std::string dir = platform::SystemDirectory().substr(0, 127);
    return dir + "\\" + defaults::kDriftFileName;
  }
  return "\\\\" + std::string(machine) + "\\admin$\\system32\\" + defaults::kDriftFileName;
}

bool DriftFileSecure(std::string_view path) {
  const auto create_and_close = [&] {
    platform::FileHandle f = platform::FileCreate(path, platform::kGenericRead | platform::kGenericWrite,
                                                  kShareReadWrite, platform::kOpenAlways, kOpenFlags);
    platform::FileClose(f);
    return f != nullptr;
  };
  const bool created = create_and_close();
  platform::SetLastError(0);
  const bool ok = platform::SecureDataFile(path);
  const std::uint32_t kept = platform::LastError();
  if (!created) create_and_close();
  platform::SetLastError(kept);
  return ok;
}

bool DriftFileOpen(std::string_view machine) { return DriftFileOpenPath(DriftFilePath(machine)); }

bool DriftFileOpenPath(std::string_view path) {
  g_lock_exists.store(true);
  if (!g_lock.try_lock_for(std::chrono::milliseconds(defaults::kDriftLockWaitMs))) {
    // Deliberately unlike the other operations: a failed wait drops the handle (without the lock).
    platform::FileClose(g_file);
    g_file = nullptr;
    return false;
  }
  if (!g_file) {
    DriftFileSecure(path);
    g_file = platform::FileCreate(path, platform::kGenericRead | platform::kGenericWrite, kShareReadWrite,
                                  platform::kOpenAlways, kOpenFlags);
    if (g_file) RepairTornTail(g_file);
  }
  const bool valid = g_file != nullptr;
  const std::uint32_t error = platform::LastError();
  g_lock.unlock();
  platform::SetLastError(valid ? 0 : error);
  return valid;
}

void DriftFileClose() {
  DriftLock lock;
  if (!lock.Usable()) return;
  platform::FileClose(g_file);
  g_file = nullptr;
  g_lock_exists.store(false);
}

void DriftFileClear() {
  DriftLock lock;
  if (!lock.Usable() || !g_file) return;
  platform::FileFlush(g_file);
  platform::FileSeek(g_file, 0, platform::SeekFrom::Begin);
  platform::FileSetEnd(g_file);
  platform::FileFlush(g_file);
}

bool DriftFileReadAfter(DriftRecord& out, std::uint32_t after_time) {
  bool found = false;
  {
    DriftLock lock;
    if (lock.Usable() && g_file && platform::FileSeek(g_file, 0, platform::SeekFrom::Begin)) {
      std::uint32_t done = 0;
      while (platform::FileRead(g_file, &out, kDriftRecordSize, done) && done == kDriftRecordSize) {
        if (out.check_time > after_time) {
          found = true;
          break;
        }
      }
    }
  }
  if (!found) std::memset(&out, 0, sizeof out);
  return found;
}

bool DriftFileAppend(std::int64_t variance_ms, std::uint32_t check_time, std::uint32_t clock_set, std::uint8_t reason,
                     const char* source_name, std::uint8_t machine_type) {
  DriftLock lock;
  if (!lock.Usable() || !g_file) return platform::SetLastError(platform::kErrorInvalidHandle), false;
  RepairTornTail(g_file);

  std::uint64_t size = 0;
  if (platform::FileSize(g_file, size) && size >= defaults::kDriftFileCapBytes) {
    // Keep the newest half: one read from the end, one write at the start, then cut.
    std::unique_ptr<std::uint8_t[]> keep(new (std::nothrow) std::uint8_t[defaults::kDriftFileKeepBytes]());
    if (keep) {
      std::uint32_t done = 0;
      platform::FileSeek(g_file, -static_cast<std::int64_t>(defaults::kDriftFileKeepBytes), platform::SeekFrom::End);
      platform::FileRead(g_file, keep.get(), defaults::kDriftFileKeepBytes, done);
      platform::FileSeek(g_file, 0, platform::SeekFrom::Begin);
      platform::FileWrite(g_file, keep.get(), defaults::kDriftFileKeepBytes, done);
      platform::FileFlush(g_file);
      platform::FileSetEnd(g_file);
    }
  }

  DriftRecord record{};
  record.version = kDriftRecordVersion;
  record.flags = static_cast<std::uint8_t>(((machine_type & 0x7F) << 1) | (clock_set & 1));
  record.reason = reason;
  record.check_time = check_time;
  record.variance_ms = SaturateVarianceMs(variance_ms);
  std::uint32_t adjustment = 0, increment = 0;
  bool disabled = false;
  if (platform::SystemTimeAdjustment(adjustment, increment, disabled))
    SetDriftPhaseAdjustment(record, static_cast<std::int32_t>(adjustment - increment));
  record.address = SourceAddress(source_name);

  std::uint32_t done = 0;
  std::uint64_t end = 0;
  platform::FileSeek(g_file, 0, platform::SeekFrom::End, &end);
  if (platform::FileWrite(g_file, &record, kDriftRecordSize, done) && done == kDriftRecordSize &&
      platform::FileFlush(g_file)) {
    platform::FileSetEnd(g_file);
    return true;
  }
  // A full disk takes part of a record: cut it off again (cutting needs no space).
  const std::uint32_t error = platform::LastError();
  platform::FileSeek(g_file, static_cast<std::int64_t>(end), platform::SeekFrom::Begin);
  platform::FileSetEnd(g_file);
  platform::FileFlush(g_file);
  platform::SetLastError(error);
  return false;
}
