// Who the KR2 responder answers, and how much.
#include "provider/kr2_guard.h"

#include <algorithm>

#include "config/defaults.h"

namespace {

constexpr std::size_t kWays = 4;   // buckets in one set of the table
static_assert(defaults::kKr2RateSources % kWays == 0);

}  // namespace

bool Kr2ChangesMachine(std::uint8_t code) { return code == 3 || code == 204 || code == 129; }

Kr2Guard::Kr2Guard() { Configure(defaults::kKr2ManagersDefault, defaults::kKr2RateLimitBytes, defaults::kKr2RateBurstBytes); }

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

Kr2Guard::Bucket* Kr2Guard::Find(std::uint32_t address, std::uint64_t now_ms) {
  if (buckets_.empty()) buckets_.resize(defaults::kKr2RateSources);
  // Fibonacci hashing: neighbouring addresses fall in different sets.
  const std::size_t sets = buckets_.size() / kWays;
  const std::size_t set = static_cast<std::size_t>((address * 0x9E3779B9u) >> 8) % sets;
  Bucket* first = &buckets_[set * kWays];
  Bucket* oldest = first;
  for (Bucket* b = first; b != first + kWays; ++b) {
    if (b->last_ms != 0 && b->address == address) return b;
    if (b->last_ms < oldest->last_ms) oldest = b;
  }
  *oldest = Bucket{address, std::int64_t{burst_} * 1000, now_ms};
  return oldest;
}

bool Kr2Guard::Admit(std::uint32_t address, std::uint64_t now_ms) {
  charged_ = nullptr;
  if (rate_ == 0 || IsLoopbackAddress(address)) return true;
  now_ms = std::max<std::uint64_t>(now_ms, 1);   // 0 marks an unused bucket
  Bucket* b = Find(address, now_ms);
  const std::uint64_t elapsed = now_ms > b->last_ms ? now_ms - b->last_ms : 0;
  const std::int64_t cap = std::int64_t{burst_} * 1000;
  // elapsed ms x bytes a second = thousandths of a byte; far below overflow for any elapsed time
  // that matters, and a bucket full for longer is full.
  const std::int64_t refill = elapsed >= 1'000'000'000u ? cap : static_cast<std::int64_t>(elapsed) * rate_;
  b->tokens = std::min(cap, b->tokens + refill);
  b->last_ms = now_ms;
  if (b->tokens <= 0) {
    ++limited_;
    return false;
  }
  charged_ = b;
  return true;
}

void Kr2Guard::Charge(std::size_t reply_bytes) {
  if (charged_) charged_->tokens -= static_cast<std::int64_t>(reply_bytes) * 1000;
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
