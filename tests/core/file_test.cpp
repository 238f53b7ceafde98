#include "kel/core/path.h"

#include <string>

#include <gtest/gtest.h>

#include "kel/core/text.h"
#include "support/log_capture.h"
#include "support/scratch.h"

namespace kel {
namespace {

std::wstring W(const std::string& s) { return Utf8String2WString(s); }

TEST(File, WritesReadsAndRemovesWholeFiles) {
  test::ScratchDir dir;
  const std::wstring nested = W(dir / "a/b/c");
  EXPECT_TRUE(File::CreateDirectories(nested));
  EXPECT_TRUE(File::CreateDirectories(nested));  // already there
  EXPECT_TRUE(File::IsDirectory(nested));
  const std::wstring file = File::ConcatPaths(nested, L"Ünïcode.bin");
  std::string bytes("head\0tail\xff", 10);
  ASSERT_TRUE(File::WriteAll(file, bytes));
  EXPECT_TRUE(File::Exists(file));
  EXPECT_FALSE(File::IsDirectory(file));
  EXPECT_EQ(File::Size(file), 10);
  std::string back = "stale";
  ASSERT_TRUE(File::ReadAll(file, back));
  EXPECT_EQ(back, bytes);
  ASSERT_TRUE(File::WriteAll(file, ""));
  ASSERT_TRUE(File::ReadAll(file, back));
  EXPECT_EQ(back, "");
  EXPECT_TRUE(File::Remove(file));
  EXPECT_FALSE(File::Exists(file));
  EXPECT_TRUE(File::Remove(file));  // nothing left either way
  EXPECT_EQ(File::Size(file), -1);
  EXPECT_EQ(File::Size(nested), -1);
  EXPECT_TRUE(test::Leftovers(dir.path() / "a/b/c").empty());
}

TEST(File, FailuresAreLoggedAndLeaveTheOldFile) {
  test::ScratchDir dir;
  test::LogCapture capture;
  std::string untouched = "keep";
  EXPECT_FALSE(File::ReadAll(W(dir / "missing"), untouched));
  EXPECT_FALSE(File::ReadAll(W(dir.path().string()), untouched));  // a folder
  EXPECT_EQ(untouched, "keep");
  EXPECT_TRUE(capture.contains("Failed to read " + (dir / "missing") + ": No such file or directory"));
  EXPECT_TRUE(capture.contains("Is a directory"));

  EXPECT_FALSE(File::WriteAll(W(dir / "no/folder/x"), "data"));
  test::WriteBytes(dir / "blocker", "x");
  EXPECT_FALSE(File::CreateDirectories(W(dir / "blocker/sub")));
  std::filesystem::create_directories(dir.path() / "dir");
  test::WriteBytes(dir / "dir/inner", "x");
  EXPECT_FALSE(File::Remove(W(dir / "dir")));  // not empty
  EXPECT_TRUE(capture.contains("Failed to remove"));

  // A write that cannot finish leaves the old content and no temporary.
  const std::string target = dir / "settings.txt";
  test::WriteBytes(target, "old content");
  {
    test::FileSizeLimit limit(4096);
    EXPECT_FALSE(File::WriteAll(W(target), std::string(100000, 'n')));
  }
  EXPECT_EQ(test::ReadBytes(target), "old content");
  EXPECT_TRUE(test::Leftovers(dir.path()).empty());
}

}  // namespace
}  // namespace kel
