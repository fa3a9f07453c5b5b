#include <gtest/gtest.h>

#include <string>

#include "platform/error_text.h"

namespace {

std::string System(std::uint32_t code, std::uint32_t size = 256) {
  char buf[256];
  return SystemErrorText(code, buf, size);
}

// The POSIX backend carries the standard Windows wording itself.
TEST(SystemMessagesPosix, StandardWindowsWording) {
  EXPECT_EQ(System(2), "The system cannot find the file specified. ");
  EXPECT_EQ(System(5), "Access is denied. ");
  EXPECT_EQ(System(53), "The network path was not found. ");
  EXPECT_EQ(System(1060), "The specified service does not exist as an installed service. ");
  EXPECT_EQ(System(1722), "The RPC server is unavailable. ");
  EXPECT_EQ(System(0), "The operation completed successfully. ");
  EXPECT_EQ(System(1633, 40), "This installation package is not sup...");
  EXPECT_EQ(System(99999), "Error 99999 (no description available)");
}

}  // namespace
