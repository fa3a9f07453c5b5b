#include "timing/format.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

namespace {

std::uint32_t Address(unsigned a, unsigned b, unsigned c, unsigned d) {
  const unsigned char bytes[4] = {static_cast<unsigned char>(a), static_cast<unsigned char>(b),
                                  static_cast<unsigned char>(c), static_cast<unsigned char>(d)};
  std::uint32_t v;
  std::memcpy(&v, bytes, 4);
  return v;
}

std::string Ms(std::int64_t ms, std::uint32_t size = 256) {
  char buf[256];
  return FormatDurationMs(ms, buf, size);
}

TEST(FormatIPv4, UnknownForAllZerosAndAllOnes) {
  char buf[16];
  EXPECT_STREQ(FormatIPv4(Address(0, 0, 0, 0), buf), "Unknown");
  EXPECT_STREQ(FormatIPv4(Address(255, 255, 255, 255), buf), "Unknown");
  EXPECT_STREQ(FormatIPv4(Address(10, 0, 0, 1), buf), "10.0.0.1");
  EXPECT_STREQ(FormatIPv4(Address(192, 168, 200, 254), buf), "192.168.200.254");
}

TEST(FormatDate, UtcTexts) {
  EXPECT_STREQ(FormatUtcDate(0), "Thu 01 Jan 1970 00:00:00 UTC");
  EXPECT_STREQ(FormatUtcDate(315626635), "Wed 02 Jan 1980 02:03:55 UTC");
  EXPECT_STREQ(FormatUtcDate(0x7FFFFFFF), "Tue 19 Jan 2038 03:14:07 UTC");
  EXPECT_STREQ(FormatDate(0, false), "Thu 01 Jan 1970 00:00:00 UTC");
}

TEST(FormatDate, TimesThe32BitRoutinesRejectGiveError) {
  EXPECT_STREQ(FormatUtcDate(0x80000000u), "Error");
  EXPECT_STREQ(FormatUtcDate(0xFFFFFFFFu), "Error");
  EXPECT_STREQ(FormatLocalDate(0x80000000u), "Error");
  EXPECT_STREQ(FormatDate(0x80000000u, true), "Error");
}

TEST(FormatDate, LocalTextHasTheSameShapeWithoutUtc) {
  const std::string local = FormatLocalDate(315626635);
  ASSERT_EQ(local.size(), std::string("Wed 02 Jan 1980 02:03:55").size()) << local;
  EXPECT_EQ(local.find("UTC"), std::string::npos);
  EXPECT_EQ(local.substr(15, 1), " ");
  EXPECT_EQ(local.substr(18, 1), ":");
  EXPECT_EQ(std::string(FormatDate(315626635, true)), local);
}

TEST(FormatDurationSeconds, Examples) {
  EXPECT_STREQ(FormatDurationSeconds(0), "0 seconds");
  EXPECT_STREQ(FormatDurationSeconds(1), "1 second");
  EXPECT_STREQ(FormatDurationSeconds(120), "2 minutes");
  EXPECT_STREQ(FormatDurationSeconds(59), "59 seconds");
  EXPECT_STREQ(FormatDurationSeconds(61), "1 minute, 1 second");
  EXPECT_STREQ(FormatDurationSeconds(3'600), "1 hour, 0 minutes");
  EXPECT_STREQ(FormatDurationSeconds(86'400), "1 day, 0 hours, 0 minutes");
  EXPECT_STREQ(FormatDurationSeconds(90'061), "1 day, 1 hour, 1 minute, 1 second");
  EXPECT_STREQ(FormatDurationSeconds(172'805), "2 days, 0 hours, 0 minutes, 5 seconds");
  EXPECT_STREQ(FormatDurationSeconds(0xFFFFFFFFu), "49710 days, 6 hours, 28 minutes, 15 seconds");
}

TEST(FormatDurationMs, Examples) {
  EXPECT_EQ(Ms(0), "0 milliseconds");
  EXPECT_EQ(Ms(1), "1 millisecond");
  EXPECT_EQ(Ms(1'500), "1 second, 500 milliseconds");
  EXPECT_EQ(Ms(60'000), "1 minute, 0 seconds, 0 milliseconds");
  EXPECT_EQ(Ms(-250), "250 milliseconds");
  EXPECT_EQ(Ms(86'400'000), "1 day, 0 hours, 0 minutes, 0 seconds, 0 milliseconds");
  EXPECT_EQ(Ms(INT64_MIN).substr(0, 10), "1067519911");  // the most negative value keeps its magnitude
}

TEST(FormatDurationMs, CutToTheBuffer) {
  EXPECT_EQ(Ms(1'500, 9), "1 second");
  EXPECT_EQ(Ms(1'500, 1), "");
}

TEST(FormatShortDuration, Examples) {
  EXPECT_STREQ(FormatShortDuration(0), "+0.000 secs");
  EXPECT_STREQ(FormatShortDuration(1'000), "+1.000 secs");
  EXPECT_STREQ(FormatShortDuration(59'999), "+59.999 secs");
  EXPECT_STREQ(FormatShortDuration(60'000), "+1 min");
  EXPECT_STREQ(FormatShortDuration(-1'500), "-1.500 secs");
  EXPECT_STREQ(FormatShortDuration(90'000), "+1 min");
  EXPECT_STREQ(FormatShortDuration(7'200'000), "+2 hrs");
  EXPECT_STREQ(FormatShortDuration(3'600'000), "+1 hr");
  EXPECT_STREQ(FormatShortDuration(172'800'000), "+2 days");
  EXPECT_STREQ(FormatShortDuration(-86'400'000), "-1 day");
}

}  // namespace
