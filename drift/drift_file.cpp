// The drift history file inside the time provider.
#include "drift/drift_file.h"

#include <algorithm>
#include <atomic>
#include <cctype>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>
#include <optional>
#include <string>
#include <vector>

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
// A lock whose wait gives up after a time: a flag under a mutex, waited for on a condition
// variable (every step of it visible to ThreadSanitizer, unlike a timed mutex's timed lock).
class WaitLock {
 public:
  // True when the lock was taken within ms.
  bool try_lock_for(std::chrono::milliseconds ms) {
    std::unique_lock hold(mutex_);
    if (!freed_.wait_for(hold, ms, [this] { return !held_; })) return false;
    held_ = true;
    return true;
  }
  void unlock() {
    {
      std::lock_guard hold(mutex_);
      held_ = false;
    }
    freed_.notify_one();
  }

 private:
  std::mutex mutex_;
  std::condition_variable freed_;
  bool held_ = false;
};

WaitLock g_lock;
std::atomic<bool> g_lock_exists{false};
platform::FileHandle g_file = nullptr;   // guarded by g_lock
std::string g_path;                      // the open file's path; guarded by g_lock

// The history's folder is one the host's group may write and root opens it too: a link planted at
// its name is refused, never followed.
constexpr std::uint32_t kOpenFlags = platform::kAttrNotContentIndexed | platform::kFlagSequentialScan | platform::kFlagNoLinks;
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

// The writers' lock between processes (platform::FileLockWriters), held while the file is changed
// (a torn tail cut, a trim, an append, a clear): writers in several processes then never write
// over each other's records. Taken inside the process-local lock. Releasing it keeps the last error.
class WritersLock {
 public:
  explicit WritersLock(platform::FileHandle file)
      : file_(file), held_(platform::FileLockWriters(file, defaults::kDriftLockWaitMs)) {}
  ~WritersLock() {
    if (!held_) return;
    const std::uint32_t error = platform::LastError();
    platform::FileUnlockWriters(file_);   // closing the handle releases it all the same
    platform::SetLastError(error);
  }
  WritersLock(const WritersLock&) = delete;
  WritersLock& operator=(const WritersLock&) = delete;
  bool Held() const { return held_; }

 private:
  platform::FileHandle file_;
  bool held_;
};

// The history as last read for a question, and for each record the latest check time up to it,
// which never decreases even when a clock step put the times out of order: the first record later
// than a time is then found by binary search. Guarded by g_lock.
class HistoryIndex {
 public:
  // Brings the index up to the file's whole records, with one read: the file only ever grows at
  // its end or is cut back to a new start (by this process or another), so while the record the
  // index ends with is still in its place only what follows it is read, otherwise the whole file.
  // False, with the failing step's error (the index then empty), when the file could not be read.
  bool Refresh(platform::FileHandle file) {
    std::uint64_t size = 0;
    if (!platform::FileSize(file, size)) return Forget(), false;
    const std::uint64_t count = std::min<std::uint64_t>(size / kDriftRecordSize, kMaxRecords);
    if (records_.empty() || count < records_.size()) return Read(file, 0, count);
    const std::size_t last = records_.size() - 1;
    const DriftRecord known = records_[last];
    if (!Read(file, last, count)) return false;
    if (records_.size() > last && std::memcmp(&records_[last], &known, sizeof known) == 0) return true;
    return Read(file, 0, count);   // not where it was: the file was cut back (and grew again)
  }
  // The first record later than after (unsigned comparison).
  std::optional<DriftRecord> FirstAfter(std::uint32_t after) const {
    const auto it = std::upper_bound(latest_.begin(), latest_.end(), after);
    if (it == latest_.end()) return std::nullopt;
    return records_[static_cast<std::size_t>(it - latest_.begin())];
  }
  void Forget() {
    records_ = {};
    latest_ = {};
  }

 private:
  static constexpr std::uint64_t kMaxRecords = 0xFFFFFFFFu / kDriftRecordSize;   // what one read can take

  // Reads records first .. count - 1 in place of those the index has from first on.
  bool Read(platform::FileHandle file, std::uint64_t first, std::uint64_t count) {
    try {
      records_.resize(count);
      latest_.resize(first);
    } catch (const std::bad_alloc&) {
      Forget();
      return platform::SetLastError(platform::kErrorNotEnoughMemory), false;
    }
    if (first == count) return true;
    std::uint32_t done = 0;
    if (!platform::FileSeek(file, static_cast<std::int64_t>(first * kDriftRecordSize), platform::SeekFrom::Begin) ||
        !platform::FileRead(file, &records_[first], static_cast<std::uint32_t>((count - first) * kDriftRecordSize), done))
      return Forget(), false;
    records_.resize(first + done / kDriftRecordSize);   // the file was cut meanwhile
    for (std::size_t i = first; i < records_.size(); ++i)
      latest_.push_back(std::max(latest_.empty() ? 0 : latest_.back(), records_[i].check_time));
    return true;
  }

  std::vector<DriftRecord> records_;
  std::vector<std::uint32_t> latest_;
};

HistoryIndex g_index;

// Cuts a torn tail back to the last whole record. The caller holds the lock. False, with the
// failing step's error, when the size is unknown or the tail is still there.
bool RepairTornTail(platform::FileHandle file) {
  std::uint64_t size = 0;
  if (!platform::FileSize(file, size)) return false;
  if (size % kDriftRecordSize == 0) return true;
  if (!platform::FileSeek(file, static_cast<std::int64_t>(size - size % kDriftRecordSize), platform::SeekFrom::Begin) ||
      !platform::FileSetEnd(file))
    return false;
  platform::FileFlush(file);   // the cut is made; on disk soon enough when this fails
  return true;
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
    if (g_file) {
      g_path = path;
      // Not in the middle of another process's append: the tail it is writing is not torn.
      const WritersLock writers(g_file);
      if (writers.Held()) RepairTornTail(g_file);
    }
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
  g_path.clear();
  g_index.Forget();
  g_lock_exists.store(false);
}

bool DriftFileClear() {
  DriftLock lock;
  if (!lock.Usable() || !g_file) return platform::SetLastError(platform::kErrorInvalidHandle), false;
  const WritersLock writers(g_file);
  if (!writers.Held()) return false;
  std::uint64_t size = 0;
  if (!platform::FileSize(g_file, size)) return false;
  size -= size % kDriftRecordSize;   // a torn tail is no record
  if (size > 0) {
    std::string history;
    try {
      history.resize(size);
    } catch (const std::bad_alloc&) {
      return platform::SetLastError(platform::kErrorNotEnoughMemory), false;
    }
    std::uint32_t done = 0;
    if (!platform::FileSeek(g_file, 0, platform::SeekFrom::Begin) ||
        !platform::FileRead(g_file, history.data(), static_cast<std::uint32_t>(size), done))
      return false;
    if (done != size) return platform::SetLastError(platform::kErrorReadFault), false;
    if (!platform::FileWriteWholeLike(g_path + defaults::kDriftPreviousSuffix, history, g_file)) return false;
  }
  g_index.Forget();
  if (!platform::FileSeek(g_file, 0, platform::SeekFrom::Begin) || !platform::FileSetEnd(g_file)) return false;
  return platform::FileFlush(g_file);
}

bool DriftFileReadAfter(DriftRecord& out, std::uint32_t after_time) {
  std::optional<DriftRecord> found;
  {
    DriftLock lock;
    if (lock.Usable() && g_file && g_index.Refresh(g_file)) found = g_index.FirstAfter(after_time);
  }
  out = found.value_or(DriftRecord{});
  return found.has_value();
}

namespace {

// Trims a file at the cap to its newest half: one read from the end, one write at the start, then
// the cut. The caller holds the lock. False, with the failing step's error, when a step failed; the
// file is cut only after the newest half was written whole, so no failure loses records.
bool TrimToNewestHalf(platform::FileHandle file) {
  std::unique_ptr<std::uint8_t[]> keep(new (std::nothrow) std::uint8_t[defaults::kDriftFileKeepBytes]());
  if (!keep) return true;   // no room to trim in: the file grows past the cap this once
  std::uint32_t done = 0;
  if (!platform::FileSeek(file, -static_cast<std::int64_t>(defaults::kDriftFileKeepBytes), platform::SeekFrom::End) ||
      !platform::FileRead(file, keep.get(), defaults::kDriftFileKeepBytes, done))
    return false;
  if (done != defaults::kDriftFileKeepBytes) return platform::SetLastError(platform::kErrorReadFault), false;
  if (!platform::FileSeek(file, 0, platform::SeekFrom::Begin) ||
      !platform::FileWrite(file, keep.get(), defaults::kDriftFileKeepBytes, done))
    return false;
  if (done != defaults::kDriftFileKeepBytes) return platform::SetLastError(platform::kErrorWriteFault), false;
  // The newest half is at the start now: cut there even when the flush fails, so that the file
  // never holds it twice, and report the flush.
  const bool flushed = platform::FileFlush(file);
  const std::uint32_t error = platform::LastError();
  if (!platform::FileSetEnd(file)) return false;
  if (!flushed) return platform::SetLastError(error), false;
  return true;
}

}  // namespace

bool DriftFileAppend(std::int64_t variance_ms, std::uint32_t check_time, std::uint32_t clock_set, std::uint8_t reason,
                     const char* source_name, std::uint8_t machine_type) {
  // The name is resolved before the lock is taken: a slow look-up must not hold up the other users
  // of the file (the responder's history queries, a clear) for as long as it takes.
  const std::uint32_t address = SourceAddress(source_name);
  DriftLock lock;
  if (!lock.Usable() || !g_file) return platform::SetLastError(platform::kErrorInvalidHandle), false;
  const WritersLock writers(g_file);
  if (!writers.Held()) return false;
  std::uint64_t size = 0;
  if (!RepairTornTail(g_file) || !platform::FileSize(g_file, size)) return false;
  if (size >= defaults::kDriftFileCapBytes && !TrimToNewestHalf(g_file)) return false;

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
  record.address = address;

  std::uint32_t done = 0;
  std::uint64_t end = 0;
  if (!platform::FileSeek(g_file, 0, platform::SeekFrom::End, &end)) return false;
  bool written = platform::FileWrite(g_file, &record, kDriftRecordSize, done);
  std::uint32_t error = written ? 0 : platform::LastError();
  if (written && done != kDriftRecordSize) written = false, error = platform::kErrorDiskFull;   // a short write
  if (written && !platform::FileFlush(g_file)) written = false, error = platform::LastError();
  if (written) {
    platform::FileSetEnd(g_file);
    return true;
  }
  if (!error) error = platform::kErrorWriteFault;
  // A full disk takes part of a record, a failed flush leaves it unsure: cut it off again (cutting
  // needs no space).
  platform::FileSeek(g_file, static_cast<std::int64_t>(end), platform::SeekFrom::Begin);
  platform::FileSetEnd(g_file);
  platform::FileFlush(g_file);
  platform::SetLastError(error);
  return false;
}
