// Who the KR2 responder answers, and how much: the managers that may change the machine, and a
// limit on the reply bytes and the work any one source address may cause.
//
// Managers: the commands that change the machine (129 empties the drift history, 3 and 204 demand
// a resync) are taken only from an address on the provider's "KR2 Managers" list (addresses and
// prefixes, or "any"); this machine's own loopback addresses are always managers. A missing value
// means loopback only. Other sources get silence: a datagram's source address can be forged, and
// an answer would tell a prober what the machine runs.
//
// Rate: each source address has a bucket of bytes ("KR2 Rate Limit" bytes a second, up to "KR2
// Rate Burst"); a request is answered while its source's bucket is above zero, and its cost is then
// taken from it: the reply's size plus the work the request causes (Kr2WorkBytes: a history read,
// a clear, a resync). So one source is never sent more than the burst plus the rate over time (and
// one request more), whatever it asks: the responder cannot be used to multiply a forged sender's traffic
// towards a victim, nor made to read or write the machine's files faster than the rate allows. The
// limit counts bytes, not replies, because bytes are what a reflector multiplies: at the defaults a
// station may ask for its status five times a second without end, or fetch sixteen history records
// a second. Loopback sources are never limited (no other machine can send from them). Rate 0 turns
// the limit off.
//
// Threat model of the table (a change of the earlier behaviour, made for security). The buckets
// live in a table of fixed size (kKr2RateSources, sets of kKr2RateWays), so a flood of forged
// sources costs a fixed amount of memory. The attacker sends datagrams with any source address
// (the victim's and as many others as he likes), sees none of the replies, and knows this code:
// - he cannot aim at a set: a source's set comes from SipHash-2-4 of its address under a 128-bit
//   key drawn from the system's random source (platform::RandomBytes) when the table is first used,
//   so which addresses share the victim's set is a secret of the process. (Not when the guard is
//   made: the provider's guard is built while Windows loads the module, when no call that may load
//   a library is allowed.)
// - a source is never given back more than it had: a source the table does not hold starts with
//   one second of the rate (the "first allowance", at most the burst), not the burst, and an entry
//   gives up its place only when its bucket holds at least that allowance again, so forgetting a
//   source and meeting it again never adds bytes. An empty bucket is never forgotten, however many
//   new sources come;
// - a source that asks regularly is not displaced: a new source takes only a free place, the place
//   of a newcomer (seen once) unseen for kKr2RateNewcomerMs, or of a regular (seen twice or more)
//   unseen for kKr2RateStaleMs; quiet newcomers go first, the least recently seen among equals.
//   Nobody seen recently is pushed out, so a flood of new forged sources cannot churn a set: the
//   first to come keeps its place. When its set has no such place, the new source gets silence (it
//   is not answered untracked) until one frees: a flood of forged sources can at worst keep a source
//   never seen before waiting, and only while the flood lasts; it cannot reset, limit or displace a
//   station that is already remembered.
// The key is 64 bits of source: an IPv4 address whole; an IPv6 source (not served yet) would key on
// its /64, the least one holder is given, so that a holder of a prefix cannot spread over the table.
//
// Refusals and limited requests are counted, and the guard tells its caller (the responder, which
// logs) when one is worth a line: once per source an hour, at most kKr2NoticesPerInterval in all.
#pragma once
#include <cstddef>
#include <cstdint>
#include <string>
#include <unordered_map>
#include <vector>

#include "config/address_list.h"

inline constexpr std::size_t kKr2RateWays = 8;   // buckets in one set of the table

// The codes whose requests change the machine: 3 and 204 (resync), 129 (clear the history).
bool Kr2ChangesMachine(std::uint8_t code);
// The work a request of code causes, in bytes-equivalent, charged beside its reply (0: none).
std::uint32_t Kr2WorkBytes(std::uint8_t code);

struct Kr2HashKey {
  std::uint64_t k0 = 0, k1 = 0;
};
// SipHash-2-4 of the 8 bytes of message (little-endian) under key.
std::uint64_t Kr2SipHash(const Kr2HashKey& key, std::uint64_t message);

class Kr2Guard {
 public:
  // Takes these settings (a managers text as the registry holds it, rate and burst in bytes);
  // parses the text only when it changed. Returns the entries of a changed text that it cannot
  // take (none when the text is the one it already had), for the caller to report once.
  std::vector<std::string> Configure(const char* managers, std::uint32_t rate_bytes_per_s, std::uint32_t burst_bytes);
  // Whether address (network order) may change the machine: loopback or on the managers' list.
  bool MayChange(std::uint32_t address) const;
  // Whether a request of address (network order) may be answered now (ms, monotonic); a refusal
  // (an empty bucket, or no place in the table for a new source) is counted. An admitted request
  // is charged with Charge before the next Admit.
  bool Admit(std::uint32_t address, std::uint64_t now_ms);
  // The cost of the request admitted last against its source: reply bytes plus its work (bytes).
  void Charge(std::size_t cost_bytes);
  // Records a refusal of a change from address (network order) at now (s since 1970) and tells
  // whether to log it: once per source a notice interval, at most kKr2NoticesPerInterval in all.
  bool NoticeNotManager(std::uint32_t address, std::uint32_t now_s);
  bool NoticeLimited(std::uint32_t address, std::uint32_t now_s);

  std::uint64_t refused_changes() const { return refused_changes_; }   // changes refused to non-managers
  std::uint64_t limited() const { return limited_; }                   // requests dropped by the rate limit
  std::uint64_t no_room() const { return no_room_; }                   // of those: new sources the table had no place for
  bool last_no_room() const { return last_no_room_; }                  // the last refusal was for want of a place
  std::uint32_t rate() const { return rate_; }
  std::uint32_t burst() const { return burst_; }
  // The set of the table address (network order) falls in: a secret of the process (for tests).
  std::size_t SetOf(std::uint32_t address);

 private:
  struct Bucket {
    std::uint64_t source = 0;      // the source's key (IPv4: the address, network order)
    std::int64_t tokens = 0;       // bytes x 1000 (may go below zero by one request's cost)
    std::uint64_t last_ms = 0;     // when the source was last seen; 0: unused
    std::uint32_t seen = 0;        // requests seen, up to 2: 1 a newcomer, 2 a regular
  };
  struct Notices {                 // sources logged in the current notice interval
    std::unordered_map<std::uint32_t, std::uint32_t> logged;   // address -> when (s since 1970)
    bool Take(std::uint32_t address, std::uint32_t now_s);
  };
  void MakeTable();   // the buckets and the key, on first use
  Bucket* Find(std::uint32_t address, std::uint64_t now_ms);
  std::int64_t Refilled(const Bucket& b, std::uint64_t now_ms) const;   // its tokens at now_ms
  std::int64_t FirstAllowance() const;                                  // a new source's tokens

  std::string managers_text_;
  bool configured_ = false;
  AddressList managers_;
  std::uint32_t rate_ = 0, burst_ = 0;   // 0 until configured: see Configure
  Kr2HashKey key_;                       // drawn once, with the table
  std::vector<Bucket> buckets_;          // kKr2RateSources, made on first use
  Bucket* charged_ = nullptr;            // the bucket of the request admitted last, if limited
  Notices not_manager_, limited_notices_;
  std::uint64_t refused_changes_ = 0, limited_ = 0, no_room_ = 0;
  bool last_no_room_ = false;

 public:
  Kr2Guard();   // the defaults: managers loopback only, rate and burst of config/defaults.h
};
