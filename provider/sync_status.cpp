// The sync status block and the activity map over the platform's named sections and events.
#include "provider/sync_status.h"

#include <atomic>
#include <cstring>
#include <mutex>
#include <string>

#include "config/defaults.h"
#include "platform/error.h"
#include "platform/os.h"
#include "platform/shared.h"
#include "provider/event_log.h"
#include "provider/provider.h"
#include "timing/activity.h"

namespace {

std::mutex g_status_lock;   // opening and closing the block
struct {
  bool opened = false;
  platform::SectionHandle section = nullptr;
  SyncStatusBlock* block = nullptr;
  platform::EventHandle notify = nullptr;
} g_status;

platform::SectionHandle g_activity_section = nullptr;
std::atomic<std::uint32_t*> g_activity{nullptr};
std::mutex g_activity_lock;

std::string Global(const char* name) { return std::string(kGlobalPrefix) + name; }

// The words are written one at a time, in the order readers rely on.
void Put(std::uint32_t& word, std::uint32_t value) {
  std::atomic_ref<std::uint32_t>(word).store(value, std::memory_order_release);
}

// An object found under one of the family's names that is not the family's is logged by name.
void LogRefused() {
  const std::string notice = platform::TakeSharedObjectNotice();
  if (!notice.empty()) LogEvent(kProviderName, platform::kEventLogWarning, "%s", notice.c_str());
}

platform::SectionHandle CreateSection(const char* name, std::uint32_t size, bool& existed) {
  platform::SectionHandle s = platform::CreateNamedSection(name, size, existed);
  LogRefused();
  return s;
}

platform::EventHandle MakeNamedEvent(const char* name) {
  platform::EventHandle e = platform::CreateNamedEvent(name);
  LogRefused();
  return e;
}

void MarkSlot(std::uint32_t slot) {
  std::uint32_t* map = g_activity.load(std::memory_order_acquire);
  if (map && slot < kActivitySlots) std::atomic_ref<std::uint32_t>(map[slot]).store(kActivityMark, std::memory_order_relaxed);
}

}  // namespace

const SyncStatusBlock* OpenSyncStatus(std::uint32_t product_code, platform::EventHandle* out_notify) {
  std::lock_guard lock(g_status_lock);
  if (!g_status.opened) {
    g_status.opened = true;
    g_status.notify = MakeNamedEvent(Global(kSyncStatusEventName).c_str());
    if (!g_status.notify) g_status.notify = MakeNamedEvent(kSyncStatusEventName);
    bool existed = false;
    g_status.section = CreateSection(Global(kSyncStatusName).c_str(), sizeof(SyncStatusBlock), existed);
    if (!g_status.section && platform::LastError() != platform::kErrorAccessDenied)  // no block at all
      g_status.section = CreateSection(kSyncStatusName, sizeof(SyncStatusBlock), existed);
    const bool owner = product_code != 0;
    if (g_status.section)
      g_status.block = static_cast<SyncStatusBlock*>(platform::MapSection(g_status.section, sizeof(SyncStatusBlock), owner));
    if (g_status.block && owner) {
      SyncStatusBlock& b = *g_status.block;
      Put(b.size, sizeof(SyncStatusBlock));
      Put(b.owner_product, product_code);
      Put(b.major_version, defaults::kVersionMajor);
      Put(b.minor_version, defaults::kVersionMinor);
      Put(b.build_year, defaults::kBuildYear);
      Put(b.build_month_day, defaults::kBuildMonthDay);
      Put(b.closed_mark, 1);
      Put(b.owner_active, 1);
      PulseSyncStatus();
    }
  }
  if (out_notify) *out_notify = g_status.notify;
  return g_status.block;
}

void CloseSyncStatus(bool as_owner) {
  std::lock_guard lock(g_status_lock);
  if (!g_status.opened) return;
  if (as_owner && g_status.block) {
    Put(g_status.block->closed_mark, 1);
    Put(g_status.block->owner_active, 0);
    PulseSyncStatus();
  }
  platform::CloseEvent(g_status.notify);
  platform::UnmapSection(g_status.block, sizeof(SyncStatusBlock));
  platform::CloseSection(g_status.section);
  g_status = {};
}

bool ReadSyncStatus(SyncStatusBlock& out) {
  constexpr std::uint32_t kSize = sizeof(SyncStatusBlock);
  platform::SectionHandle s = platform::OpenNamedSection(Global(kSyncStatusName).c_str(), kSize);
  if (!s && platform::LastError() != platform::kErrorAccessDenied) s = platform::OpenNamedSection(kSyncStatusName, kSize);
  void* view = platform::MapSection(s, kSize, false);
  if (view) {
    // Word by word, as the owner writes them (release stores): each an acquire load. The view is
    // mapped read-only; an atomic load only reads it.
    auto* words = static_cast<std::uint32_t*>(view);
    std::uint32_t copy[kSize / 4];
    for (std::uint32_t i = 0; i < kSize / 4; ++i)
      copy[i] = std::atomic_ref<std::uint32_t>(words[i]).load(std::memory_order_acquire);
    std::memcpy(&out, copy, kSize);
  }
  platform::UnmapSection(view, kSize);
  platform::CloseSection(s);
  return view != nullptr;
}

void PulseSyncStatus() {
  platform::EventHandle e = g_status.notify;
  if (!e) return;
  platform::Sleep(0);
  platform::SetEvent(e);
  platform::Sleep(kSyncStatusPulseMs);
  platform::ResetEvent(e);
}

bool OpenActivityMap() {
  std::lock_guard lock(g_activity_lock);
  if (g_activity.load()) return true;
  platform::OsVersion v{};
  bool existed = false;
  platform::SectionHandle s = nullptr;
  if (platform::GetOsVersion(v) && v.major >= 5) s = CreateSection(Global(kActivityMapName).c_str(), kActivitySlots * 4, existed);
  if (!s) s = CreateSection(kActivityMapName, kActivitySlots * 4, existed);
  if (!s) return false;
  auto* view = static_cast<std::uint32_t*>(platform::MapSection(s, kActivitySlots * 4, true));
  if (!view) {
    platform::CloseSection(s);
    return false;
  }
  if (!existed) std::memset(view, 0, kActivitySlots * 4);
  g_activity_section = s;
  g_activity.store(view, std::memory_order_release);
  SetActivityMarker(&MarkSlot);
  return true;
}

void CloseActivityMap() {
  std::lock_guard lock(g_activity_lock);
  SetActivityMarker(nullptr);
  std::uint32_t* view = g_activity.exchange(nullptr);
  platform::UnmapSection(view, kActivitySlots * 4);
  platform::CloseSection(g_activity_section);
  g_activity_section = nullptr;
}

const volatile std::uint32_t* ActivityMapView() { return g_activity.load(std::memory_order_acquire); }
