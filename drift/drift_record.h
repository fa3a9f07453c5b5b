// The drift record: 20 bytes per agent check, the unit of the drift history file "drift.kr", and
// the texts of its coded fields. The file is a plain sequence of records, oldest first, with no
// header; all fields little-endian except the source address (network order).
#pragma once
#include <bit>
#include <cstdint>
#include <string>

static_assert(std::endian::native == std::endian::little, "records are read and written in place");

struct DriftRecord {
  std::uint8_t version;        // 41 written; 0 and 31..41 accepted
  std::uint8_t flags;          // bit 0: the check set the clock; bits 1-7: MachineType code
  std::uint8_t phase[3];       // signed 24-bit phase adjustment (100-ns per clock interrupt)
  std::uint8_t reserved[2];    // zero
  std::uint8_t reason;         // CheckReason code
  std::uint32_t check_time;    // seconds since 1970 UTC, 1..0x7FFFFFFF
  std::int32_t variance_ms;    // reference minus local, ms (negative: local clock fast)
  std::uint32_t address;       // reference source, IPv4 in network order (as stored in memory)
};
static_assert(sizeof(DriftRecord) == 20);

inline constexpr std::uint32_t kDriftRecordSize = 20;
inline constexpr std::uint8_t kDriftRecordVersion = 41;
inline constexpr std::uint32_t kAddressAveraged = 0;              // "Averaged Time"
inline constexpr std::uint32_t kAddressSelf = 0x0100007F;         // 127.0.0.1 in network order: "Self"
inline constexpr std::uint32_t kAddressUnresolved = 0xFFFFFFFF;   // name could not be resolved

enum CheckReason : std::uint8_t {
  kReasonScheduled = 1,
  kReasonControlPanel = 2,
  kReasonTriggered = 3,
  kReasonKr2Broadcast = 4,
  kReasonNtpBroadcast = 5,
  kReasonSyncCheck = 6,
  kReasonTraining = 7,
  kReasonKr2Multicast = 8,
  kReasonNtpMulticast = 9,
  kReasonClockChange = 253,
  kReasonPowerResume = 254,
  kReasonStartup = 255,
};

enum MachineType : std::uint8_t {
  kMachineMasterServer = 1,
  kMachineSlaveServer = 2,
  kMachineIndependentServer = 3,
  kMachineFullClient = 4,
  kMachineThinClient = 5,
  kMachineUltraThin = 6,
  kMachineChronwarden = 7,   // what the time provider writes
  kMachineNtpServer = 8,
};

const char* CheckReasonName(std::uint8_t code);   // "Scheduled" ... "Startup"; "Unknown" for others (0 too)
const char* MachineTypeName(std::uint8_t code);   // "Master Server" ... "NTP Server"; "Unknown" for others
// A record's source as shown: "Averaged Time", "Self" for 127.0.0.1 when self_name, else dotted.
std::string DriftSourceName(std::uint32_t address, bool self_name = true);

inline bool DriftClockSet(const DriftRecord& r) { return (r.flags & 1) != 0; }
inline std::uint8_t DriftMachineType(const DriftRecord& r) { return static_cast<std::uint8_t>(r.flags >> 1); }
// The phase adjustment: the 32-bit little-endian word at offset 1, shifted right arithmetically by 8.
std::int32_t DriftPhaseAdjustment(const DriftRecord& r);
void SetDriftPhaseAdjustment(DriftRecord& r, std::int32_t value);   // keeps the low 24 bits
// The variance of a measured offset (100-ns units, reference minus local): divided by 10,000 with
// truncation toward zero, saturated to 32 bits.
std::int32_t DriftVarianceMs(std::int64_t offset_100ns);
// A variance in ms saturated to 32 bits (below -2,147,483,648: that; 2,147,483,648 or more: 2,147,483,647).
std::int32_t SaturateVarianceMs(std::int64_t variance_ms);
// Version 0, or 31 to 41, and a check time of 1 to 0x7FFFFFFF.
bool DriftRecordValid(const DriftRecord& r);
