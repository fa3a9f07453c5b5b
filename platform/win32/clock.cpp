// Wall time and the performance counter on Windows.
#include <windows.h>

#include <atomic>

#include "platform/clock.h"
#include "platform/sys.h"

namespace platform {
namespace {

std::atomic<WallClock> g_mode{WallClock::Fine};

std::uint64_t FromFileTime(const FILETIME& ft) {
  return (static_cast<std::uint64_t>(ft.dwHighDateTime) << 32) | ft.dwLowDateTime;
}
FILETIME ToFileTime(std::uint64_t t) {
  return FILETIME{static_cast<DWORD>(t), static_cast<DWORD>(t >> 32)};
}

using PreciseFn = VOID(WINAPI*)(LPFILETIME);
PreciseFn LookupPrecise() {
  HMODULE k = ::GetModuleHandleA("kernel32.dll");
  return k ? reinterpret_cast<PreciseFn>(reinterpret_cast<void*>(::GetProcAddress(k, "GetSystemTimePreciseAsFileTime"))) : nullptr;
}

}  // namespace

void SetWallClockMode(WallClock mode) { g_mode.store(mode); }
WallClock GetWallClockMode() { return g_mode.load(); }

std::uint64_t sys::SystemTimeAsFileTime() {
  FILETIME ft;
  ::GetSystemTimeAsFileTime(&ft);
  return FromFileTime(ft);
}

// GetSystemTimePreciseAsFileTime where the system has it (Windows 8 and later), else the system time.
std::uint64_t sys::FineWallTimeAsFileTime() {
  static const PreciseFn precise = LookupPrecise();
  FILETIME ft;
  if (precise) precise(&ft);
  else ::GetSystemTimeAsFileTime(&ft);
  return FromFileTime(ft);
}

bool sys::FineWallTimeIsPrecise() {
  static const bool precise = LookupPrecise() != nullptr;
  return precise;
}

bool sys::PerformanceCounter(std::int64_t& ticks) {
  LARGE_INTEGER v;
  if (!::QueryPerformanceCounter(&v)) return false;
  ticks = v.QuadPart;
  return true;
}
bool sys::PerformanceFrequency(std::int64_t& hz) {
  LARGE_INTEGER v;
  if (!::QueryPerformanceFrequency(&v)) return false;
  hz = v.QuadPart;
  return true;
}

bool sys::SystemTimeAdjustment(std::uint32_t& adjustment, std::uint32_t& increment, bool& disabled) {
  DWORD adj = 0, inc = 0;
  BOOL off = FALSE;
  if (!::GetSystemTimeAdjustment(&adj, &inc, &off)) return false;
  adjustment = adj;
  increment = inc;
  disabled = off != FALSE;
  return true;
}

bool FileTimeToSystemTime(std::uint64_t file_time, SystemTime& out) {
  FILETIME ft = ToFileTime(file_time);
  SYSTEMTIME st;
  if (!::FileTimeToSystemTime(&ft, &st)) return false;
  out = SystemTime{st.wYear, st.wMonth, st.wDayOfWeek, st.wDay, st.wHour, st.wMinute, st.wSecond, st.wMilliseconds};
  return true;
}

bool FileTimeToLocalFileTime(std::uint64_t utc, std::uint64_t& local) {
  FILETIME in = ToFileTime(utc), out;
  if (!::FileTimeToLocalFileTime(&in, &out)) return false;
  local = FromFileTime(out);
  return true;
}

}  // namespace platform
