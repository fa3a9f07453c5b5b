// The KR2 protocol's records, byte for byte as they travel: requests and replies are raw packed
// records without a header, every multi-byte field little-endian (the host's order on every
// target this system runs on), IPv4 addresses in network order. Text fields are zero-filled and
// zero-terminated. Shared by the responder (provider/kr2_responder.*) and the command-line client.
#pragma once
#include <bit>
#include <cstddef>
#include <cstdint>

#include "drift/drift_record.h"
#include "platform/clock.h"

static_assert(std::endian::native == std::endian::little, "KR2 records are read and written in place");

inline constexpr std::uint16_t kKr2DefaultPort = 9909;          // when the "kaironsync" service is unknown
inline constexpr const char* kKr2ServiceName = "kaironsync";    // the Winsock service name of the port
inline constexpr std::size_t kKr2RequestMax = 512;              // the responder reads at most this much
inline constexpr std::size_t kKr2ResponderBlockSize = 36;       // the responder block of the products record
inline constexpr std::size_t kKr2CommandOffset = 4;             // byte 4 of a request: the command code
inline constexpr std::size_t kKr2ArgumentOffset = 8;            // the 32-bit argument word of some commands
inline constexpr std::size_t kKr2RequestSize = 12;              // what the client sends: header, code, argument

// Command codes.
enum Kr2Command : std::uint8_t {
  kKr2Ack = 0,
  kKr2Time = 2,              // UTC SYSTEMTIME
  kKr2Resync = 3,            // demand resync: ACK / NAK
  kKr2Identity = 4,
  kKr2Nak5 = 5,
  kKr2TimeZone = 6,
  kKr2LocalTime = 7,
  kKr2Status = 128,
  kKr2StatusClear = 129,     // empties the history and resets the counters, then as 128
  kKr2Nak132 = 132,
  kKr2Zero150 = 150,
  kKr2Limits = 151,
  kKr2DriftAfter = 160,      // the first drift record later than the argument
  kKr2Products = 200,
  kKr2Products201 = 201,
  kKr2Resync204 = 204,
};


#pragma pack(push, 1)

// "ACK" / "NAK" with the terminating zero.
struct Kr2Word {
  char text[4];
};

// The Win32 SYSTEMTIME: eight unsigned 16-bit words (packed: it also stands at odd offsets).
struct Kr2SystemTime {
  std::uint16_t year, month, day_of_week, day, hour, minute, second, milliseconds;
};
inline Kr2SystemTime ToKr2SystemTime(const platform::SystemTime& t) {
  return {t.year, t.month, t.day_of_week, t.day, t.hour, t.minute, t.second, t.milliseconds};
}

// Identity (command 4), built at start-up.
struct IdentityRecord {
  std::uint32_t ephemerides;       // seconds since 1970 of the provider's first start
  std::uint32_t product_code;      // 7
  std::uint16_t major_version;     // 4
  std::uint16_t minor_version;     // 2
  std::uint16_t build_year;        // 2008
  std::uint16_t build_month_day;   // 1210
  std::uint32_t one;               // 1
  std::uint32_t nt_family;         // 1 on an NT-family system
  char version[16];                // "4.2.b.20081210R"
  std::uint8_t unused40[8];        // zero
  char computer_name[16];          // at most 15 characters
};

// The local sync status record (commands 128 and 129).
struct LocalStatusRecord {
  std::uint32_t product_code;          // 7
  std::uint32_t last_status_request;   // seconds since 1970; 0 when the agent stops
  std::uint32_t last_counter_reset;    // time of the last counter reset
  std::uint32_t partner_time;          // when the current partner was taken
  std::uint32_t agent_start;           // 0 when the agent stops
  std::uint32_t last_check;            // the last successful check; cleared at agent start and stop
  std::int64_t last_offset_ms;         // last measured offset, ms, reference minus local
  std::int64_t offset_sum_ms;          // running sum of offsets, ms
  char time_zone[32];                  // current zone name, ANSI
  char version[20];                    // "4.2.b.20081210R"
  std::uint8_t status_flags;           // kKr2StatusChecking while the agent looks for a verdict
  std::uint8_t sync_type;              // the time service's "Type" code at the last status request
  std::uint8_t unused94[10];
  char partner_name[63];               // "(none since startup)", then a host name or dotted address
  std::uint8_t partner_state;          // 254 at agent start, 1 once a partner is taken
  std::uint8_t zero168[7];
  std::uint32_t times[7];              // [0]: time of the last reply sent
  std::uint64_t counters[7];           // [0]: replies sent
  std::uint64_t failed[7];             // [0]: failed receives
  std::uint64_t bytes_received;
  std::uint64_t bytes_sent;
  std::uint64_t sync_successes;        // partners taken
  std::uint64_t sync_verdicts;         // successes and failures
  std::uint64_t sync_failures;
};
inline constexpr std::uint8_t kKr2StatusChecking = 2;
inline constexpr std::uint8_t kKr2PartnerStarting = 254;
inline constexpr std::uint8_t kKr2PartnerTaken = 1;
inline constexpr const char* kKr2NoPartnerYet = "(none since startup)";

// Installed products (commands 200 and 201), rebuilt for each request.
struct Kr2Products {
  std::uint32_t reserved;              // 0
  std::uint32_t machine_flags;         // kKr2Machine... bits
  std::uint32_t size_288;              // 288
  std::uint8_t partner_state;          // as the status record
  char dollar;                         // '$'
  Kr2SystemTime local_time;            // as command 7
  Kr2SystemTime utc_time;              // as command 2
  std::int64_t last_offset_ms;
  std::uint64_t sync_successes;
  std::uint64_t sync_verdicts;
  std::uint64_t sync_failures;
  std::uint32_t ephemerides;
  std::uint32_t now;                   // seconds since 1970
  std::uint32_t partner_time;
  std::uint32_t agent_start;
  char time_zone[32];
  char version[32];
  char partner[64];
  char computer_name[36];
  std::uint8_t responder_block[36];    // zeroed whenever the listen socket is created
  std::uint8_t zero[6];
  std::uint16_t installed;             // kKr2Installed... bits
};

// Machine flags of the installed-product record.
inline constexpr std::uint32_t kKr2MachineProductMask = 0xF;           // bits 0-3: product code
inline constexpr std::uint32_t kKr2MachineIdentityOne = 1u << 4;       // the identity record's word at 16
inline constexpr std::uint32_t kKr2MachineNtFamily = 1u << 5;
inline constexpr std::uint32_t kKr2MachineWin9xFamily = 1u << 14;
inline constexpr std::uint32_t kKr2MachineAlways = 1u << 25;
inline constexpr int kKr2MachineZoneShift = 30;                        // bits 30-31: time-zone state
// Installed products of the family.
inline constexpr std::uint16_t kKr2InstalledAlways = 0x8000;
inline constexpr std::uint16_t kKr2InstalledServer = 1;
inline constexpr std::uint16_t kKr2InstalledClient = 2;
inline constexpr std::uint16_t kKr2InstalledThinClient = 4;
inline constexpr std::uint16_t kKr2InstalledSet = 8;
inline constexpr std::uint16_t kKr2InstalledManager = 16;
inline constexpr std::uint16_t kKr2InstalledMonitor = 32;
inline constexpr std::uint16_t kKr2InstalledUpdateServer = 64;
inline constexpr std::uint16_t kKr2InstalledAuditServer = 128;
inline constexpr std::uint16_t kKr2InstalledUltraThinClient = 0x100;
inline constexpr std::uint16_t kKr2InstalledChronwarden = 0x200;

// Win32 TIME_ZONE_INFORMATION.
struct Kr2TimeZoneInformation {
  std::int32_t bias;                   // minutes, UTC = local + bias
  char16_t standard_name[32];
  Kr2SystemTime standard_date;
  std::int32_t standard_bias;
  char16_t daylight_name[32];
  Kr2SystemTime daylight_date;
  std::int32_t daylight_bias;
};

// Time-zone reply (command 6). The first 8 bytes are the zone state as GetTimeZoneInformation
// reports it (0 unknown, 1 standard, 2 daylight, 0xFFFFFFFF error) and the size of the
// information that follows (244 - 8 + 4 = 240 bytes: zone information, ANSI name, setting).
struct Kr2TimeZoneReply {
  std::uint32_t zone_id;
  std::uint32_t info_size;             // 240
  Kr2TimeZoneInformation info;
  char standard_name[64];              // the standard name, ANSI
  std::uint32_t daylight_disabled;     // automatic daylight-saving adjustment turned off (0 when unset)
  std::uint8_t zero[256];
};
inline constexpr std::uint32_t kKr2ZoneInfoSize = 240;

// Command 151: four 32-bit words 1, 1, 0 and the largest allowed phase offset in ms.
struct Kr2Limits {
  std::uint32_t one_a;
  std::uint32_t one_b;
  std::uint32_t zero;
  std::uint32_t max_phase_offset_ms;
};

#pragma pack(pop)

static_assert(sizeof(Kr2Word) == 4);
static_assert(sizeof(Kr2SystemTime) == 16);
static_assert(sizeof(DriftRecord) == 20);
static_assert(sizeof(Kr2Limits) == 16);

static_assert(sizeof(IdentityRecord) == 64);
static_assert(offsetof(IdentityRecord, ephemerides) == 0);
static_assert(offsetof(IdentityRecord, product_code) == 4);
static_assert(offsetof(IdentityRecord, major_version) == 8);
static_assert(offsetof(IdentityRecord, minor_version) == 10);
static_assert(offsetof(IdentityRecord, build_year) == 12);
static_assert(offsetof(IdentityRecord, build_month_day) == 14);
static_assert(offsetof(IdentityRecord, one) == 16);
static_assert(offsetof(IdentityRecord, nt_family) == 20);
static_assert(offsetof(IdentityRecord, version) == 24);
static_assert(offsetof(IdentityRecord, computer_name) == 48);

static_assert(sizeof(LocalStatusRecord) == 355);
static_assert(offsetof(LocalStatusRecord, product_code) == 0);
static_assert(offsetof(LocalStatusRecord, last_status_request) == 4);
static_assert(offsetof(LocalStatusRecord, last_counter_reset) == 8);
static_assert(offsetof(LocalStatusRecord, partner_time) == 12);
static_assert(offsetof(LocalStatusRecord, agent_start) == 16);
static_assert(offsetof(LocalStatusRecord, last_check) == 20);
static_assert(offsetof(LocalStatusRecord, last_offset_ms) == 24);
static_assert(offsetof(LocalStatusRecord, offset_sum_ms) == 32);
static_assert(offsetof(LocalStatusRecord, time_zone) == 40);
static_assert(offsetof(LocalStatusRecord, version) == 72);
static_assert(offsetof(LocalStatusRecord, status_flags) == 92);
static_assert(offsetof(LocalStatusRecord, sync_type) == 93);
static_assert(offsetof(LocalStatusRecord, partner_name) == 104);
static_assert(offsetof(LocalStatusRecord, partner_state) == 167);
static_assert(offsetof(LocalStatusRecord, zero168) == 168);
static_assert(offsetof(LocalStatusRecord, times) == 175);
static_assert(offsetof(LocalStatusRecord, counters) == 203);
static_assert(offsetof(LocalStatusRecord, failed) == 259);
static_assert(offsetof(LocalStatusRecord, bytes_received) == 315);
static_assert(offsetof(LocalStatusRecord, bytes_sent) == 323);
static_assert(offsetof(LocalStatusRecord, sync_successes) == 331);
static_assert(offsetof(LocalStatusRecord, sync_verdicts) == 339);
static_assert(offsetof(LocalStatusRecord, sync_failures) == 347);

static_assert(sizeof(Kr2Products) == 302);
static_assert(offsetof(Kr2Products, reserved) == 0);
static_assert(offsetof(Kr2Products, machine_flags) == 4);
static_assert(offsetof(Kr2Products, size_288) == 8);
static_assert(offsetof(Kr2Products, partner_state) == 12);
static_assert(offsetof(Kr2Products, dollar) == 13);
static_assert(offsetof(Kr2Products, local_time) == 14);
static_assert(offsetof(Kr2Products, utc_time) == 30);
static_assert(offsetof(Kr2Products, last_offset_ms) == 46);
static_assert(offsetof(Kr2Products, sync_successes) == 54);
static_assert(offsetof(Kr2Products, sync_verdicts) == 62);
static_assert(offsetof(Kr2Products, sync_failures) == 70);
static_assert(offsetof(Kr2Products, ephemerides) == 78);
static_assert(offsetof(Kr2Products, now) == 82);
static_assert(offsetof(Kr2Products, partner_time) == 86);
static_assert(offsetof(Kr2Products, agent_start) == 90);
static_assert(offsetof(Kr2Products, time_zone) == 94);
static_assert(offsetof(Kr2Products, version) == 126);
static_assert(offsetof(Kr2Products, partner) == 158);
static_assert(offsetof(Kr2Products, computer_name) == 222);
static_assert(offsetof(Kr2Products, responder_block) == 258);
static_assert(offsetof(Kr2Products, zero) == 294);
static_assert(offsetof(Kr2Products, installed) == 300);

static_assert(sizeof(Kr2TimeZoneInformation) == 172);
static_assert(sizeof(Kr2TimeZoneReply) == 504);
static_assert(offsetof(Kr2TimeZoneReply, info) == 8);
static_assert(offsetof(Kr2TimeZoneReply, standard_name) == 180);
static_assert(offsetof(Kr2TimeZoneReply, daylight_disabled) == 244);
