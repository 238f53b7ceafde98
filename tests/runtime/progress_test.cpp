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

TEST(Progress, RemainingTimeFollowsThePaddedEstimate) {
  struct Case {
    bool interrupted;
    double elapsed;
    std::int64_t value, total;
    double expected;
  };
  const Case cases[] = {
      {false, 10, 50, 100, 15},    // 10 / 0.5 * 0.5 * 1.5
      {false, 20, 25, 100, 105},   // 20 / 0.25 * 0.75 * 1.75
      {false, 99, 1, 100, 99 / 0.01 * 0.99 * 1.99},
      {false, 100, 0, 1000, -1},   // below 1 %
      {false, 4.999, 50, 100, -1}, // first five seconds
      {false, 0, 100, 100, 0},     // done beats too early
      {true, 10, 50, 100, -1},
      {false, 10, 1, 0, -1},       // no total
  };
  for (const Case& c : cases)
    EXPECT_DOUBLE_EQ(detail::RemainingSeconds(c.interrupted, c.elapsed, c.value, c.total), c.expected)
        << c.elapsed << " s, " << c.value << " of " << c.total;
}

TEST(Progress, RemainingTextNamesEachState) {
  struct Case {
    double r;
    bool interrupted;
    const wchar_t* text;
  };
  const Case cases[] = {
      {0, false, L"finished;"},   {15, false, L"00:00:15"},       {15.99, false, L"00:00:15"},
      {3725, false, L"01:02:05"}, {90000, false, L"25:00:00"},    {360000, false, L"100:00:00"},
      {-1, true, L"interrupted"}, {-1, false, L"calc. ..."},      {0.4, false, L"00:00:00"},
  };
  for (const Case& c : cases) EXPECT_EQ(detail::RemainingText(c.r, c.interrupted, 10), c.text) << c.r;
  Progress fresh(L"fresh", 100);
  fresh.updateValue(50);
  EXPECT_EQ(fresh.timeRemaining(), -1.0);  // within its first five seconds
  EXPECT_EQ(fresh.timeRemainingString(), L"calc. ...");
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
    EXPECT_EQ(Roots(), std::set<Progress*>{&outer});
    {
      Progress inner(L"inner", 3);
      Progress innermost(L"innermost", 4);
      EXPECT_EQ(inner.parent(), &outer);
      EXPECT_EQ(innermost.parent(), &inner);
      EXPECT_EQ(outer.children(), std::set<Progress*>{&inner});
      EXPECT_EQ(inner.children(), std::set<Progress*>{&innermost});
      EXPECT_TRUE(innermost.children().empty());
      EXPECT_EQ(Roots(), std::set<Progress*>{&outer});
    }
    EXPECT_TRUE(outer.children().empty());
    Progress second(L"second", 1);
    EXPECT_EQ(outer.children(), std::set<Progress*>{&second});
  }
  EXPECT_TRUE(Roots().empty());
}

TEST(Progress, HiddenChildrenStayOutOfTheTree) {
  Progress quiet(L"quiet", 1, Progress::InterruptAllowed, false);
  Progress detail(L"detail", 1);
  Progress deeper(L"deeper", 1);
  EXPECT_EQ(detail.parent(), &quiet);
  EXPECT_TRUE(quiet.children().empty());
  EXPECT_EQ(Roots(), std::set<Progress*>{&quiet});
}

TEST(Progress, ThreadContextAdoptsWorkerProgress) {
  Progress job(L"job", 2);
  Progress* seenParent = nullptr;
  std::set<Progress*> childrenDuringWork;
  std::thread worker([&] {
    Progress loose(L"loose", 1);  // no context: a root of its own
    EXPECT_EQ(loose.parent(), nullptr);
    Progress::ThreadContext context(job);
    Progress part(L"part", 1);
    seenParent = part.parent();
    ASSERT_TRUE(Progress::LockProgressInfo());
    childrenDuringWork = job.children();
    Progress::UnlockProgressInfo();
  });
  worker.join();
  EXPECT_EQ(seenParent, &job);
  EXPECT_EQ(childrenDuringWork.size(), 1u);
  EXPECT_TRUE(job.children().empty());
  EXPECT_EQ(Roots(), std::set<Progress*>{&job});
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

TEST(Progress, ConstructionWaitsForTheReader) {
  std::atomic<bool> created{false};
  ASSERT_TRUE(Progress::LockProgressInfo());
  std::thread worker([&] {
    Progress p(L"waits", 1);
    created = true;
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  EXPECT_FALSE(created.load());
  Progress::UnlockProgressInfo();
  worker.join();
  EXPECT_TRUE(created.load());
}

TEST(Progress, DescriptionIsACopy) {
  Progress p(L"first", 1);
  const std::wstring before = p.description();
  p.updateDescription(L"second");
  EXPECT_EQ(before, L"first");
  EXPECT_EQ(p.description(), L"second");
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
