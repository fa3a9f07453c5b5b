// The POSIX network backend speaks Winsock numbers.
#include <gtest/gtest.h>

#include <cstdint>

#include "platform/error.h"
#include "platform/net.h"
#include "platform/sync.h"
#include "timing/ntp_client.h"

namespace {

// Windows reports an ICMP port unreachable on an unconnected datagram socket as WSAECONNRESET on
// the next receive; the POSIX backend does the same instead of waiting out the time-out. (Wine
// passes no ICMP errors to such sockets, so this is not asserted for the Windows build.)
TEST(NetPosix, UnreachablePortIsReportedAsWinsockDoesForUdp) {
  const NtpResult r = NtpQuery({.server = "127.0.0.60", .timeout_ms = 2000});
  EXPECT_EQ(r.valid, 0);
  EXPECT_EQ(r.error, 10054u);   // nothing listens on 127.0.0.60:123
}

// The ICMP error is reported once: afterwards the socket is not ready any more, so that a waiter
// on its event sleeps again instead of waking forever with nothing to read.
TEST(NetPosix, AnIcmpErrorWakesTheSocketsWaiterOnce) {
  const platform::SocketHandle s = platform::CreateSocketV4(platform::kSocketDatagram, platform::kProtocolUdp);
  ASSERT_NE(s, platform::kInvalidSocket);
  ASSERT_TRUE(platform::BindV4(s, {platform::kFamilyInet, 0, platform::InetAddr("127.0.0.63")}));
  platform::EventHandle e = platform::CreateSyncEvent(false, false);
  ASSERT_TRUE(platform::SelectSocketEvent(s, e, true));
  const char byte = 1;
  // Nothing listens on 127.0.0.64:9: the reply is an ICMP port unreachable.
  ASSERT_EQ(platform::SendTo(s, &byte, 1, {platform::kFamilyInet, platform::HostToNet16(9), platform::InetAddr("127.0.0.64")}), 1);
  ASSERT_EQ(platform::WaitForEvent(e, 5000), platform::kWaitObject0);
  char buf[8];
  platform::SocketAddressV4 from{};
  EXPECT_EQ(platform::ReceiveFromNow(s, buf, sizeof buf, &from), -1);
  EXPECT_EQ(platform::LastSocketError(), 10054);
  EXPECT_EQ(platform::WaitForEvent(e, 50), platform::kWaitTimeout);
  EXPECT_EQ(platform::ReceiveFromNow(s, buf, sizeof buf, &from), -1);
  EXPECT_EQ(platform::LastSocketError(), 10035);   // nothing more: would block
  platform::SelectSocketEvent(s, e, false);
  platform::CloseEvent(e);
  platform::CloseSocket(s);
}

// A wait with no time left still reports a datagram already waiting on a bound socket, as Winsock
// has set the socket's event by then.
TEST(NetPosix, AZeroTimeWaitSeesADatagramAlreadyWaiting) {
  const platform::SocketHandle s = platform::CreateSocketV4(platform::kSocketDatagram, platform::kProtocolUdp);
  ASSERT_NE(s, platform::kInvalidSocket);
  const platform::SocketAddressV4 local{platform::kFamilyInet, platform::HostToNet16(45125), platform::InetAddr("127.0.0.65")};
  ASSERT_TRUE(platform::BindV4(s, local));
  platform::EventHandle e = platform::CreateSyncEvent(false, false);
  ASSERT_TRUE(platform::SelectSocketEvent(s, e, true));
  EXPECT_EQ(platform::WaitForEvent(e, 0), platform::kWaitTimeout);   // nothing there yet
  const char byte = 1;
  ASSERT_EQ(platform::SendTo(s, &byte, 1, local), 1);
  char buf[8];
  platform::SocketAddressV4 from{};
  ASSERT_EQ(platform::WaitForEvent(e, 5000), platform::kWaitObject0);   // it has arrived
  ASSERT_EQ(platform::SendTo(s, &byte, 1, local), 1);
  ASSERT_EQ(platform::ReceiveFromNow(s, buf, sizeof buf, &from), 1);   // the first; the second waits
  EXPECT_EQ(platform::WaitForEvent(e, 0), platform::kWaitObject0);
  EXPECT_EQ(platform::ReceiveFromNow(s, buf, sizeof buf, &from), 1);
  EXPECT_EQ(platform::WaitForEvent(e, 0), platform::kWaitTimeout);
  platform::SelectSocketEvent(s, e, false);
  platform::CloseEvent(e);
  platform::CloseSocket(s);
}

TEST(NetPosix, ReceiveTimeoutIs10060) {
  const platform::SocketHandle s = platform::CreateSocketV4(platform::kSocketDatagram, platform::kProtocolUdp);
  ASSERT_NE(s, platform::kInvalidSocket);
  ASSERT_TRUE(platform::SetReceiveTimeout(s, 10));
  char buf[8];
  EXPECT_EQ(platform::Receive(s, buf, sizeof buf), -1);   // nothing was sent: the time-out elapses
  EXPECT_EQ(platform::LastSocketError(), 10060);
  platform::CloseSocket(s);
}

TEST(NetPosix, BindToAnAddressInUseIs10048) {
  const platform::SocketHandle a = platform::CreateSocketV4(platform::kSocketDatagram, platform::kProtocolUdp);
  const platform::SocketHandle b = platform::CreateSocketV4(platform::kSocketDatagram, platform::kProtocolUdp);
  const platform::SocketAddressV4 local{platform::kFamilyInet, platform::HostToNet16(45123), platform::InetAddr("127.0.0.61")};
  ASSERT_TRUE(platform::BindV4(a, local));
  EXPECT_FALSE(platform::BindV4(b, local));
  EXPECT_EQ(platform::LastSocketError(), 10048);
  platform::CloseSocket(a);
  platform::CloseSocket(b);
}

TEST(NetPosix, NoDelayOnADatagramSocketFailsWithAWinsockCode) {
  const platform::SocketHandle s = platform::CreateSocketV4(platform::kSocketDatagram, platform::kProtocolUdp);
  EXPECT_FALSE(platform::SetNoDelay(s, true));
  EXPECT_GE(platform::LastSocketError(), 10000);
  platform::CloseSocket(s);
}

}  // namespace
