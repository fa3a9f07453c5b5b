// The exporter's outside bytes: a /probe query (its arguments as the HTTP library decodes them,
// with Prometheus' scrape time-out header) is taken or refused with a printable reason, and a
// machine's KR2 status and identity records of any bytes make an exposition in both formats that
// stays valid UTF-8, one sample a line.
//
// Input: the header's value up to the first line feed, then the query ("k=v&k=v...").
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

#include "exporter/exporter.h"

namespace {

void Check(bool ok) {
  if (!ok) std::abort();
}

bool IsUtf8(std::string_view s) {
  for (std::size_t i = 0; i < s.size();) {
    const auto c = static_cast<unsigned char>(s[i]);
    const std::size_t n = c < 0x80 ? 1 : (c >> 5) == 6 ? 2 : (c >> 4) == 14 ? 3 : (c >> 3) == 30 ? 4 : 0;
    if (n == 0 || i + n > s.size()) return false;
    for (std::size_t k = 1; k < n; ++k)
      if ((static_cast<unsigned char>(s[i + k]) >> 6) != 2) return false;
    i += n;
  }
  return true;
}

void CheckExposition(const std::string& text) {
  Check(IsUtf8(text));
  std::string_view rest = text;
  while (!rest.empty()) {   // every line a comment or a sample of ours
    const auto end = rest.find('\n');
    Check(end != std::string_view::npos);
    const std::string_view line = rest.substr(0, end);
    Check(line.starts_with("# ") || line.starts_with("chronwarden_"));
    rest.remove_prefix(end + 1);
  }
}

// Fills a record with the input's bytes, over and over.
template <typename T>
void Fill(T& record, std::string_view bytes) {
  auto* out = reinterpret_cast<unsigned char*>(&record);
  for (std::size_t i = 0; i < sizeof record && !bytes.empty(); ++i) out[i] = static_cast<unsigned char>(bytes[i % bytes.size()]);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  const auto newline = input.find('\n');
  const std::string_view header = newline == std::string_view::npos ? std::string_view{} : input.substr(0, newline);
  std::string_view query = newline == std::string_view::npos ? input : input.substr(newline + 1);
  platform::HttpPairs pairs;
  while (!query.empty()) {
    const auto amp = query.find('&');
    const std::string_view arg = query.substr(0, amp);
    const auto eq = arg.find('=');
    pairs.emplace_back(std::string(arg.substr(0, eq)), eq == std::string_view::npos ? "" : std::string(arg.substr(eq + 1)));
    query = amp == std::string_view::npos ? std::string_view{} : query.substr(amp + 1);
  }
  constexpr std::uint32_t kTimeoutMs = 1000;
  std::string error;
  if (const auto target = ParseProbeQuery(pairs, header, kTimeoutMs, error)) {
    Check(!target->host.empty() && target->host.size() <= 253);
    Check(target->host.find(':') == std::string::npos);
    Check(target->timeout_ms >= 1 && target->timeout_ms <= kTimeoutMs);
  } else {
    Check(!error.empty() && std::all_of(error.begin(), error.end(), [](char c) { return c >= 0x20 && c < 0x7F; }));
  }

  ProbeResult probe;
  probe.resolved = true;
  probe.machine.have_status = probe.machine.have_identity = true;
  Fill(probe.machine.status, input);
  Fill(probe.machine.identity, input.substr(input.size() / 2));
  probe.have_products = !input.empty() && (input[0] & 1);
  Fill(probe.products, input);
  Exposition out;
  AddProbeMetrics(out, probe, Label("target", std::string(header)));
  CheckExposition(Render(out, ExpositionFormat::Text));
  const std::string om = Render(out, ExpositionFormat::OpenMetrics);
  CheckExposition(om);
  Check(om.ends_with("# EOF\n"));
  return 0;
}
