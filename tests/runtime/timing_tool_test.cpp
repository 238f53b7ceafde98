#include "kel/runtime/timing_tool.h"

#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace kel {
namespace {

TEST(TimingTool, CollectsCountTotalPeakAndLast) {
  TimingTool timing;
  timing.Add(L"read", 1.0);
  timing.Add(L"build", 2.0);
  timing.Add(L"read", 3.0);
  timing.Add(L"read", 0.5);
  const auto sections = timing.Sections();
  ASSERT_EQ(sections.size(), 2u);
  EXPECT_EQ(sections[0].name, L"read");
  EXPECT_EQ(sections[0].count, 3u);
  EXPECT_DOUBLE_EQ(sections[0].total, 4.5);
  EXPECT_DOUBLE_EQ(sections[0].peak, 3.0);
  EXPECT_DOUBLE_EQ(sections[0].last, 0.5);
  EXPECT_EQ(sections[1].name, L"build");
  const std::wstring report = timing.Report();
  EXPECT_NE(report.find(L"read"), std::wstring::npos);
  EXPECT_NE(report.find(L"4.500000"), std::wstring::npos);
  EXPECT_NE(report.find(L"1.500000"), std::wstring::npos);  // mean of read
  EXPECT_NE(report.find(L"elapsed"), std::wstring::npos);
  timing.Reset();
  EXPECT_TRUE(timing.Sections().empty());
}

// Marks split the run without gaps: the sections add up to the time spent.
TEST(TimingTool, MarksCoverTheRunWithoutGaps) {
  TimingTool timing;
  for (int i = 0; i < 3; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
    timing.Mark(i == 1 ? L"odd" : L"even");
  }
  const double elapsed = timing.Elapsed();
  double total = 0;
  for (const auto& s : timing.Sections()) total += s.total;
  EXPECT_EQ(timing.Sections().size(), 2u);
  EXPECT_GE(total, 0.006);
  EXPECT_LE(total, elapsed);
}

TEST(TimingTool, ScopesFromManyThreadsAllCount) {
  TimingTool timing;
  std::vector<std::thread> threads;
  for (int t = 0; t < 8; ++t)
    threads.emplace_back([&timing] {
      for (int i = 0; i < 100; ++i) TimingTool::Scope scope(timing, L"work");
    });
  for (auto& t : threads) t.join();
  ASSERT_EQ(timing.Sections().size(), 1u);
  EXPECT_EQ(timing.Sections()[0].count, 800u);
  EXPECT_GE(timing.Sections()[0].peak, 0.0);
}

}  // namespace
}  // namespace kel
