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
// The listen socket (CreateListenSocket/CloseListenSocket) and the identity and local status
// records are built by the provider's start-up; the installed-product record is rebuilt for each
// request that asks for it.
//
// Behaviour worth knowing:
// - the receive buffer is kept between requests: a datagram shorter than 5 bytes is judged by
//   whatever byte 4 of the buffer still holds, and a request whose 512 buffer bytes equal the last
//   answered one is a repeat and dropped (the first request after a new listen socket is always
//   handled);
// - a refused (prohibited or unknown) code is dropped without a reply, a count or an activity mark;
// - a change (clear, resync) from a source that is no manager, and any request of a source over its
//   rate, get silence (provider/kr2_guard.h); a limited request is not remembered as the last one,
//   so the same request sent again once the source's bucket has refilled is answered;
// - the time-zone reply is written over the receive buffer from offset 8 on.
#pragma once
#include <array>
#include <cstddef>
#include <cstdint>

#include "drift/drift_record.h"
#include "platform/net.h"
#include "platform/sync.h"
#include "provider/kr2_guard.h"
#include "provider/kr2_records.h"

inline constexpr std::uint32_t kKr2BindAttempts = 4;           // bind tries while the port is in use
inline constexpr std::uint32_t kKr2BindRetryMs = 500;          // pause between them (ms)
inline constexpr std::uint32_t kKr2ReceiveBufferBytes = 4u << 20;   // the listen socket's receive buffer (bytes)
inline constexpr const char* kServerAnswerIpValue = "Server Answer IP";   // product Parameters, text

extern IdentityRecord g_identity;
extern LocalStatusRecord g_local_status;
extern platform::SocketHandle g_listen_socket;     // kInvalidSocket when there is none
extern std::array<std::uint8_t, kKr2ResponderBlockSize> g_responder_block;
extern std::array<std::uint8_t, kKr2RequestMax> g_last_request;   // the remembered last request

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
// config/registry.h, the provider's settings record and sync event.
struct Kr2SystemMachine final : Kr2Machine {
  void RequestResync() override;
  void ClearHistory() override;
  bool DriftAfter(DriftRecord& out, std::uint32_t after) override;
  std::uint32_t SyncType() override;
  std::uint32_t MaxPhaseOffsetSeconds() override;
  std::uint16_t InstalledProducts() override;
  std::uint32_t DaylightDisabled() override;
};

// A real socket as the transport, a batch at a time: the first Receive takes every datagram
// already waiting (up to kKr2Batch), later ones hand them out in order; Send queues the reply and
// Flush sends the queue in one call. Between wake-ups nothing is held.
inline constexpr std::size_t kKr2Batch = 64;   // datagrams taken and answered per wake-up
struct Kr2SocketOn final : Kr2Socket {
  explicit Kr2SocketOn(platform::SocketHandle s) : socket(s) {}
  ~Kr2SocketOn() override { Flush(); }
  platform::SocketHandle socket;
  int Receive(std::uint8_t* buf, std::size_t size, platform::SocketAddressV4& from) override;
  int Send(const void* data, std::size_t size, const platform::SocketAddressV4& to) override;
  bool Pending() const { return next_ < received_; }   // datagrams of the batch not yet handed out
  // Sends the queued replies; bytes of replies that could not be sent are taken back from the
  // status record's sent count.
  void Flush();

 private:
  std::size_t received_ = 0, next_ = 0, queued_ = 0;
  bool fetched_ = false;
};

// The responder's own process-wide state.
struct Kr2State {
  Kr2Products products{};
  alignas(8) std::array<std::uint8_t, kKr2RequestMax> receive{};   // the receive buffer, kept between requests
  bool have_last = false;                               // false after a new listen socket
  // Inside one wake-up's batch the zone name is read for the first status request only.
  bool in_batch = false, zone_read = false;
  // Facts about this system, set by start-up (operating-system identification).
  bool nt_family = true;
  bool win9x_family = false;
  std::uint32_t os_level = 32768;                       // 2048 Windows 2000, ... 32768 Windows Server 2008 and later
  // Managers and the rate limit (provider/kr2_guard.h); HandleRequest configures it from the
  // provider's settings at each wake-up.
  Kr2Guard guard;
};
extern Kr2State g_kr2;

// How one request ended.
// NotManager: a change asked by a source that is no manager; Limited: its source's bucket is empty.
enum class Kr2Outcome { ReceiveFailed, Refused, NotManager, Repeat, Limited, Unanswered, Answered };

// Fills the identity record, reading "Ephemerides" under the provider key, or setting it to now
// (and writing it back) when it is missing or 0.
void BuildIdentityRecord();
// Zero-fills the local status record, then product code 7, version, "(none since startup)", the
// time-zone name, and resets its counters.
void InitLocalStatusRecord();
// Resets the status record's times, counters, byte counts, offset sum and sync counters; the time
// of the last counter reset becomes now.
void ResetStatusCounters();
// The zone's current name into the status record (at most 31 bytes, "unknown" on error or when
// empty); returns the zone state: 1 daylight, 2 standard, 0 on error. (The platform always tells
// whether daylight time is in force, so the "no zone state" case does not arise.)
std::uint32_t RefreshTimeZoneName();
// Opens the KR2 listen socket (port of "kaironsync"/udp, else 9909; address "Server Answer IP"
// when it is one of this machine's own, else all). True on success; on failure the error event
// "Could not create listen socket; %s" is written and there is no socket.
bool CreateListenSocket();
void CloseListenSocket();        // shutdown both ways, close, forget "Server Answer IP"
// Rebuilds g_kr2.products from the status and identity records, the clocks and the machine.
void Kr2BuildProducts(Kr2Machine& machine);
// A new listen socket: zeroes the responder block and forgets the last request.
void Kr2ForgetLastRequest();

// Gives the guard these settings (managers text, rate and burst in bytes) and logs each managers'
// entry it cannot take, once per changed text.
void Kr2ConfigureGuard(const char* managers, std::uint32_t rate_bytes_per_s, std::uint32_t burst_bytes);
// Reads and answers the datagrams waiting on socket, up to kKr2Batch, each as HandleRequestWith
// does, and sends the replies together (the provider's entry, on the agent thread).
void HandleRequest(platform::SocketHandle socket);
// The same on any transport and machine.
Kr2Outcome HandleRequestWith(Kr2Socket& socket, Kr2Machine& machine);
