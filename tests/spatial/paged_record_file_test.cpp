#include "kel/spatial/paged_record_file.h"

#include <filesystem>
#include <fstream>
#include <vector>

#include <gtest/gtest.h>

#include "spatial/temp_dir.h"
#include "support/error_of.h"
#include "support/log_capture.h"

namespace kel {
namespace {

constexpr std::uint32_t kPage = PagedRecordFile::kPageRecords;

BoxRecord Tag(std::uint32_t r) { return {float(r), -float(r), float(r % 977), 0.5f}; }

// Writes records 0 .. n-1 through pin/unpin, in order.
void Fill(PagedRecordFile& f, std::uint32_t n) {
  for (std::uint32_t r = 0; r < n; ++r) {
    BoxRecord* p = f.pin(r);
    *p = Tag(r);
    f.unpin(p);
  }
}

void ExpectTags(PagedRecordFile& f, std::uint32_t n, std::uint32_t step) {
  for (std::uint32_t r = 0; r < n; r += step) ASSERT_EQ(*f.peek(r), Tag(r)) << r;
}

TEST(PagedRecordFile, PagesSurviveEvictionRemapsAndReopens) {
  test::TempDir dir;
  const std::wstring path = dir.wpath() + L"/records";
  const std::uint32_t n = 23 * kPage + 123;  // past the remap slack of 20 pages once
  {
    PagedRecordFile f(20);
    ASSERT_TRUE(f.create(path, false));
    Fill(f, n);
    EXPECT_EQ(f.recordCount(), n);
    EXPECT_EQ(f.remapSlack(), 20 * kPage);
    EXPECT_GT(f.mappedCount(), 20 * kPage) << "the mapping was renewed once the file outgrew it";
    EXPECT_LT(f.mappedCount(), n);
    ExpectTags(f, n, 997);  // reads pages back in, evicting others
    EXPECT_GT(f.mappedSlots(), 0u);
    EXPECT_GT(f.bufferedSlots(), 0u) << "pages past the mapping are buffered";
    ASSERT_TRUE(f.reopen());
    EXPECT_EQ(f.mappedCount(), n);
    ExpectTags(f, n, 1009);
    EXPECT_EQ(f.bufferedSlots(), 1u) << "after a reopen only the partial last page is buffered";
  }
  // Closed: every record is in the file, back to back, no header.
  ASSERT_EQ(std::filesystem::file_size(dir.path() + "/records"), std::uintmax_t(n) * 16);
  std::ifstream in(dir.path() + "/records", std::ios::binary);
  std::vector<BoxRecord> all(n);
  in.read(reinterpret_cast<char*>(all.data()), std::streamsize(n) * 16);
  for (std::uint32_t r = 0; r < n; r += 1013) ASSERT_EQ(all[r], Tag(r)) << r;

  PagedRecordFile ro(20);
  ro.setWritable(false);
  ASSERT_TRUE(ro.open(path, true));
  EXPECT_EQ(ro.recordCount(), n);
  EXPECT_EQ(*ro.peek(n - 1), Tag(n - 1));
  EXPECT_EQ(*ro.peek(n + 5), BoxRecord::Empty()) << "past the end of a read-only file";
}

TEST(PagedRecordFile, UnpinningAPageEvictedWhilePinnedThrows) {
  test::TempDir dir;
  struct Case {
    const char* label;
    std::uint32_t existing;  // records already in the file
  } cases[] = {
      {"mapped pages", 25 * kPage},
      {"buffered pages", 1},
  };
  for (const Case& c : cases) {
    const std::wstring path = dir.wpath() + L"/pins";
    {
      PagedRecordFile f(20);
      ASSERT_TRUE(f.create(path, false));
      Fill(f, c.existing);
    }
    PagedRecordFile f(20);
    f.setWritable(true);
    ASSERT_TRUE(f.open(path, true));
    std::vector<BoxRecord*> pinned;
    for (std::uint32_t page = 0; page <= 20; ++page) pinned.push_back(f.pin(page * kPage));
    EXPECT_EQ(test::ErrorOf([&] { f.unpin(pinned[0]); }), L"Page was released before we were done using it!!!")
        << c.label;
    EXPECT_EQ(test::ErrorOf([&] { f.unpin(pinned[20]); }), L"") << c.label;
    EXPECT_EQ(test::ErrorOf([&] { f.unpin(pinned[20]); }), L"Page was released before we were done using it!!!")
        << c.label << ": a second unpin of the same pin";
  }
}

TEST(PagedRecordFile, TemporaryFilesLeaveNoNameBehind) {
  test::TempDir dir;
  const std::string name = dir.path() + "/level0";
  {
    PagedRecordFile f(20);
    ASSERT_TRUE(f.create(std::wstring(name.begin(), name.end()), true));
    Fill(f, 2 * kPage);
    EXPECT_TRUE(dir.entries().empty());
    EXPECT_TRUE(test::HoldsOpen(name + " (deleted)"));
    ASSERT_TRUE(f.reopen());
    EXPECT_EQ(f.recordCount(), 2 * kPage);
    ExpectTags(f, 2 * kPage, 101);
  }
  EXPECT_FALSE(test::HoldsOpen(name + " (deleted)"));
}

TEST(PagedRecordFile, FailedCallsAreLoggedAndWorkGoesOn) {
  test::LogCapture log;
  PagedRecordFile missing(20);
  missing.setWritable(true);
  EXPECT_FALSE(missing.open(L"/nonexistent-kel-dir/x", true));
  EXPECT_TRUE(log.events().empty()) << "a missing existing file is silent";

  PagedRecordFile f(2);
  EXPECT_FALSE(f.create(L"/nonexistent-kel-dir/x", true));
  EXPECT_EQ(log.log().countOf("CreateFile failed with error 2: No such file or directory"), 1);
  // Without a file the pages still work while they stay resident.
  Fill(f, 10);
  ExpectTags(f, 10, 1);
  f.pin(5 * kPage);  // evicts into nowhere
  EXPECT_TRUE(log.contains("WriteFile failed with error"));
}

}  // namespace
}  // namespace kel
