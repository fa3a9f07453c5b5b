// The platform file layer: the Win32 file calls as the drift code uses them, on both targets.
#include <gtest/gtest.h>

#include <cctype>
#include <filesystem>
#include <string>

#include "platform/error.h"
#include "platform/file.h"
#include "tests/drift_test_util.h"

namespace {

using namespace platform;

class FileLayerTest : public DriftFolderTest {};

TEST_F(FileLayerTest, WriteSeekReadSizeAndCut) {
  const std::string path = PathOf("data.bin");
  FileHandle f = FileCreate(path, kGenericRead | kGenericWrite, kShareRead | kShareWrite, kOpenAlways, kFlagSequentialScan);
  ASSERT_NE(f, nullptr);
  std::uint32_t done = 0;
  ASSERT_TRUE(FileWrite(f, "0123456789", 10, done));
  EXPECT_EQ(done, 10u);
  std::uint64_t size = 0, at = 0;
  ASSERT_TRUE(FileSize(f, size));
  EXPECT_EQ(size, 10u);
  ASSERT_TRUE(FileSeek(f, -4, SeekFrom::End, &at));
  EXPECT_EQ(at, 6u);
  char buf[16] = {};
  ASSERT_TRUE(FileRead(f, buf, 16, done));
  EXPECT_EQ(done, 4u);
  EXPECT_STREQ(buf, "6789");
  ASSERT_TRUE(FileRead(f, buf, 16, done));
  EXPECT_EQ(done, 0u);   // end of file
  ASSERT_TRUE(FileSeek(f, 3, SeekFrom::Begin));
  ASSERT_TRUE(FileSetEnd(f));
  ASSERT_TRUE(FileFlush(f));
  ASSERT_TRUE(FileSize(f, size));
  EXPECT_EQ(size, 3u);
  EXPECT_FALSE(FileSeek(f, -10, SeekFrom::Begin));
  EXPECT_EQ(LastError(), 131u);
  FileClose(f);
  EXPECT_EQ(std::filesystem::file_size(path), 3u);
}

TEST_F(FileLayerTest, OpenExistingReportsMissingFilesAndFolders) {
  EXPECT_EQ(FileCreate(PathOf("absent"), kGenericRead, kShareRead, kOpenExisting, 0), nullptr);
  EXPECT_EQ(LastError(), 2u);
  EXPECT_EQ(FileCreate(PathOf("nodir") + "/absent", kGenericRead, kShareRead, kOpenExisting, 0), nullptr);
  EXPECT_EQ(LastError(), 3u);
  EXPECT_FALSE(FileDelete(PathOf("absent")));
  EXPECT_EQ(LastError(), 2u);
}

TEST_F(FileLayerTest, FoldersAreMadeWithThoseAboveAndRemovedOnlyWhenEmpty) {
  const std::string top = PathOf("a"), inner = PathOf("a") + "/b/c";
  ASSERT_TRUE(CreateDirectoryPath(inner));
  EXPECT_TRUE(std::filesystem::is_directory(inner));
  EXPECT_TRUE(CreateDirectoryPath(inner));   // there already
  EXPECT_FALSE(RemoveEmptyDirectory(top));   // not empty
  EXPECT_TRUE(std::filesystem::is_directory(top));
  EXPECT_TRUE(RemoveEmptyDirectory(inner));
  EXPECT_FALSE(std::filesystem::exists(inner));
  EXPECT_FALSE(RemoveEmptyDirectory(inner));   // gone
  EXPECT_NE(LastError(), 0u);
  // A file where a folder should be.
  WriteBytes(PathOf("blocked"), {1});
  SetLastError(0);
  EXPECT_FALSE(CreateDirectoryPath(PathOf("blocked") + "/sub"));
  EXPECT_NE(LastError(), 0u);
  EXPECT_FALSE(CreateDirectoryPath(PathOf("blocked")));
  EXPECT_NE(LastError(), 0u);
}

TEST_F(FileLayerTest, CreateAlwaysTruncates) {
  const std::string path = PathOf("t.txt");
  WriteBytes(path, {1, 2, 3});
  FileHandle f = FileCreate(path, kGenericWrite, 0, kCreateAlways, kFlagSequentialScan);
  ASSERT_NE(f, nullptr);
  FileClose(f);
  EXPECT_EQ(std::filesystem::file_size(path), 0u);
}

TEST_F(FileLayerTest, AnUnsharedFileRefusesOtherOpens) {
  const std::string path = PathOf("report.txt");
  FileHandle writer = FileCreate(path, kGenericWrite, 0, kCreateAlways, 0);
  ASSERT_NE(writer, nullptr);
  std::uint32_t done = 0;
  ASSERT_TRUE(FileWrite(writer, "abc", 3, done));
  EXPECT_EQ(FileCreate(path, kGenericRead, kShareRead | kShareWrite, kOpenExisting, 0), nullptr);
  EXPECT_EQ(LastError(), 32u);
  // A second exclusive create fails too, and leaves the content alone.
  EXPECT_EQ(FileCreate(path, kGenericWrite, 0, kCreateAlways, 0), nullptr);
  EXPECT_EQ(LastError(), 32u);
  FileClose(writer);
  EXPECT_EQ(std::filesystem::file_size(path), 3u);
  FileHandle reader = FileCreate(path, kGenericRead, kShareRead | kShareWrite, kOpenExisting, 0);
  ASSERT_NE(reader, nullptr);
  FileClose(reader);
}

TEST_F(FileLayerTest, SharedOpensCoexist) {
  const std::string path = PathOf("drift.kr");
  FileHandle a = FileCreate(path, kGenericRead | kGenericWrite, kShareRead | kShareWrite, kOpenAlways, 0);
  FileHandle b = FileCreate(path, kGenericRead, kShareRead | kShareWrite, kOpenExisting, 0);
  ASSERT_NE(a, nullptr);
  ASSERT_NE(b, nullptr);
  std::uint32_t done = 0;
  ASSERT_TRUE(FileWrite(a, "12345", 5, done));
  std::uint64_t size = 0;
  ASSERT_TRUE(FileSize(b, size));
  EXPECT_EQ(size, 5u);   // the reader notices growth by the size
  FileClose(a);
  FileClose(b);
}

TEST_F(FileLayerTest, TemporaryNamesAreNewFiles) {
  const std::string dir = TempDirectory();
  ASSERT_FALSE(dir.empty());
  EXPECT_TRUE(dir.back() == '/' || dir.back() == '\\');
  std::string a, b;
  ASSERT_TRUE(TempFileName(dir_.string(), "KRG", a));
  ASSERT_TRUE(TempFileName(dir_.string(), "KRG", b));
  EXPECT_NE(a, b);
  const std::string name = std::filesystem::path(a).filename().string();
  EXPECT_EQ(name.substr(0, 3), "KRG");
  std::string extension = name.substr(name.size() - 4);
  for (char& c : extension) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  EXPECT_EQ(extension, ".tmp");
  EXPECT_TRUE(std::filesystem::exists(a));
  EXPECT_EQ(std::filesystem::file_size(a), 0u);
  EXPECT_TRUE(FileDelete(a));
  EXPECT_FALSE(std::filesystem::exists(a));
}

TEST_F(FileLayerTest, SecureDataFileNeedsTheFile) {
  const std::string path = PathOf("drift.kr");
  WriteBytes(path, {});
  EXPECT_TRUE(SecureDataFile(path));
  EXPECT_FALSE(SecureDataFile(PathOf("nodir") + "/drift.kr"));
}

TEST(FileLayerPlainTest, NoWindowHasNoOrigin) {
  int x = 1, y = 1;
  EXPECT_FALSE(platform::WindowOrigin(nullptr, x, y));
  EXPECT_EQ(x, 0);
  EXPECT_EQ(y, 0);
}

// The writers' lock: a second handle (of this process too) waits for it and gets it once it is
// released; the data stays readable and writable through either handle meanwhile.
TEST_F(FileLayerTest, TheWritersLockExcludesOtherHandlesButNotTheData) {
  const std::string path = PathOf("locked.bin");
  const auto open = [&] {
    return FileCreate(path, kGenericRead | kGenericWrite, kShareRead | kShareWrite, kOpenAlways, 0);
  };
  FileHandle a = open(), b = open();
  ASSERT_NE(a, nullptr);
  ASSERT_NE(b, nullptr);
  ASSERT_TRUE(FileLockWriters(a, 0));
  EXPECT_FALSE(FileLockWriters(b, 20));
  EXPECT_EQ(LastError(), kErrorLockViolation);
  std::uint32_t done = 0;
  ASSERT_TRUE(FileWrite(b, "abc", 3, done));
  ASSERT_TRUE(FileSeek(a, 0, SeekFrom::Begin));
  char buf[4] = {};
  ASSERT_TRUE(FileRead(a, buf, 3, done));
  EXPECT_STREQ(buf, "abc");
  ASSERT_TRUE(FileUnlockWriters(a));
  ASSERT_TRUE(FileLockWriters(b, 0));
  EXPECT_FALSE(FileLockWriters(a, 0));
  FileClose(b);   // closing releases it
  EXPECT_TRUE(FileLockWriters(a, 0));
  FileClose(a);
}

// A file written whole like another: the bytes, in place of what was there, and no ".part" left.
TEST_F(FileLayerTest, WriteWholeLikeReplacesTheFile) {
  const std::string model = PathOf("model.bin"), path = PathOf("copy.bin");
  FileHandle like = FileCreate(model, kGenericRead | kGenericWrite, kShareRead | kShareWrite, kOpenAlways, 0);
  ASSERT_NE(like, nullptr);
  WriteBytes(path, {'o', 'l', 'd', '!', '!'});
  ASSERT_TRUE(FileWriteWholeLike(path, "new", like));
  EXPECT_EQ(ReadBytes(path), (std::vector<std::uint8_t>{'n', 'e', 'w'}));
  EXPECT_FALSE(FileExists(path + ".part"));
  EXPECT_FALSE(FileWriteWholeLike(PathOf("missing") + "/copy.bin", "new", like));
  EXPECT_EQ(LastError(), kErrorPathNotFound);
  FileClose(like);
}

}  // namespace
