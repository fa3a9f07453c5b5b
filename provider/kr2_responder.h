// The KR2 responder: answers the status, identity, time and history queries that the family's
// monitoring and management tools send over UDP, one datagram at a time on the agent thread.
//
// One object, Kr2Responder, holds all the responder has: its records (identity, local sync
// status, installed products), the prohibited-command table, the listen socket and its receive
// buffer; the provider owns it. What it reads and does outside itself goes through two small
// interfaces, so that the request handling can be tested and fuzzed on its own: Kr2Socket (the
// datagram transport) and Kr2Machine (drift history, registry, time-service settings, the sync
// event). HandleRequest is the provider's entry; HandleRequestWith is the same logic on any
// transport and machine. Events go through provider/event_log.h.
//
// The listen socket (CreateListenSocket/CloseListenSocket), the identity and local status records
// and the prohibited table are built by the provider's start-up; the installed-product record is
// rebuilt for each request that asks for it.
//
// Behaviour worth knowing:
// - a datagram shorter than its request (Kr2RequestBytes: 5 bytes, up to the command code; 12 for
//   160, which reads the word at offset 8) gets silence, and is neither counted, marked nor
//   remembered. This changes the earlier behaviour on purpose, for security: such a datagram was
//   judged by what the request before it had left in the receive buffer, so a 1-byte datagram from
//   a forged address drew a 355- or 504-byte reply built from somebody else's request;
// - the receive buffer is kept between requests: a request whose 512 buffer bytes equal the last
//   answered one is a repeat and dropped (the first request after a new listen socket is always
//   handled);
// - a refused (prohibited or unknown) code is dropped without a reply, a count or an activity mark;
// - a change (clear, resync) from a source that is no manager, and any request of a source over its
//   rate, get silence (provider/kr2_guard.h); an answered request is charged its reply's bytes and
//   its work (Kr2WorkBytes: history read, clear, resync); a limited request is not remembered as
//   the last one, so the same request sent again once the source's bucket has refilled is answered;
// - the time-zone reply is written over the receive buffer from offset 8 on.
#pragma once
#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

#include "config/w32time.h"
#include "drift/drift_record.h"
#include "platform/net.h"
#include "platform/sync.h"
#include "provider/kr2_guard.h"
#include "provider/kr2_records.h"

inline constexpr std::uint32_t kKr2BindAttempts = 4;           // bind tries while the port is in use
inline constexpr std::uint32_t kKr2BindRetryMs = 500;          // pause between them (ms)
inline constexpr std::uint32_t kKr2ReceiveBufferBytes = 4u << 20;   // the listen socket's receive buffer (bytes)
inline constexpr const char* kServerAnswerIpValue = "Server Answer IP";   // product Parameters, text

inline constexpr std::uint32_t kKr2CommandCount = 256;       // command codes: one byte

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
  virtual void ClearHistory() = 0;                           // empties drift.kr (kept as drift.kr.1), deletes "Last Used Time Source"
  virtual bool DriftAfter(DriftRecord& out, std::uint32_t after) = 0;   // first record later than after (s since 1970)
  virtual std::uint32_t SyncType() = 0;                      // the time service's "Type" code
  virtual std::uint32_t MaxPhaseOffsetSeconds() = 0;         // "MaxAllowedPhaseOffset", seconds
  virtual std::uint16_t InstalledProducts() = 0;             // kKr2Installed... bits of the family's products found
  virtual std::uint32_t DaylightDisabled() = 0;              // the zone's automatic daylight adjustment is off
};

// The provider's machine: drift.kr through drift/drift_file.h, the registry through
// config/registry.h; the settings and the sync event are the provider's, handed over for one wake-up.
struct Kr2SystemMachine final : Kr2Machine {
  // settings: the time service's (copied); sync_event: set for a resync (nullptr: none);
  // os_level: this system's (which daylight value the zone has); event_source: the source of the
  // events it writes (a clear that kept the history because it could not keep it as drift.kr.1).
  Kr2SystemMachine(const W32tSettings& settings, platform::EventHandle sync_event, std::uint32_t os_level,
                   const char* event_source);
  void RequestResync() override;
  void ClearHistory() override;
  bool DriftAfter(DriftRecord& out, std::uint32_t after) override;
  std::uint32_t SyncType() override;
  std::uint32_t MaxPhaseOffsetSeconds() override;
  std::uint16_t InstalledProducts() override;
  std::uint32_t DaylightDisabled() override;

 private:
  std::uint32_t sync_type_, max_phase_offset_s_, os_level_;
  platform::EventHandle sync_event_;
  const char* event_source_;
};

class Kr2Responder;

// A real socket as the transport, a batch at a time: the first Receive takes every datagram
// already waiting (up to kKr2Batch), later ones hand them out in order; Send queues the reply and
// Flush sends the queue in one call. Between wake-ups nothing is held.
inline constexpr std::size_t kKr2Batch = 64;   // datagrams taken and answered per wake-up
// The batch's buffers are the responder's; the agent thread is their only user.
struct Kr2SocketOn final : Kr2Socket {
  Kr2SocketOn(Kr2Responder& responder, platform::SocketHandle s) : socket(s), responder_(responder) {}
  ~Kr2SocketOn() override { Flush(); }
  platform::SocketHandle socket;
  int Receive(std::uint8_t* buf, std::size_t size, platform::SocketAddressV4& from) override;
  int Send(const void* data, std::size_t size, const platform::SocketAddressV4& to) override;
  bool Pending() const { return next_ < received_; }   // datagrams of the batch not yet handed out
  // Sends the queued replies; bytes of replies that could not be sent are taken back from the
  // status record's sent count.
  void Flush();

 private:
  Kr2Responder& responder_;
  std::size_t received_ = 0, next_ = 0, queued_ = 0;
  bool fetched_ = false;
};

// How one request ended.
// Malformed: shorter than its request; NotManager: a change asked by a source that is no manager;
// Limited: its source's bucket is empty, or the table has no place for a new source.
enum class Kr2Outcome { ReceiveFailed, Malformed, Refused, NotManager, Repeat, Limited, Unanswered, Answered };

// Facts about this system that the responder answers with (operating-system identification).
struct Kr2System {
  bool nt_family = true;
  bool win9x_family = false;
  std::uint32_t os_level = 32768;   // 2048 Windows 2000, ... 32768 Windows Server 2008 and later
};

bool IsKnownKr2Command(std::uint32_t code);   // one of the 35 commands of the protocol
// The bytes a request of code must have (5: through the code; 12 for 160, through its argument word).
std::size_t Kr2RequestBytes(std::uint8_t code);
// Builds the KR2 prohibited-command table from "Prohibited KR2 Commands" (W32Time Parameters):
// 0 allowed; 102, 150, 160 and 180 refused when the value cannot be read; unknown codes 128.
void BuildProhibitedTable(std::array<std::uint8_t, kKr2CommandCount>& table);

// The responder: its records, the prohibited-command table, the listen socket, the receive
// buffer with the remembered last request, the guard and the batch buffers. The provider owns one;
// start-up builds it on the service's thread before the agent thread exists, then the agent
// thread is its only user.
class Kr2Responder {
 public:
  // Events are written through provider/event_log.h with event_source as their source.
  explicit Kr2Responder(const char* event_source);

  // Start-up's part.
  void SetSystem(const Kr2System& system) { system_ = system; }
  const Kr2System& system() const { return system_; }
  // Fills the identity record, reading "Ephemerides" under the provider key, or setting it to now
  // (and writing it back) when it is missing or 0.
  void BuildIdentityRecord();
  // Zero-fills the local status record, then product code 7, version, "(none since startup)", the
  // time-zone name, and resets its counters.
  void InitLocalStatusRecord();
  void BuildProhibited() { BuildProhibitedTable(prohibited_); }   // the table from the registry
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
  platform::SocketHandle listen_socket() const { return listen_socket_; }   // kInvalidSocket when none
  // A new listen socket: zeroes the responder block and forgets the last request.
  void ForgetLastRequest();

  // Gives the guard these settings (managers text, rate and burst in bytes) and logs each managers'
  // entry it cannot take, once per changed text.
  void ConfigureGuard(const char* managers, std::uint32_t rate_bytes_per_s, std::uint32_t burst_bytes);
  // Reads and answers the datagrams waiting on socket (the listen socket), up to kKr2Batch, each as
  // HandleRequestWith does, and sends the replies together (on the agent thread). settings: the
  // time service's for this wake-up; sync_event: set by a resync request.
  void HandleRequest(platform::SocketHandle socket, const W32tSettings& settings, platform::EventHandle sync_event);
  // The same on any transport and machine.
  Kr2Outcome HandleRequestWith(Kr2Socket& socket, Kr2Machine& machine);
  // Rebuilds the products record from the status and identity records, the clocks and the machine.
  void BuildProducts(Kr2Machine& machine);

  // The records it answers with; the agent keeps the status record's sync fields.
  LocalStatusRecord& status() { return status_; }
  IdentityRecord& identity() { return identity_; }
  const Kr2Products& products() const { return products_; }
  std::array<std::uint8_t, kKr2CommandCount>& prohibited() { return prohibited_; }   // 0 allowed
  std::array<std::uint8_t, kKr2ResponderBlockSize>& responder_block() { return responder_block_; }
  const std::array<std::uint8_t, kKr2RequestMax>& receive_buffer() const { return receive_; }
  Kr2Guard& guard() { return guard_; }

 private:
  friend struct Kr2SocketOn;
  struct Buffers {   // one wake-up's batch
    std::array<std::array<std::uint8_t, kKr2RequestMax>, kKr2Batch> in, out;
    std::array<platform::Datagram, kKr2Batch> received, replies;
  };
  const Kr2TimeZoneReply& BuildTimeZoneReply(Kr2Machine& machine);
  void RefreshStatus(Kr2Machine& machine);
  std::uint32_t AnswerAddress();

  const char* event_source_;
  Kr2System system_;
  IdentityRecord identity_{};
  LocalStatusRecord status_{};
  std::array<std::uint8_t, kKr2CommandCount> prohibited_{};
  platform::SocketHandle listen_socket_ = platform::kInvalidSocket;
  std::string server_answer_ip_;   // kept while the socket exists
  Kr2Products products_{};
  std::array<std::uint8_t, kKr2ResponderBlockSize> responder_block_{};
  alignas(8) std::array<std::uint8_t, kKr2RequestMax> receive_{};   // the receive buffer, kept between requests
  std::array<std::uint8_t, kKr2RequestMax> last_request_{};          // the remembered last request
  bool have_last_ = false;                                           // false after a new listen socket
  // Inside one wake-up's batch the zone name is read for the first status request only.
  bool in_batch_ = false, zone_read_ = false;
  // Managers and the rate limit (provider/kr2_guard.h); HandleRequest configures it from the
  // settings at each wake-up.
  Kr2Guard guard_;
  Buffers buffers_{};
};
