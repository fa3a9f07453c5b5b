// Address lists in settings: IPv4 addresses and prefixes written as text ("192.0.2.7 10.1.0.0/16,
// any"), as the KR2 responder's list of managers holds them. Only dotted addresses are taken, never
// names: who may change the machine must not depend on what a name server answers.
#pragma once
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

struct AddressPrefix {
  std::uint32_t network;   // host order, masked
  std::uint32_t mask;      // host order: /24 is 0xFFFFFF00, /0 is 0
};

struct AddressList {
  bool any = false;                     // the word "any": every address
  std::vector<AddressPrefix> prefixes;
  std::vector<std::string> rejected;    // entries that are neither an address, a prefix nor "any"
};

// Parses entries separated by blanks, commas or semicolons: "a.b.c.d", "a.b.c.d/N" (N 0-32, host
// bits ignored) or "any" (case ignored). Bad entries are kept in rejected; the rest still count.
AddressList ParseAddressList(std::string_view text);
// Whether address (network order) is in the list.
bool AddressListHas(const AddressList& list, std::uint32_t address);
// Whether address (network order) is one of 127.0.0.0/8.
bool IsLoopbackAddress(std::uint32_t address);
