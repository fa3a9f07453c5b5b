// The time service's plug-in interface for time providers: the records, codes and flags that the
// service and a provider exchange, laid out byte for byte as the service's own (64-bit).
// WCHAR is char16_t; HRESULT is a signed 32-bit value; the calling convention is the platform's
// default (the x64 one on Windows, where WINAPI adds nothing). The Windows backend checks every
// size and offset below against the system's own declarations (platform/win32/timeprov_check.cpp).
#pragma once
#include <cstddef>
#include <cstdint>

namespace platform {

using HResult = std::int32_t;            // HRESULT: 0 is S_OK
using TimeProvHandle = void*;            // the provider's handle as the service keeps it

enum TimeProvCmd : std::int32_t {        // TimeProvCommand codes
  TPC_TimeJumped = 0,                    // the clock was stepped; pvArgs: TpcTimeJumpedArgs*
  TPC_UpdateConfig = 1,                  // the settings changed
  TPC_PollIntervalChanged = 2,
  TPC_GetSamples = 3,                    // pvArgs: TpcGetSamplesArgs*
  TPC_NetTopoChange = 4,
  TPC_Query = 5,
  TPC_Shutdown = 6,
};

enum TimeSysInfo : std::int32_t {        // pfnGetTimeSysInfo codes; the answer's type in brackets
  TSI_LastSyncTime = 0,                  // [uint64] file time of the last synchronization (100 ns since 1601)
  TSI_ClockTickSize = 1,                 // [uint64] clock interrupt interval, 100 ns
  TSI_ClockPrecision = 2,                // [int8] log2 seconds
  TSI_CurrentTime = 3,                   // [uint64] file time now
  TSI_PhaseOffset = 4,                   // [int64] phase offset still to be corrected, 100 ns
  TSI_TickCount = 5,                     // [uint64] tick count, 100 ns
  TSI_LeapFlags = 6,                     // [uint8] leap indicator
  TSI_Stratum = 7,                       // [uint8]
  TSI_ReferenceIdentifier = 8,           // [uint32] the source's IPv4 address in network order, or a refid
  TSI_PollInterval = 9,                  // [int8] log2 seconds
  TSI_RootDelay = 10,                    // [int64] 100 ns
  TSI_RootDispersion = 11,               // [uint64] 100 ns
  TSI_TSFlags = 12,                      // [uint32] TSF_ flags of the current source
};

enum TimeJumpedFlags : std::int32_t { TJF_Default = 0, TJF_UserRequested = 1 };
enum TimeProvState : std::int32_t { TPS_Running = 0, TPS_Error = 1 };

inline constexpr std::uint32_t TSF_Hardware = 0x1;        // the sample comes from a hardware clock
inline constexpr std::uint32_t TSF_Authenticated = 0x2;   // the sample's source was authenticated

struct SetProviderStatusInfo;
using SetProviderStatusInfoFreeFunc = void(SetProviderStatusInfo* pspsi);

struct SetProviderStatusInfo {
  TimeProvState tpsCurrentState;
  std::uint32_t dwStratum;
  char16_t* wszProvName;
  void* hWaitEvent;
  SetProviderStatusInfoFreeFunc* pfnFree;   // the service calls it when done with the record
  HResult* pHr;
  std::uint32_t* pdwSysStratum;
};

using GetTimeSysInfoFunc = HResult(TimeSysInfo eInfo, void* pvInfo);
using LogTimeProvEventFunc = HResult(std::uint16_t wType, char16_t* wszProvName, char16_t* wszMessage);
using AlertSamplesAvailFunc = HResult();
using SetProviderStatusFunc = HResult(SetProviderStatusInfo* pspsi);

struct TimeProvSysCallbacks {
  std::uint32_t dwSize;                     // 40
  GetTimeSysInfoFunc* pfnGetTimeSysInfo;
  LogTimeProvEventFunc* pfnLogTimeProvEvent;
  AlertSamplesAvailFunc* pfnAlertSamplesAvail;
  SetProviderStatusFunc* pfnSetProviderStatus;
};

struct TimeSample {
  std::uint32_t dwSize;                     // 568
  std::uint32_t dwRefid;                    // IPv4 address, network order
  std::int64_t toOffset;                    // 100 ns, source minus local
  std::int64_t toDelay;                     // round trip, 100 ns
  std::uint64_t tpDispersion;               // 100 ns
  std::uint64_t nSysTickCount;              // 100 ns
  std::int64_t nSysPhaseOffset;             // 100 ns
  std::uint8_t nLeapFlags;
  std::uint8_t nStratum;
  std::uint32_t dwTSFlags;                  // TSF_ flags
  char16_t wszUniqueName[256];
};

struct TpcGetSamplesArgs {
  std::uint8_t* pbSampleBuf;
  std::uint32_t cbSampleBuf;
  std::uint32_t dwSamplesReturned;
  std::uint32_t dwSamplesAvailable;
};

struct TpcTimeJumpedArgs {
  TimeJumpedFlags tjfFlags;
};

// The three entry points a provider module exports (C linkage, undecorated names).
using TimeProvOpenFunc = HResult(char16_t* wszName, TimeProvSysCallbacks* pSysCallbacks, TimeProvHandle* phTimeProv);
using TimeProvCommandFunc = HResult(TimeProvHandle hTimeProv, TimeProvCmd eCmd, void* pvArgs);
using TimeProvCloseFunc = HResult(TimeProvHandle hTimeProv);

inline constexpr std::uint16_t kEventLogError = 1;     // EVENTLOG_ERROR_TYPE
inline constexpr std::uint16_t kEventLogWarning = 2;   // EVENTLOG_WARNING_TYPE

// The layouts both targets rely on (64-bit).
static_assert(sizeof(void*) == 8, "the provider interface is the 64-bit one");
static_assert(sizeof(TimeProvCmd) == 4 && sizeof(TimeSysInfo) == 4 && sizeof(TimeProvState) == 4);
static_assert(sizeof(TimeProvSysCallbacks) == 40);
static_assert(offsetof(TimeProvSysCallbacks, pfnGetTimeSysInfo) == 8);
static_assert(offsetof(TimeProvSysCallbacks, pfnLogTimeProvEvent) == 16);
static_assert(offsetof(TimeProvSysCallbacks, pfnAlertSamplesAvail) == 24);
static_assert(offsetof(TimeProvSysCallbacks, pfnSetProviderStatus) == 32);
static_assert(sizeof(TimeSample) == 568);
static_assert(offsetof(TimeSample, dwRefid) == 4);
static_assert(offsetof(TimeSample, toOffset) == 8);
static_assert(offsetof(TimeSample, toDelay) == 16);
static_assert(offsetof(TimeSample, tpDispersion) == 24);
static_assert(offsetof(TimeSample, nSysTickCount) == 32);
static_assert(offsetof(TimeSample, nSysPhaseOffset) == 40);
static_assert(offsetof(TimeSample, nLeapFlags) == 48);
static_assert(offsetof(TimeSample, nStratum) == 49);
static_assert(offsetof(TimeSample, dwTSFlags) == 52);
static_assert(offsetof(TimeSample, wszUniqueName) == 56);
static_assert(sizeof(TpcGetSamplesArgs) == 24);
static_assert(offsetof(TpcGetSamplesArgs, cbSampleBuf) == 8);
static_assert(offsetof(TpcGetSamplesArgs, dwSamplesReturned) == 12);
static_assert(offsetof(TpcGetSamplesArgs, dwSamplesAvailable) == 16);
static_assert(sizeof(SetProviderStatusInfo) == 48);
static_assert(offsetof(SetProviderStatusInfo, dwStratum) == 4);
static_assert(offsetof(SetProviderStatusInfo, wszProvName) == 8);
static_assert(offsetof(SetProviderStatusInfo, hWaitEvent) == 16);
static_assert(offsetof(SetProviderStatusInfo, pfnFree) == 24);
static_assert(offsetof(SetProviderStatusInfo, pHr) == 32);
static_assert(offsetof(SetProviderStatusInfo, pdwSysStratum) == 40);

}  // namespace platform
