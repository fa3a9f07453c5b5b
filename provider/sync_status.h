// The product family's shared objects on one machine: the sync status block with its notify event,
// through which the family's own time service announces that it runs (its owner writes it, every
// other process reads it), and the activity map, whose 64 slots the network code marks.
// Both are cross-process formats: eight (block) and 64 (map) unsigned 32-bit little-endian words.
#pragma once
#include <cstdint>

#include "platform/sync.h"

// The 32-byte sync status block.
struct SyncStatusBlock {
  std::uint32_t size;             // 32
  std::uint32_t owner_active;     // 1 while an owner has the block open, 0 after it closed it
  std::uint32_t owner_product;    // the owner's product code
  std::uint32_t major_version;    // 4
  std::uint32_t minor_version;    // 2
  std::uint32_t build_year;       // 2008
  std::uint32_t build_month_day;  // 1210
  std::uint32_t closed_mark;      // 1, written at creation and again when the owner closes
};
static_assert(sizeof(SyncStatusBlock) == 32);

inline constexpr const char* kSyncStatusName = "kairtim-sync-status-shared-memory";
inline constexpr const char* kSyncStatusEventName = "kairtim-sync-status-notify-event";
inline constexpr const char* kActivityMapName = "kairtim-activity";
inline constexpr const char* kGlobalPrefix = "Global\\";
inline constexpr std::uint32_t kActivitySlots = 64;
inline constexpr std::uint32_t kActivityMark = 5;          // the value a mark stores
inline constexpr std::uint32_t kSyncStatusPulseMs = 55;    // how long a pulse keeps the event set (ms)

// Opens the block, once per process (a further call returns the same view and event): product_code
// 0 as a reader (read-only view), any other as the owner, which writes the header and pulses.
// *out_notify (when given) receives the notify event, or nullptr when there is none. Returns the
// view, or nullptr when there is no block (access denied, or the view failed).
const SyncStatusBlock* OpenSyncStatus(std::uint32_t product_code, platform::EventHandle* out_notify);
// Closes the view, the section and the event; an owner first signs off (closed mark 1, then owner
// active 0, and a pulse). After a close the block may be opened again.
void CloseSyncStatus(bool as_owner);
// Copies the block when a process of the family has made it, creating nothing: a watcher from
// outside (the exporter) leaves no object behind that could outlive it or be removed with it.
// The names are tried as OpenSyncStatus tries them. False when there is no block.
bool ReadSyncStatus(SyncStatusBlock& out);
// Keeps the notify event set for 55 ms, so that every waiter in every process wakes once.
void PulseSyncStatus();

// Opens the activity map, once per process, and makes activity marks (timing/activity.h) store into
// it. A new map starts all zero; an existing one keeps its contents. False when there is no map.
bool OpenActivityMap();
void CloseActivityMap();       // marks are dropped again
// The map as this process sees it (64 words), or nullptr when it is not open.
const volatile std::uint32_t* ActivityMapView();
