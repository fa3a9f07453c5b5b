// Who the KR2 responder answers, and how much.
#include "provider/kr2_guard.h"

#include <algorithm>
#include <bit>
#include <random>

#include "config/defaults.h"
#include "platform/os.h"

namespace {

static_assert(defaults::kKr2RateSources % kKr2RateWays == 0);

// A fresh secret: the system's random source, else (it never fails in practice) the standard
// library's, which reads the same source where it can.
Kr2HashKey RandomKey() {
  Kr2HashKey k;
  if (!platform::RandomBytes(&k, sizeof k)) {
    std::random_device rd;
    k.k0 = std::uint64_t{rd()} << 32 | rd();
    k.k1 = std::uint64_t{rd()} << 32 | rd();
  }
  return k;
}

}  // namespace

bool Kr2ChangesMachine(std::uint8_t code) { return code == 3 || code == 204 || code == 129; }

std::uint32_t Kr2WorkBytes(std::uint8_t code) {
  switch (code) {
    case 160: return defaults::kKr2WorkHistoryBytes;
    case 129: return defaults::kKr2WorkClearBytes;
    case 3:
    case 204: return defaults::kKr2WorkResyncBytes;
    default: return 0;
  }
}

std::uint64_t Kr2SipHash(const Kr2HashKey& key, std::uint64_t message) {
  std::uint64_t v0 = key.k0 ^ 0x736f6d6570736575u, v1 = key.k1 ^ 0x646f72616e646f6du;
  std::uint64_t v2 = key.k0 ^ 0x6c7967656e657261u, v3 = key.k1 ^ 0x7465646279746573u;
  auto round = [&] {
    v0 += v1, v1 = std::rotl(v1, 13), v1 ^= v0, v0 = std::rotl(v0, 32);
    v2 += v3, v3 = std::rotl(v3, 16), v3 ^= v2;
    v0 += v3, v3 = std::rotl(v3, 21), v3 ^= v0;
    v2 += v1, v1 = std::rotl(v1, 17), v1 ^= v2, v2 = std::rotl(v2, 32);
  };
  auto block = [&](std::uint64_t m) {   // two compression rounds
    v3 ^= m;
    round(), round();
    v0 ^= m;
  };
  block(message);
  block(std::uint64_t{8} << 56);   // the last block: no bytes left, the length 8 in the top byte
  v2 ^= 0xFF;
  round(), round(), round(), round();   // four finalization rounds
  return v0 ^ v1 ^ v2 ^ v3;
}

Kr2Guard::Kr2Guard() {
  Configure(defaults::kKr2ManagersDefault, defaults::kKr2RateLimitBytes, defaults::kKr2RateBurstBytes);
}

std::vector<std::string> Kr2Guard::Configure(const char* managers, std::uint32_t rate_bytes_per_s,
                                             std::uint32_t burst_bytes) {
  rate_ = rate_bytes_per_s;
  burst_ = burst_bytes;
  const std::string text = managers ? managers : "";
  if (configured_ && text == managers_text_) return {};
  configured_ = true;
  managers_text_ = text;
  managers_ = ParseAddressList(text);
  return managers_.rejected;
}

bool Kr2Guard::MayChange(std::uint32_t address) const {
  return IsLoopbackAddress(address) || AddressListHas(managers_, address);
}

void Kr2Guard::MakeTable() {
  if (!buckets_.empty()) return;
  buckets_.resize(defaults::kKr2RateSources);
  key_ = RandomKey();
}

std::size_t Kr2Guard::SetOf(std::uint32_t address) {
  MakeTable();
  return static_cast<std::size_t>(Kr2SipHash(key_, address) % (defaults::kKr2RateSources / kKr2RateWays));
}

std::int64_t Kr2Guard::FirstAllowance() const { return std::int64_t{std::min(rate_, burst_)} * 1000; }

std::int64_t Kr2Guard::Refilled(const Bucket& b, std::uint64_t now_ms) const {
  const std::uint64_t elapsed = now_ms > b.last_ms ? now_ms - b.last_ms : 0;
  const std::int64_t cap = std::int64_t{burst_} * 1000;
  // elapsed ms x bytes a second = thousandths of a byte; far below overflow for any elapsed time
  // that matters, and a bucket full for longer is full.
  const std::int64_t refill = elapsed >= 1'000'000'000u ? cap : static_cast<std::int64_t>(elapsed) * rate_;
  return std::min(cap, b.tokens + refill);
}

// The source's bucket; a new one in a free or freeable place of its set; nullptr when none is.
Kr2Guard::Bucket* Kr2Guard::Find(std::uint32_t address, std::uint64_t now_ms) {
  Bucket* first = &buckets_[SetOf(address) * kKr2RateWays];
  Bucket* place = nullptr;
  // Which place to take: a free one, then a quiet newcomer's, then a stale regular's; the least
  // recently seen among equals. Only a bucket holding at least a new source's allowance is given
  // up; nobody seen recently is displaced, so the first to come keeps its place.
  auto rank = [&](const Bucket& b) {
    if (b.last_ms == 0) return 3;
    if (Refilled(b, now_ms) < FirstAllowance()) return 0;
    const std::uint64_t quiet = now_ms > b.last_ms ? now_ms - b.last_ms : 0;
    if (b.seen < 2) return quiet >= defaults::kKr2RateNewcomerMs ? 2 : 0;
    return quiet >= defaults::kKr2RateStaleMs ? 1 : 0;
  };
  int place_rank = 0;
  for (Bucket* b = first; b != first + kKr2RateWays; ++b) {
    if (b->last_ms != 0 && b->source == address) return b;
    const int r = rank(*b);
    if (r > place_rank || (r == place_rank && r > 0 && b->last_ms < place->last_ms)) place = b, place_rank = r;
  }
  if (place) *place = Bucket{address, FirstAllowance(), now_ms, 0};
  return place;
}

bool Kr2Guard::Admit(std::uint32_t address, std::uint64_t now_ms) {
  charged_ = nullptr;
  if (rate_ == 0 || IsLoopbackAddress(address)) return true;
  now_ms = std::max<std::uint64_t>(now_ms, 1);   // 0 marks an unused bucket
  Bucket* b = Find(address, now_ms);
  last_no_room_ = b == nullptr;
  if (!b) {
    ++limited_, ++no_room_;
    return false;
  }
  b->tokens = Refilled(*b, now_ms);
  b->last_ms = now_ms;
  b->seen = std::min<std::uint32_t>(b->seen + 1, 2);
  if (b->tokens <= 0) {
    ++limited_;
    return false;
  }
  charged_ = b;
  return true;
}

void Kr2Guard::Charge(std::size_t cost_bytes) {
  if (charged_) charged_->tokens -= static_cast<std::int64_t>(cost_bytes) * 1000;
  charged_ = nullptr;
}

bool Kr2Guard::Notices::Take(std::uint32_t address, std::uint32_t now_s) {
  std::erase_if(logged, [&](const auto& e) { return now_s - e.second >= defaults::kKr2NoticeIntervalS; });
  if (logged.contains(address) || logged.size() >= defaults::kKr2NoticesPerInterval) return false;
  logged.emplace(address, now_s);
  return true;
}

bool Kr2Guard::NoticeNotManager(std::uint32_t address, std::uint32_t now_s) {
  ++refused_changes_;
  return not_manager_.Take(address, now_s);
}

bool Kr2Guard::NoticeLimited(std::uint32_t address, std::uint32_t now_s) { return limited_notices_.Take(address, now_s); }
