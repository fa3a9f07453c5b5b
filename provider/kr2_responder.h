// The KR2 responder: answers the status, identity, time and history queries that the family's
// monitoring and management tools send over UDP, one datagram at a time on the agent thread.
//
// The responder's records (identity, local sync status, installed products) and its receive
// buffer are process-wide (g_kr2). What it reads and does outside itself goes through two small
// interfaces, so that the request handling can be tested and fuzzed on its own: Kr2Socket (the
// datagram transport) and Kr2Machine (drift history, registry, time-service settings, the sync
// event). HandleRequest(socket) is the provider's entry; HandleRequestWith is the same logic on
// any transport and machine.
//
// Behaviour worth knowing:
// - the receive buffer is kept between requests: a datagram shorter than 5 bytes is judged by
//   whatever byte 4 of the buffer still holds, and a request whose 512 buffer bytes equal the last
//   answered one is a repeat and dropped (the first request after a new listen socket is always
//   handled);
// - a refused (prohibited or unknown) code is dropped without a reply, a count or an activity mark;
// - the time-zone reply is written over the receive buffer from offset 8 on.
#pragma once
#include <array>
#include <cstddef>
#include <cstdint>

#include "drift/drift_record.h"
#include "platform/net.h"
#include "platform/sync.h"
#include "provider/kr2_records.h"

struct W32tSettings;

// The datagram transport of the listen socket.
struct Kr2Socket {
  virtual ~Kr2Socket() = default;
  // One datagram into buf (at most size bytes): bytes received, or -1 on failure.
  virtual int Receive(std::uint8_t* buf, std::size_t size, platform::SocketAddressV4& from) = 0;
  // One datagram to to: bytes sent, or -1 on failure.
  virtual int Send(const void* data, std::size_t size, const platform::SocketAddressV4& to) = 0;
};

// What the responder reads from and does to the machine.
struct Kr2Machine {
  virtual ~Kr2Machine() = default;
  virtual void RequestResync() = 0;                          // sets the provider's sync event
  virtual void ClearHistory() = 0;                           // empties drift.kr, deletes "Last Used Time Source"
  virtual bool DriftAfter(DriftRecord& out, std::uint32_t after) = 0;   // first record later than after (s since 1970)
  virtual std::uint32_t SyncType() = 0;                      // the time service's "Type" code
  virtual std::uint32_t MaxPhaseOffsetSeconds() = 0;         // "MaxAllowedPhaseOffset", seconds
  virtual std::uint16_t InstalledProducts() = 0;             // kKr2Installed... bits of the family's products found
  virtual std::uint32_t DaylightDisabled() = 0;              // the zone's automatic daylight adjustment is off
};

// The provider's machine: drift.kr through drift/drift_file.h, the registry through
// config/registry.h, the settings record and the sync event of the running provider.
struct Kr2SystemMachine final : Kr2Machine {
  platform::EventHandle sync_event = nullptr;   // the provider's sync event (may be null)
  const W32tSettings* settings = nullptr;       // the provider's settings record (null: defaults)
  void RequestResync() override;
  void ClearHistory() override;
  bool DriftAfter(DriftRecord& out, std::uint32_t after) override;
  std::uint32_t SyncType() override;
  std::uint32_t MaxPhaseOffsetSeconds() override;
  std::uint16_t InstalledProducts() override;
  std::uint32_t DaylightDisabled() override;
};

// A real socket as the transport.
struct Kr2SocketOn final : Kr2Socket {
  explicit Kr2SocketOn(platform::SocketHandle s) : socket(s) {}
  platform::SocketHandle socket;
  int Receive(std::uint8_t* buf, std::size_t size, platform::SocketAddressV4& from) override;
  int Send(const void* data, std::size_t size, const platform::SocketAddressV4& to) override;
};

// The responder's process-wide state.
struct Kr2State {
  std::array<std::uint8_t, 256> prohibited{};      // one entry per command code, 0 allowed
  Kr2Identity identity{};
  Kr2Status status{};
  Kr2Products products{};
  alignas(8) std::array<std::uint8_t, kKr2RequestMax> receive{};   // the receive buffer, kept between requests
  std::array<std::uint8_t, kKr2RequestMax> last{};      // the last request handled
  bool have_last = false;                               // false after a new listen socket
  // Facts about this system, set by start-up (operating-system identification).
  bool nt_family = true;
  bool win9x_family = false;
  std::uint32_t os_level = 32768;                       // 2048 Windows 2000, ... 32768 Windows Server 2008 and later
};
extern Kr2State g_kr2;
extern Kr2SystemMachine g_kr2_machine;

// How one request ended.
enum class Kr2Outcome { ReceiveFailed, Refused, Repeat, Unanswered, Answered };

// Builds the prohibited command table from the "Prohibited KR2 Commands" value (value, size bytes;
// read false when the value could not be read at all: then 102, 150, 160, 180 are refused). Codes
// the family does not know get 128.
void Kr2BuildProhibitedTable(const std::uint8_t* value, std::size_t size, bool read,
                             std::array<std::uint8_t, 256>& table);
// Fills the status record as at its creation: product code 7, version, "(none since startup)",
// the zone name, counters reset at now (seconds since 1970).
void Kr2InitStatus(Kr2Status& status, std::uint32_t now);
// Resets the status record's times, counters, byte counts, offset sum and sync counters; the
// time of the last counter reset becomes now (seconds since 1970).
void Kr2ResetCounters(Kr2Status& status, std::uint32_t now);
// Builds the identity record: first start (seconds since 1970), NT family, computer name (cut at 15).
void Kr2BuildIdentity(Kr2Identity& identity, std::uint32_t ephemerides, bool nt_family, const char* computer_name);
// The current zone name (at most 31 bytes, "unknown" on error or when empty) into name (32 bytes,
// zero-filled first); returns the zone state: 1 daylight, 2 standard, 0 on error. (The platform
// always tells whether daylight time is in force, so the "no zone state" case does not arise.)
std::uint32_t Kr2ZoneName(char (&name)[32]);
// Rebuilds g_kr2.products from the status and identity records, the clocks and the machine.
void Kr2BuildProducts(Kr2Machine& machine);
// A new listen socket: zeroes the responder block and forgets the last request.
void Kr2ForgetLastRequest();

// Reads and answers one datagram (the provider's entry, on the agent thread).
void HandleRequest(platform::SocketHandle socket);
// The same on any transport and machine.
Kr2Outcome HandleRequestWith(Kr2Socket& socket, Kr2Machine& machine);
