// Address lists in settings.
#include "config/address_list.h"

#include <charconv>

#include "platform/text.h"

namespace {

// A whole number of at most max from all of text; false when text is anything else.
bool WholeNumber(std::string_view text, std::uint32_t max, std::uint32_t& out) {
  if (text.empty() || text.size() > 3) return false;
  const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), out);
  return ec == std::errc{} && end == text.data() + text.size() && out <= max;
}

// "a.b.c.d" exactly: four numbers 0-255, nothing else. Host order.
bool DottedAddress(std::string_view text, std::uint32_t& out) {
  out = 0;
  for (int part = 0; part < 4; ++part) {
    const std::size_t dot = part < 3 ? text.find('.') : text.size();
    std::uint32_t n = 0;
    if (dot == std::string_view::npos || !WholeNumber(text.substr(0, dot), 255, n)) return false;
    out = out << 8 | n;
    text.remove_prefix(part < 3 ? dot + 1 : dot);
  }
  return true;
}

std::uint32_t HostOrder(std::uint32_t network_order) {
  const auto* b = reinterpret_cast<const unsigned char*>(&network_order);
  return std::uint32_t{b[0]} << 24 | std::uint32_t{b[1]} << 16 | std::uint32_t{b[2]} << 8 | b[3];
}

}  // namespace

AddressList ParseAddressList(std::string_view text) {
  AddressList list;
  constexpr std::string_view kSeparators = " \t\r\n,;";
  while (!text.empty()) {
    const std::size_t start = text.find_first_not_of(kSeparators);
    if (start == std::string_view::npos) break;
    text.remove_prefix(start);
    const std::size_t end = std::min(text.find_first_of(kSeparators), text.size());
    const std::string_view entry = text.substr(0, end);
    text.remove_prefix(end);
    if (platform::EqualsNoCase(entry, "any")) {
      list.any = true;
      continue;
    }
    const std::size_t slash = entry.find('/');
    std::uint32_t address = 0, bits = 32;
    if (!DottedAddress(entry.substr(0, slash), address) ||
        (slash != std::string_view::npos && !WholeNumber(entry.substr(slash + 1), 32, bits))) {
      list.rejected.emplace_back(entry);
      continue;
    }
    const std::uint32_t mask = bits == 0 ? 0 : 0xFFFFFFFFu << (32 - bits);
    list.prefixes.push_back({address & mask, mask});
  }
  return list;
}

bool AddressListHas(const AddressList& list, std::uint32_t address) {
  if (list.any) return true;
  const std::uint32_t host = HostOrder(address);
  for (const AddressPrefix& p : list.prefixes)
    if ((host & p.mask) == p.network) return true;
  return false;
}

bool IsLoopbackAddress(std::uint32_t address) { return HostOrder(address) >> 24 == 127; }
