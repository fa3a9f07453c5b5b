// The KR2 responder's socket and the records it answers from: the identity record and the local
// sync status record (little-endian, packed, as they go on the wire). All multi-byte fields are in
// the host's order; times are seconds since 1970.
#pragma once
#include <array>
#include <cstddef>
#include <cstdint>

#include "platform/net.h"

inline constexpr const char* kKr2ServiceName = "kaironsync";   // the service whose UDP port is used
inline constexpr std::uint16_t kKr2DefaultPort = 9909;         // when that service is not known
inline constexpr std::uint32_t kKr2BindAttempts = 4;           // bind tries while the port is in use
inline constexpr std::uint32_t kKr2BindRetryMs = 500;          // pause between them (ms)
inline constexpr std::uint32_t kKr2RequestMax = 512;           // bytes read of a request
inline constexpr std::uint32_t kKr2ResponderBlockSize = 36;
inline constexpr const char* kServerAnswerIpValue = "Server Answer IP";   // product Parameters, text

#pragma pack(push, 1)
struct IdentityRecord {
  std::uint32_t ephemerides;       // the provider's first start
  std::uint32_t product_code;      // 7
  std::uint16_t major_version, minor_version, build_year, build_month_day;
  std::uint32_t one;               // 1
  std::uint32_t nt_family;         // 1 on an NT-family system
  char version[16];                // 24: "4.2.b.20081210R"
  std::uint8_t unused40[8];        // 40: zero
  char computer_name[16];          // 48:          // at most 15 characters
};
static_assert(sizeof(IdentityRecord) == 64);

struct LocalStatusRecord {
  std::uint32_t product_code;          // 0: 7
  std::uint32_t last_status_request;   // 4
  std::uint32_t last_counter_reset;    // 8
  std::uint32_t partner_time;          // 12: when the current partner was taken
  std::uint32_t agent_start;           // 16
  std::uint32_t cleared;               // 20: cleared at agent start and stop
  std::int64_t last_offset_ms;         // 24
  std::int64_t offset_sum_ms;          // 32
  char time_zone[32];                  // 40
  char version[20];                    // 72
  std::uint8_t status_flags;           // 92: 2 is the checking bit
  std::uint8_t sync_type;              // 93: the W32Time "Type" code
  std::uint8_t unused94[10];
  char partner_name[63];               // 104
  std::uint8_t partner_state;          // 167: 254 at agent start, 1 once a partner is taken
  std::uint8_t zero168[7];
  std::uint32_t times[7];              // 175: [0] the last reply sent
  std::uint64_t counters[7];           // 203: [0] replies sent
  std::uint64_t failed[7];             // 259: [0] failed receives
  std::uint64_t bytes_received;        // 315
  std::uint64_t bytes_sent;            // 323
  std::uint64_t sync_successes;        // 331: partners taken
  std::uint64_t sync_verdicts;         // 339
  std::uint64_t sync_failures;         // 347
};
static_assert(sizeof(LocalStatusRecord) == 355);
static_assert(offsetof(LocalStatusRecord, partner_name) == 104 && offsetof(LocalStatusRecord, times) == 175 &&
              offsetof(LocalStatusRecord, bytes_received) == 315);
#pragma pack(pop)

extern IdentityRecord g_identity;
extern LocalStatusRecord g_local_status;
extern platform::SocketHandle g_listen_socket;     // kInvalidSocket when there is none
extern std::array<std::uint8_t, kKr2ResponderBlockSize> g_responder_block;
extern std::array<std::uint8_t, kKr2RequestMax> g_last_request;   // the remembered last request

// Fills the identity record, reading "Ephemerides" under the provider key, or setting it to now
// (and writing it back) when it is missing or 0.
void BuildIdentityRecord();
// Zero-fills the local status record, then product code 7, version, "(none since startup)", the
// time-zone name, and resets its counters.
void InitLocalStatusRecord();
void ResetStatusCounters();      // the counters and sums to 0, the time of the reset to now
void RefreshTimeZoneName();      // the zone's current name, at most 31 bytes, "unknown" when none

// Opens the KR2 listen socket (port of "kaironsync"/udp, else 9909; address "Server Answer IP"
// when it is one of this machine's own, else all). True on success; on failure the error event
// "Could not create listen socket; %s" is written and there is no socket.
bool CreateListenSocket();
void CloseListenSocket();        // shutdown both ways, close, forget "Server Answer IP"
