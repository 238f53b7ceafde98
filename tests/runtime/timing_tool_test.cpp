#include "kel/runtime/timing_tool.h"

#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace kel {
namespace {

TEST(TimingTool, CollectsCountTotalPeakAndLast) {
  TimingTool timing;
  for (double s : {1.0, 3.0, 0.5}) timing.Add(L"read", s);
  timing.Add(L"build", 2.0);
  const auto sections = timing.Sections();
  ASSERT_EQ(sections.size(), 2u);
  EXPECT_EQ(sections[0].name, L"read");  // in order of first appearance
  EXPECT_EQ(sections[0].count, 3u);
  EXPECT_DOUBLE_EQ(sections[0].total, 4.5);
  EXPECT_DOUBLE_EQ(sections[0].peak, 3.0);
  EXPECT_DOUBLE_EQ(sections[0].last, 0.5);
  const std::wstring report = timing.Report();
  for (const wchar_t* cell : {L"read", L"4.500000", L"1.500000", L"elapsed"})
    EXPECT_NE(report.find(cell), std::wstring::npos) << report.size();
  timing.Reset();
  EXPECT_TRUE(timing.Sections().empty());
}

// Marks split the run without gaps; scopes from many threads all count.
TEST(TimingTool, MarksAndScopesAccountForTheRun) {
  TimingTool timing;
  std::this_thread::sleep_for(std::chrono::milliseconds(3));
  timing.Mark(L"first");
  std::vector<std::thread> threads;
  for (int t = 0; t < 8; ++t)
    threads.emplace_back([&timing] {
      for (int i = 0; i < 100; ++i) TimingTool::Scope scope(timing, L"work");
    });
  for (auto& t : threads) t.join();
  timing.Mark(L"second");
  const auto sections = timing.Sections();
  ASSERT_EQ(sections.size(), 3u);
  EXPECT_GE(sections[0].total, 0.003);
  EXPECT_EQ(sections[1].count, 800u);
  EXPECT_LE(sections[0].total + sections[2].total, timing.Elapsed());
}

}  // namespace
}  // namespace kel
