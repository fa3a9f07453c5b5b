// Drift record fields and code texts.
#include "drift/drift_record.h"

#include <cstring>

#include "timing/format.h"

const char* CheckReasonName(std::uint8_t code) {
  switch (code) {
    case kReasonScheduled: return "Scheduled";
    case kReasonControlPanel: return "Control Panel";
    case kReasonTriggered: return "Triggered";
    case kReasonKr2Broadcast: return "KR2 BCast";
    case kReasonNtpBroadcast: return "NTP BCast";
    case kReasonSyncCheck: return "Sync Check";
    case kReasonTraining: return "Training";
    case kReasonKr2Multicast: return "KR2 MCast";
    case kReasonNtpMulticast: return "NTP MCast";
    case kReasonClockChange: return "Clock change";
    case kReasonPowerResume: return "Power resume";
    case kReasonStartup: return "Startup";
    default: return "Unknown";
  }
}

std::string DriftSourceName(std::uint32_t address, bool self_name) {
  if (address == kAddressAveraged) return "Averaged Time";
  if (self_name && address == kAddressSelf) return "Self";
  char buf[16];
  return FormatIPv4(address, buf);
}

const char* MachineTypeName(std::uint8_t code) {
  switch (code) {
    case kMachineMasterServer: return "Master Server";
    case kMachineSlaveServer: return "Slave Server";
    case kMachineIndependentServer: return "Indp. Server";
    case kMachineFullClient: return "Full Client";
    case kMachineThinClient: return "Thin Client";
    case kMachineUltraThin: return "Ultra Thin";
    case kMachineChronwarden: return "Chronwarden";
    case kMachineNtpServer: return "NTP Server";
    default: return "Unknown";
  }
}

std::int32_t DriftPhaseAdjustment(const DriftRecord& r) {
  std::uint32_t word;
  std::memcpy(&word, reinterpret_cast<const std::uint8_t*>(&r) + 1, sizeof word);
  return static_cast<std::int32_t>(word) >> 8;
}

void SetDriftPhaseAdjustment(DriftRecord& r, std::int32_t value) {
  const auto v = static_cast<std::uint32_t>(value);
  r.phase[0] = static_cast<std::uint8_t>(v);
  r.phase[1] = static_cast<std::uint8_t>(v >> 8);
  r.phase[2] = static_cast<std::uint8_t>(v >> 16);
}

bool DriftRecordValid(const DriftRecord& r) {
  const bool version_ok = r.version == 0 || (r.version >= 31 && r.version <= 41);
  return version_ok && r.check_time >= 1 && r.check_time <= 0x7FFFFFFF;
}

std::int32_t SaturateVarianceMs(std::int64_t v) {
  if (v < INT32_MIN) return INT32_MIN;
  if (v > INT32_MAX) return INT32_MAX;
  return static_cast<std::int32_t>(v);
}

std::int32_t DriftVarianceMs(std::int64_t offset_100ns) { return SaturateVarianceMs(offset_100ns / 10'000); }
