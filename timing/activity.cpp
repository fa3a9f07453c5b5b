// The activity marker hook.
#include "timing/activity.h"

#include <atomic>

namespace {
std::atomic<ActivityMarker> g_marker{nullptr};
}  // namespace

void SetActivityMarker(ActivityMarker marker) { g_marker.store(marker, std::memory_order_release); }

void MarkActivity(std::uint32_t slot) {
  if (const ActivityMarker marker = g_marker.load(std::memory_order_acquire)) marker(slot);
}
