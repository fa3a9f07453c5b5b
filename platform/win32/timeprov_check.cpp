// The project's provider-interface records against the system's own declarations: every size,
// offset and code must agree, or the module does not build.
// The project's header first: the system's defines the flags as macros.
#include "platform/timeprov.h"

namespace {
constexpr std::uint32_t kOurHardware = platform::TSF_Hardware;
constexpr std::uint32_t kOurAuthenticated = platform::TSF_Authenticated;
}  // namespace

#include <windows.h>
#include <timeprov.h>

#include <cstddef>

namespace p = platform;
#define SAME_CODE(a) static_assert(static_cast<int>(::a) == static_cast<int>(p::a), #a)

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
SAME_CODE(TPC_TimeJumped);
SAME_CODE(TPC_UpdateConfig);
SAME_CODE(TPC_PollIntervalChanged);
SAME_CODE(TPC_GetSamples);
SAME_CODE(TPC_NetTopoChange);
SAME_CODE(TPC_Query);
SAME_CODE(TPC_Shutdown);
SAME_CODE(TSI_LastSyncTime);
SAME_CODE(TSI_ClockTickSize);
SAME_CODE(TSI_ClockPrecision);
SAME_CODE(TSI_CurrentTime);
SAME_CODE(TSI_PhaseOffset);
SAME_CODE(TSI_TickCount);
SAME_CODE(TSI_LeapFlags);
SAME_CODE(TSI_Stratum);
SAME_CODE(TSI_ReferenceIdentifier);
SAME_CODE(TSI_PollInterval);
SAME_CODE(TSI_RootDelay);
SAME_CODE(TSI_RootDispersion);
SAME_CODE(TSI_TSFlags);
SAME_CODE(TPS_Running);
SAME_CODE(TPS_Error);
SAME_CODE(TJF_Default);
SAME_CODE(TJF_UserRequested);
static_assert(TSF_Hardware == kOurHardware && TSF_Authenticated == kOurAuthenticated);
static_assert(EVENTLOG_ERROR_TYPE == p::kEventLogError && EVENTLOG_WARNING_TYPE == p::kEventLogWarning);
