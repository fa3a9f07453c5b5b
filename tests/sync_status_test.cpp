// The sync status block and the activity map within one process: header bytes, repeated opens,
// fallbacks to the plain names, the owner's sign-off and the activity marks.
#include "provider/sync_status.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "platform/error.h"
#include "platform/testing/fake.h"
#include "platform/shared.h"
#include "tests/shared_objects.h"
#include "timing/activity.h"

namespace {

const std::string kGlobalStatus = std::string(kGlobalPrefix) + kSyncStatusName;
const std::string kGlobalEvent = std::string(kGlobalPrefix) + kSyncStatusEventName;
const std::string kGlobalActivity = std::string(kGlobalPrefix) + kActivityMapName;

// Another opener's view of a section, held by the test.
struct OtherView {
  platform::SectionHandle section = nullptr;
  std::uint32_t* words = nullptr;
  std::uint32_t size = 0;
  bool existed = false;
  OtherView(const std::string& name, std::uint32_t bytes) : size(bytes) {
    section = platform::CreateNamedSection(name.c_str(), bytes, existed);
    words = static_cast<std::uint32_t*>(platform::MapSection(section, bytes, true));
  }
  ~OtherView() {
    platform::UnmapSection(words, size);
    platform::CloseSection(section);
  }
};

class SyncStatusTest : public ::testing::Test {
 protected:
  void TearDown() override {
    CloseSyncStatus(false);
    CloseActivityMap();
    platform::fake::Disable();
  }
  SharedObjectNamespace ns_;
};

TEST_F(SyncStatusTest, OwnerWritesTheHeaderWordByWord) {
  platform::fake::Enable();   // the pulse does not sleep under the fake
  platform::EventHandle notify = nullptr;
  const SyncStatusBlock* b = OpenSyncStatus(9, &notify);
  ASSERT_NE(b, nullptr);
  EXPECT_NE(notify, nullptr);
  const std::uint32_t expected[8] = {32, 1, 9, 4, 2, 2008, 1210, 1};
  EXPECT_EQ(std::memcmp(b, expected, sizeof expected), 0);
  EXPECT_EQ(platform::WaitForEvent(notify, 0), platform::kWaitTimeout);   // the pulse is over
}

TEST_F(SyncStatusTest, SecondOpenReturnsTheSameViewAndCreatesNothing) {
  platform::EventHandle first_event = nullptr, second_event = nullptr;
  const SyncStatusBlock* first = OpenSyncStatus(0, &first_event);
  ASSERT_NE(first, nullptr);
  // Were anything created again, this switch would make it fail.
  platform::fake::Enable();
  platform::fake::FailNamedObject(kGlobalStatus, 8);
  platform::fake::FailNamedObject(kSyncStatusName, 8);
  platform::fake::FailNamedObject(kGlobalEvent, 8);
  platform::fake::FailNamedObject(kSyncStatusEventName, 8);
  EXPECT_EQ(OpenSyncStatus(0, &second_event), first);
  EXPECT_EQ(second_event, first_event);
  EXPECT_EQ(OpenSyncStatus(0, nullptr), first);
}

TEST_F(SyncStatusTest, ReaderWritesNothingAndSeesNoOwner) {
  const SyncStatusBlock* b = OpenSyncStatus(0, nullptr);
  ASSERT_NE(b, nullptr);
  const std::uint32_t zeros[8] = {};
  EXPECT_EQ(std::memcmp(b, zeros, sizeof zeros), 0);
}

TEST_F(SyncStatusTest, OwnersCloseLeavesTheSectionForOtherOpeners) {
  OtherView other(kGlobalStatus, 32);
  ASSERT_NE(other.words, nullptr);
  platform::fake::Enable();
  ASSERT_NE(OpenSyncStatus(7, nullptr), nullptr);
  EXPECT_EQ(other.words[1], 1u);
  CloseSyncStatus(true);
  EXPECT_EQ(other.words[0], 32u);
  EXPECT_EQ(other.words[1], 0u);   // owner active
  EXPECT_EQ(other.words[2], 7u);
  EXPECT_EQ(other.words[7], 1u);   // closed mark
  // A reader opening afterwards finds the signed-off header.
  const SyncStatusBlock* again = OpenSyncStatus(0, nullptr);
  ASSERT_NE(again, nullptr);
  EXPECT_EQ(again->owner_active, 0u);
  EXPECT_EQ(again->closed_mark, 1u);
}

TEST_F(SyncStatusTest, AccessDeniedOnTheGlobalNameMeansNoBlock) {
  platform::fake::Enable();
  platform::fake::FailNamedObject(kGlobalStatus, 5);
  platform::EventHandle notify = nullptr;
  EXPECT_EQ(OpenSyncStatus(0, &notify), nullptr);
  EXPECT_NE(notify, nullptr);   // the event is independent of the block
}

TEST_F(SyncStatusTest, OtherFailuresFallBackToThePlainNames) {
  OtherView plain(kSyncStatusName, 32);
  ASSERT_NE(plain.words, nullptr);
  platform::fake::Enable();
  platform::fake::FailNamedObject(kGlobalStatus, 8);
  platform::fake::FailNamedObject(kGlobalEvent, 8);
  platform::EventHandle notify = nullptr;
  ASSERT_NE(OpenSyncStatus(3, &notify), nullptr);
  EXPECT_NE(notify, nullptr);
  EXPECT_EQ(plain.words[2], 3u);   // the owner wrote into the plain-named section
}

TEST_F(SyncStatusTest, NoEventAtAllLeavesTheBlockAndPulsesDoNothing) {
  platform::fake::Enable();
  platform::fake::FailNamedObject(kGlobalEvent, 8);
  platform::fake::FailNamedObject(kSyncStatusEventName, 8);
  platform::EventHandle notify = reinterpret_cast<platform::EventHandle>(1);
  EXPECT_NE(OpenSyncStatus(2, &notify), nullptr);
  EXPECT_EQ(notify, nullptr);
  PulseSyncStatus();
}

TEST_F(SyncStatusTest, ReadingWhereNoBlockExistsCreatesNothing) {
  SyncStatusBlock copy{};
  EXPECT_FALSE(ReadSyncStatus(copy));
  OtherView global(kGlobalStatus, 32), plain(kSyncStatusName, 32);
  EXPECT_FALSE(global.existed);
  EXPECT_FALSE(plain.existed);
}

TEST_F(SyncStatusTest, ReadingCopiesTheOwnersHeader) {
  OtherView other(kGlobalStatus, 32);   // another process's handle keeps the section after the owner's close
  platform::fake::Enable();   // the pulse does not sleep under the fake
  ASSERT_NE(OpenSyncStatus(9, nullptr), nullptr);
  SyncStatusBlock copy{};
  ASSERT_TRUE(ReadSyncStatus(copy));
  const std::uint32_t expected[8] = {32, 1, 9, 4, 2, 2008, 1210, 1};
  EXPECT_EQ(std::memcmp(&copy, expected, sizeof expected), 0);
  CloseSyncStatus(true);
  ASSERT_TRUE(ReadSyncStatus(copy));   // the section stays; the copy is taken anew
  EXPECT_EQ(copy.owner_active, 0u);
}

TEST_F(SyncStatusTest, ReadingTriesThePlainNameUnlessTheGlobalOneIsDenied) {
  OtherView plain(kSyncStatusName, 32);
  ASSERT_NE(plain.words, nullptr);
  plain.words[2] = 6;
  platform::fake::Enable();
  platform::fake::FailNamedObject(kGlobalStatus, 8);
  SyncStatusBlock copy{};
  ASSERT_TRUE(ReadSyncStatus(copy));
  EXPECT_EQ(copy.owner_product, 6u);
  platform::fake::FailNamedObject(kGlobalStatus, 5);
  EXPECT_FALSE(ReadSyncStatus(copy));
}

TEST_F(SyncStatusTest, ANewActivityMapStartsAllZero) {
  ASSERT_TRUE(OpenActivityMap());
  const volatile std::uint32_t* map = ActivityMapView();
  ASSERT_NE(map, nullptr);
  for (std::uint32_t i = 0; i < kActivitySlots; ++i) EXPECT_EQ(map[i], 0u) << i;
}

TEST_F(SyncStatusTest, AnExistingActivityMapKeepsItsContents) {
  OtherView other(kGlobalActivity, 256);
  ASSERT_NE(other.words, nullptr);
  other.words[3] = 77;
  other.words[63] = 2;
  ASSERT_TRUE(OpenActivityMap());
  EXPECT_EQ(ActivityMapView()[3], 77u);
  EXPECT_EQ(ActivityMapView()[63], 2u);
  MarkActivity(kActivityNtpSend);
  EXPECT_EQ(other.words[kActivityNtpSend], kActivityMark);   // the other opener sees the mark
}

TEST_F(SyncStatusTest, MarksStoreFiveAndIgnoreSlotsPastTheMap) {
  ASSERT_TRUE(OpenActivityMap());
  MarkActivity(64);
  MarkActivity(0xFFFFFFFF);
  for (std::uint32_t i = 0; i < kActivitySlots; ++i) EXPECT_EQ(ActivityMapView()[i], 0u) << i;
  MarkActivity(0);
  MarkActivity(63);
  EXPECT_EQ(ActivityMapView()[0], 5u);
  EXPECT_EQ(ActivityMapView()[63], 5u);
}

TEST_F(SyncStatusTest, WithoutAMapMarksAreDropped) {
  platform::fake::Enable();
  platform::fake::FailNamedObject(kGlobalActivity, 5);
  platform::fake::FailNamedObject(kActivityMapName, 5);
  EXPECT_FALSE(OpenActivityMap());
  EXPECT_EQ(ActivityMapView(), nullptr);
  MarkActivity(1);   // nothing to write to, nothing happens
}

TEST_F(SyncStatusTest, TheMapFallsBackToThePlainName) {
  OtherView plain(kActivityMapName, 256);
  platform::fake::Enable();
  platform::fake::FailNamedObject(kGlobalActivity, 5);
  ASSERT_TRUE(OpenActivityMap());
  MarkActivity(10);
  EXPECT_EQ(plain.words[10], 5u);
}

TEST_F(SyncStatusTest, NamedEventIsSharedBetweenHandles) {
  platform::EventHandle a = platform::CreateNamedEvent(kSyncStatusEventName);
  platform::EventHandle b = platform::CreateNamedEvent(kSyncStatusEventName);
  ASSERT_NE(a, nullptr);
  ASSERT_NE(b, nullptr);
  EXPECT_EQ(platform::WaitForEvent(b, 0), platform::kWaitTimeout);
  platform::SetEvent(a);
  EXPECT_EQ(platform::WaitForEvent(b, 5000), platform::kWaitObject0);
  EXPECT_EQ(platform::WaitForEvent(b, 0), platform::kWaitObject0);   // manual reset: stays set
  platform::ResetEvent(b);
  EXPECT_EQ(platform::WaitForEvent(a, 0), platform::kWaitTimeout);
  platform::CloseEvent(a);
  platform::CloseEvent(b);
}

}  // namespace
