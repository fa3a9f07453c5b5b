#include "platform/error_text.h"

#include <gtest/gtest.h>

#include <string>

#include "platform/error.h"
#include "tests/fake_clock.h"

namespace {

std::string Socket(std::int32_t code, std::uint32_t size = 128) {
  char buf[128];
  return SocketErrorText(static_cast<std::uint32_t>(code), buf, size);
}
std::string Short(std::int32_t code, std::uint32_t size = 64) {
  char buf[64];
  return SocketErrorShortName(static_cast<std::uint32_t>(code), buf, size);
}
std::string System(std::uint32_t code, std::uint32_t size = 128) {
  char buf[512];
  return SystemErrorText(code, buf, size);
}

TEST(SocketErrorText, DescribesKnownAndUnknownCodes) {
  EXPECT_EQ(Socket(10060), "Error 10060: timed out");
  EXPECT_EQ(Socket(0), "Error 0: operation successful");
  EXPECT_EQ(Socket(12345), "Error 12345: undetermined internal error");
  EXPECT_EQ(Socket(-1), "Error -1: invalid data or unknown request");
  EXPECT_EQ(Socket(-2), "Error -2: incorrect protocol response");
  EXPECT_EQ(Socket(1901), "Error 1901: clock not set on server");
  EXPECT_EQ(Socket(10022), "Error 10022: the port is already in use");
  EXPECT_EQ(Socket(10024), "Error 10024: Too many open sockets");
  EXPECT_EQ(Socket(11004), "Error 11004: lookup failure; valid name but no data");
}

TEST(SocketErrorText, CutsToTheBufferSize) {
  EXPECT_EQ(Socket(10060, 10), "Error 100");
  EXPECT_EQ(Socket(10060, 1), "");
  char untouched[4] = {'x', 'y', 'z', 0};
  SocketErrorText(10060, untouched, 0);
  EXPECT_STREQ(untouched, "xyz");
}

TEST(SocketErrorShortName, NamesAndFallback) {
  EXPECT_EQ(Short(10091), "Winsock down");
  EXPECT_EQ(Short(10093), "Winsock down");
  EXPECT_EQ(Short(1901), "Error 1901");
  EXPECT_EQ(Short(0), "Error 0");
  EXPECT_EQ(Short(-2), "Protocol error");
  EXPECT_EQ(Short(10060), "Timed out");
  EXPECT_EQ(Short(54321), "Error 54321");
  EXPECT_EQ(Short(10060, 4), "Tim");
}

TEST(SocketErrorText, LastSocketErrorUsesTheThreadsValue) {
  platform::SetLastSocketError(10060);
  EXPECT_STREQ(LastSocketErrorText(), "Error 10060: timed out");
  platform::SetLastSocketError(11001);
  EXPECT_STREQ(LastSocketErrorText(), "Error 11001: target host not found");
}

using SystemErrorTextTest = FakeClockTest;

TEST_F(SystemErrorTextTest, SetupCodesDoNotAskTheSystem) {
  platform::fake::SetSystemMessage(3010, "From the system.\r\n");
  EXPECT_EQ(System(3010), "The computer must be rebooted to complete setup.");
  EXPECT_EQ(System(1641), "The computer will now be rebooted to complete setup.");
  EXPECT_EQ(System(3011), "The service must be stopped and restarted to complete setup.");
}

TEST_F(SystemErrorTextTest, LineBreaksBecomeOneTrailingSpace) {
  platform::fake::SetSystemMessage(70001, "Line one.\r\nLine  two.\r\n");
  EXPECT_EQ(System(70001), "Line one. Line two. ");
}

TEST_F(SystemErrorTextTest, RunsOfSpacesCollapse) {
  platform::fake::SetSystemMessage(70002, "A    B\r\n\r\nC");
  EXPECT_EQ(System(70002), "A B C");
}

TEST_F(SystemErrorTextTest, LongTextIsCutWithDots) {
  const std::string text = "This message is much longer than the buffer that the caller supplies.\r\n";
  platform::fake::SetSystemMessage(70003, text);
  EXPECT_EQ(System(70003, 20), "This message is ...");  // 19 characters, dots at 16..18
  EXPECT_EQ(System(70003, 6), "Th...");
  EXPECT_EQ(System(70003, 5), "This");                   // 5 bytes or fewer: no dots
  EXPECT_EQ(System(70003, 2), "T");
  // The cleaned text is 70 characters. Dots go wherever the byte before the terminator is taken,
  // so a text that exactly fills the buffer gets them too; one more byte and it comes out whole.
  const std::string cleaned = text.substr(0, text.size() - 2) + " ";
  EXPECT_EQ(System(70003, 71), cleaned.substr(0, 67) + "...");
  EXPECT_EQ(System(70003, 72), cleaned);
}

TEST_F(SystemErrorTextTest, ZeroMeansTheLastError) {
  platform::SetLastError(3011);
  EXPECT_EQ(System(0), "The service must be stopped and restarted to complete setup.");
  EXPECT_EQ(platform::LastError(), 0u);  // restored to the argument
  platform::fake::SetSystemMessage(0, "Message zero.\r\n");
  platform::fake::SetSystemMessage(5, "Message five.\r\n");
  platform::SetLastError(5);
  EXPECT_EQ(System(0), "Message zero. ");  // asks about message 0, not 5
}

TEST_F(SystemErrorTextTest, UnknownCodeHasNoDescription) {
  EXPECT_EQ(System(0x7FFF0001), "Error 2147418113 (no description available)");
  EXPECT_EQ(System(0xFFFFFFF0), "Error -16 (no description available)");
  EXPECT_EQ(platform::LastError(), 0xFFFFFFF0u);
}

TEST_F(SystemErrorTextTest, NullBufferStillRestoresTheLastError) {
  platform::SetLastError(99);
  EXPECT_EQ(SystemErrorText(5, nullptr, 128), nullptr);
  EXPECT_EQ(platform::LastError(), 5u);
  char buf[4] = {'a', 'b', 'c', 0};
  EXPECT_EQ(SystemErrorText(6, buf, 0), buf);
  EXPECT_STREQ(buf, "abc");
  EXPECT_EQ(platform::LastError(), 6u);
}

TEST(SystemErrorTextReal, KnownCodesHaveTheSystemsText) {
  for (std::uint32_t code : {0u, 2u, 3u, 5u, 6u, 32u, 53u, 87u, 183u, 234u, 1060u, 1062u, 1722u}) {
    const std::string text = System(code, 256);
    EXPECT_EQ(text.find("no description available"), std::string::npos) << code;
    EXPECT_FALSE(text.empty()) << code;
    EXPECT_EQ(text.find('\r'), std::string::npos) << code;
    EXPECT_EQ(text.find('\n'), std::string::npos) << code;
  }
}

}  // namespace
