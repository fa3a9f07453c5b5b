// The project's provider-interface records against the system's own declarations: every size,
// offset and code must agree, or the module does not build.
#include <windows.h>
#include <timeprov.h>

#include <cstddef>

#include "platform/timeprov.h"

namespace p = platform;

#define SAME_FIELD(type, field) static_assert(offsetof(::type, field) == offsetof(p::type, field), #type "." #field)

static_assert(sizeof(WCHAR) == sizeof(char16_t) && sizeof(HRESULT) == sizeof(p::HResult));
static_assert(sizeof(::TimeProvSysCallbacks) == sizeof(p::TimeProvSysCallbacks));
SAME_FIELD(TimeProvSysCallbacks, pfnGetTimeSysInfo);
SAME_FIELD(TimeProvSysCallbacks, pfnLogTimeProvEvent);
SAME_FIELD(TimeProvSysCallbacks, pfnAlertSamplesAvail);
SAME_FIELD(TimeProvSysCallbacks, pfnSetProviderStatus);
static_assert(sizeof(::TimeSample) == sizeof(p::TimeSample));
SAME_FIELD(TimeSample, dwRefid);
SAME_FIELD(TimeSample, toOffset);
SAME_FIELD(TimeSample, toDelay);
SAME_FIELD(TimeSample, tpDispersion);
SAME_FIELD(TimeSample, nSysTickCount);
SAME_FIELD(TimeSample, nSysPhaseOffset);
SAME_FIELD(TimeSample, nLeapFlags);
SAME_FIELD(TimeSample, nStratum);
SAME_FIELD(TimeSample, dwTSFlags);
SAME_FIELD(TimeSample, wszUniqueName);
static_assert(sizeof(::TpcGetSamplesArgs) == sizeof(p::TpcGetSamplesArgs));
SAME_FIELD(TpcGetSamplesArgs, cbSampleBuf);
SAME_FIELD(TpcGetSamplesArgs, dwSamplesReturned);
SAME_FIELD(TpcGetSamplesArgs, dwSamplesAvailable);
static_assert(sizeof(::SetProviderStatusInfo) == sizeof(p::SetProviderStatusInfo));
SAME_FIELD(SetProviderStatusInfo, dwStratum);
SAME_FIELD(SetProviderStatusInfo, wszProvName);
SAME_FIELD(SetProviderStatusInfo, hWaitEvent);
SAME_FIELD(SetProviderStatusInfo, pfnFree);
SAME_FIELD(SetProviderStatusInfo, pHr);
SAME_FIELD(SetProviderStatusInfo, pdwSysStratum);
static_assert(::TPC_TimeJumped == p::TPC_TimeJumped && ::TPC_UpdateConfig == p::TPC_UpdateConfig &&
              ::TPC_PollIntervalChanged == p::TPC_PollIntervalChanged && ::TPC_GetSamples == p::TPC_GetSamples &&
              ::TPC_NetTopoChange == p::TPC_NetTopoChange && ::TPC_Query == p::TPC_Query &&
              ::TPC_Shutdown == p::TPC_Shutdown);
static_assert(::TSI_LastSyncTime == p::TSI_LastSyncTime && ::TSI_PhaseOffset == p::TSI_PhaseOffset &&
              ::TSI_TickCount == p::TSI_TickCount && ::TSI_LeapFlags == p::TSI_LeapFlags &&
              ::TSI_Stratum == p::TSI_Stratum && ::TSI_ReferenceIdentifier == p::TSI_ReferenceIdentifier &&
              ::TSI_PollInterval == p::TSI_PollInterval && ::TSI_TSFlags == p::TSI_TSFlags);
static_assert(TSF_Hardware == p::TSF_Hardware && TSF_Authenticated == p::TSF_Authenticated);
static_assert(::TPS_Running == p::TPS_Running && ::TPS_Error == p::TPS_Error);
static_assert(EVENTLOG_ERROR_TYPE == p::kEventLogError && EVENTLOG_WARNING_TYPE == p::kEventLogWarning);
