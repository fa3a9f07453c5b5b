// Who the KR2 responder answers, and how much: the managers that may change the machine, and a
// limit on the reply bytes any one source address is sent.
//
// Managers: the commands that change the machine (129 empties the drift history, 3 and 204 demand
// a resync) are taken only from an address on the provider's "KR2 Managers" list (addresses and
// prefixes, or "any"); this machine's own loopback addresses are always managers. A missing value
// means loopback only. Other sources get silence: a datagram's source address can be forged, and
// an answer would tell a prober what the machine runs.
//
// Rate: each source address has a bucket of reply bytes ("KR2 Rate Limit" bytes a second, up to
// "KR2 Rate Burst"); a request is answered while its source's bucket is above zero, and the reply's
// size is then taken from it. So one source is never sent more than the burst plus the rate over
// time (and one reply), whatever it asks: the responder cannot be used to multiply a forged
// sender's traffic towards a victim. The limit counts bytes, not replies, because bytes are what a
// reflector multiplies: at the defaults a station may ask for its status five times a second
// without end, or fetch a hundred history records a second. Loopback sources are never limited
// (no other machine can send from them). The buckets live in a table of fixed size, four to a set;
// a new source takes the place of the one seen longest ago in its set, so a flood of forged
// sources costs a fixed amount of memory, and a well-behaved source pushed out simply starts again
// with a full bucket. Rate 0 turns the limit off.
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

// The codes whose requests change the machine: 3 and 204 (resync), 129 (clear the history).
bool Kr2ChangesMachine(std::uint8_t code);

class Kr2Guard {
 public:
  // Takes these settings (a managers text as the registry holds it, rate and burst in bytes);
  // parses the text only when it changed. Returns the entries of a changed text that it cannot
  // take (none when the text is the one it already had), for the caller to report once.
  std::vector<std::string> Configure(const char* managers, std::uint32_t rate_bytes_per_s, std::uint32_t burst_bytes);
  // Whether address (network order) may change the machine: loopback or on the managers' list.
  bool MayChange(std::uint32_t address) const;
  // Whether a request of address (network order) may be answered now (ms, monotonic); a refusal
  // is counted. An admitted request is charged with Charge before the next Admit.
  bool Admit(std::uint32_t address, std::uint64_t now_ms);
  void Charge(std::size_t reply_bytes);   // the reply's size against the source admitted last
  // Records a refusal of a change from address (network order) at now (s since 1970) and tells
  // whether to log it: once per source a notice interval, at most kKr2NoticesPerInterval in all.
  bool NoticeNotManager(std::uint32_t address, std::uint32_t now_s);
  bool NoticeLimited(std::uint32_t address, std::uint32_t now_s);

  std::uint64_t refused_changes() const { return refused_changes_; }   // changes refused to non-managers
  std::uint64_t limited() const { return limited_; }                   // requests dropped by the rate limit
  std::uint32_t rate() const { return rate_; }
  std::uint32_t burst() const { return burst_; }

 private:
  struct Bucket {
    std::uint32_t address = 0;     // network order; 0 with last_ms 0: unused
    std::int64_t tokens = 0;       // reply bytes x 1000 (may go below zero by one reply)
    std::uint64_t last_ms = 0;     // when the source was last seen; 0: unused
  };
  struct Notices {                 // sources logged in the current notice interval
    std::unordered_map<std::uint32_t, std::uint32_t> logged;   // address -> when (s since 1970)
    bool Take(std::uint32_t address, std::uint32_t now_s);
  };
  Bucket* Find(std::uint32_t address, std::uint64_t now_ms);

  std::string managers_text_;
  bool configured_ = false;
  AddressList managers_;
  std::uint32_t rate_ = 0, burst_ = 0;   // 0 until configured: see Configure
  std::vector<Bucket> buckets_;          // kKr2RateSources, made on first use
  Bucket* charged_ = nullptr;            // the bucket of the request admitted last, if limited
  Notices not_manager_, limited_notices_;
  std::uint64_t refused_changes_ = 0, limited_ = 0;

 public:
  Kr2Guard();   // the defaults: managers loopback only, rate and burst of config/defaults.h
};
