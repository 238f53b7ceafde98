#include "kel/runtime/progress.h"

#include <atomic>
#include <chrono>
#include <functional>
#include <latch>
#include <limits>
#include <random>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "runtime/detail/progress_time.h"
#include "support/log_capture.h"

namespace kel {
namespace {

constexpr std::int64_t kMax = std::numeric_limits<std::uint32_t>::max();

TEST(Progress, ClampsValuesAndTotals) {
  struct Case {
    std::int64_t total, update, stored;
    bool logs;
  };
  const Case cases[] = {
      {10, -5, 0, false},         {10, 3, 3, false},        {10, 10, 10, false},
      {10, 20, 10, false},        {10, kMax + 1, 10, true}, {kMax, kMax, kMax, false},
      {kMax + 7, kMax, kMax, true}, {-3, 5, 0, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << "total " << c.total << ", update " << c.update);
    test::LogCapture capture;
    Progress p(L"clamp", c.total);
    EXPECT_EQ(p.totalValue(), std::clamp<std::int64_t>(c.total, 0, kMax));
    EXPECT_TRUE(p.updateValue(c.update));
    EXPECT_EQ(p.value(), c.stored);
    EXPECT_EQ(capture.contains("progress value exceeds uint32 range: "), c.logs);
  }
}

TEST(Progress, FinishReachesTheTotalAndOneForAZeroTotal) {
  for (std::int64_t total : {0, 1, 250}) {
    Progress p(L"finish", total);
    EXPECT_FALSE(p.isFinished());
    EXPECT_TRUE(p.finish());
    EXPECT_TRUE(p.isFinished());
    EXPECT_EQ(p.value(), total == 0 ? 1 : total);
    EXPECT_EQ(p.percent(), total == 0 ? 0.0 : 100.0);
    EXPECT_EQ(p.timeRemainingString(), total == 0 ? L"calc. ..." : L"finished;");
  }
  Progress half(L"half", 8);
  half.updateValue(2);
  EXPECT_EQ(half.percent(), 25.0);
}

TEST(Progress, InterruptStopsOnlyWhenAllowed) {
  for (auto allowed : {Progress::InterruptForbidden, Progress::InterruptAllowed, Progress::InterruptAnnounced}) {
    Progress p(L"interrupt", 10, allowed);
    const bool stops = allowed != Progress::InterruptForbidden;
    EXPECT_EQ(p.allowInterrupt(), stops);
    EXPECT_EQ(p.allowedInterrupt(), allowed);
    p.interrupt();
    EXPECT_EQ(p.isInterrupted(), stops);
    EXPECT_EQ(p.updateValue(10), !stops);
    EXPECT_EQ(p.value(), 10);  // the value is stored either way
    EXPECT_EQ(p.finish(), !stops);
    EXPECT_EQ(p.isFinished(), !stops);
    EXPECT_EQ(p.timeRemaining(), stops ? -1.0 : 0.0);
    EXPECT_EQ(p.timeRemainingString(), stops ? L"interrupted" : L"finished;");
  }
}

TEST(Progress, EstimatesRemainingTimeAndNamesEachState) {
  struct Case {
    bool interrupted;
    double elapsed;
    std::int64_t value, total;
    double seconds;
    const wchar_t* text;
  };
  const Case cases[] = {
      {false, 10, 50, 100, 15, L"00:00:15"},     // 10 / 0.5 * 0.5 * 1.5
      {false, 20, 25, 100, 105, L"00:01:45"},    // 20 / 0.25 * 0.75 * 1.75
      {false, 240000, 50, 100, 360000, L"100:00:00"},  // hours past 99 widen
      {false, 100, 0, 1000, -1, L"calc. ..."},   // below 1 %
      {false, 4.999, 50, 100, -1, L"calc. ..."}, // first five seconds
      {false, 0, 100, 100, 0, L"finished;"},     // done beats too early
      {true, 10, 50, 100, -1, L"interrupted"},
      {false, 10, 1, 0, -1, L"calc. ..."},       // no total
  };
  for (const Case& c : cases) {
    const double r = detail::RemainingSeconds(c.interrupted, c.elapsed, c.value, c.total);
    EXPECT_DOUBLE_EQ(r, c.seconds) << c.elapsed << " s, " << c.value << " of " << c.total;
    EXPECT_EQ(detail::RemainingText(r, c.interrupted, c.total), c.text);
  }
  Progress fresh(L"fresh", 100);
  fresh.updateValue(50);
  EXPECT_EQ(fresh.timeRemainingString(), L"calc. ...");  // within its first five seconds
  EXPECT_EQ(fresh.timeElapsedString(), L"00:00:00");
}

std::set<Progress*> Roots() {
  EXPECT_TRUE(Progress::LockProgressInfo());
  std::set<Progress*> roots = Progress::GetRootElements();
  Progress::UnlockProgressInfo();
  return roots;
}

TEST(Progress, NestingBuildsTheTreeAndUnwindsIt) {
  {
    Progress outer(L"outer", 2);
    {
      Progress inner(L"inner", 3);
      Progress innermost(L"innermost", 4);
      EXPECT_EQ(innermost.parent(), &inner);
      EXPECT_EQ(outer.children(), std::set<Progress*>{&inner});
      EXPECT_EQ(inner.children(), std::set<Progress*>{&innermost});
      EXPECT_EQ(Roots(), std::set<Progress*>{&outer});
    }
    EXPECT_TRUE(outer.children().empty());
    // Without shown children, work beneath stays out of the tree.
    Progress quiet(L"quiet", 1, Progress::InterruptAllowed, false);
    Progress detail(L"detail", 1);
    EXPECT_EQ(detail.parent(), &quiet);
    EXPECT_TRUE(quiet.children().empty());
    // A worker thread joins the tree through a context, and only then.
    std::set<Progress*> adopted;
    std::thread worker([&] {
      Progress loose(L"loose", 1);
      EXPECT_EQ(loose.parent(), nullptr);
      Progress::ThreadContext context(outer);
      Progress part(L"part", 1);
      ASSERT_TRUE(Progress::LockProgressInfo());
      adopted = outer.children();
      Progress::UnlockProgressInfo();
    });
    worker.join();
    EXPECT_EQ(adopted.size(), 2u);  // quiet and the worker's part
    EXPECT_EQ(outer.children(), std::set<Progress*>{&quiet});
  }
  EXPECT_TRUE(Roots().empty());
}

TEST(Progress, SecondLockFailsWithAWarning) {
  test::LogCapture capture;
  ASSERT_TRUE(Progress::LockProgressInfo());
  EXPECT_FALSE(Progress::LockProgressInfo());
  std::thread other([] { EXPECT_FALSE(Progress::LockProgressInfo()); });
  other.join();
  Progress::UnlockProgressInfo();
  EXPECT_EQ(capture.log().countOf("Progress info already locked"), 2);
  EXPECT_TRUE(Progress::LockProgressInfo());
  Progress::UnlockProgressInfo();
}

// Six workers create, update and interrupt nested progress under one shared
// root while two readers walk the tree, check its links and interrupt what
// they find. Run under ThreadSanitizer in CI.
TEST(Progress, SurvivesEightThreads) {
  test::LogCapture capture;  // readers colliding log "already locked"
  constexpr int kWorkers = 6, kReaders = 2, kJobs = 300;
  Progress root(L"hammer", kWorkers * kJobs, Progress::InterruptForbidden);
  std::atomic<int> jobsDone{0}, workersLeft{kWorkers};
  std::atomic<long> walks{0}, nodesSeen{0}, badLinks{0};
  std::latch start(kWorkers + kReaders);

  auto work = [&](int id) {
    std::mt19937 rng(id);
    Progress::ThreadContext context(root);
    start.arrive_and_wait();
    for (int j = 0; j < kJobs; ++j) {
      Progress job(L"job", 20, static_cast<Progress::AllowedInterrupt>(j % 3));
      for (int s = 0; s <= 20; ++s) {
        Progress step(L"step", 4);
        for (int k = 0; k <= 4; ++k) step.updateValue(k);
        if (rng() % 50 == 0) job.updateDescription(L"job " + std::to_wstring(s));
        if (rng() % 200 == 0) job.interrupt();
        if (!job.updateValue(s)) break;
      }
      root.updateValue(jobsDone.fetch_add(1) + 1);
    }
    workersLeft.fetch_sub(1);
  };
  auto read = [&](int id) {
    std::mt19937 rng(100 + id);
    std::function<void(const Progress&)> walk = [&](const Progress& node) {
      ++nodesSeen;
      if (node.value() > node.totalValue() || node.percent() > 100.0) ++badLinks;
      (void)node.description();
      (void)node.timeRemainingString();
      for (Progress* child : node.children()) {
        if (child->parent() != &node) ++badLinks;
        if (rng() % 100 == 0) child->interrupt();
        walk(*child);
      }
    };
    start.arrive_and_wait();
    do {
      if (!Progress::LockProgressInfo()) continue;
      for (Progress* r : Progress::GetRootElements()) {
        if (r->parent() != nullptr) ++badLinks;
        walk(*r);
      }
      Progress::UnlockProgressInfo();
      ++walks;
    } while (workersLeft.load() > 0);
  };
  std::vector<std::thread> threads;
  for (int i = 0; i < kWorkers; ++i) threads.emplace_back(work, i);
  for (int i = 0; i < kReaders; ++i) threads.emplace_back(read, i);
  for (auto& t : threads) t.join();

  EXPECT_EQ(badLinks.load(), 0);
  EXPECT_GT(walks.load(), 0);
  EXPECT_GT(nodesSeen.load(), 0);
  EXPECT_EQ(root.value(), kWorkers * kJobs);
  EXPECT_TRUE(root.isFinished());
  EXPECT_EQ(Roots(), std::set<Progress*>{&root});
  EXPECT_TRUE(root.children().empty());
}

}  // namespace
}  // namespace kel
