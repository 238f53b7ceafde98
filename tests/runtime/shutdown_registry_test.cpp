#include "kel/runtime/shutdown_registry.h"

#include <atomic>
#include <stdexcept>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "support/log_capture.h"

namespace kel {
namespace {

TEST(ShutdownRegistry, RunsNewestFirstAndOnlyOnce) {
  std::vector<int> ran;
  for (int i = 1; i <= 3; ++i) ShutdownRegistry::Register([&ran, i] { ran.push_back(i); });
  const auto dropped = ShutdownRegistry::Register([&ran] { ran.push_back(99); });
  EXPECT_TRUE(ShutdownRegistry::Unregister(dropped));
  EXPECT_FALSE(ShutdownRegistry::Unregister(dropped));
  EXPECT_EQ(ShutdownRegistry::Size(), 3u);
  ShutdownRegistry::Shutdown();
  ShutdownRegistry::Shutdown();
  EXPECT_EQ(ran, (std::vector<int>{3, 2, 1}));
  EXPECT_EQ(ShutdownRegistry::Size(), 0u);
}

TEST(ShutdownRegistry, ActionsMayThrowRegisterAndShutDown) {
  test::LogCapture capture;
  std::vector<int> ran;
  ShutdownRegistry::Register([&] { ran.push_back(1); });
  ShutdownRegistry::Register([] { throw std::runtime_error("disk gone"); }, L"flush cache");
  ShutdownRegistry::Register([&] {
    ran.push_back(3);
    ShutdownRegistry::Register([&] { ran.push_back(4); });  // newest now: runs next
    ShutdownRegistry::Shutdown();  // nested: runs the rest, must not deadlock
  });
  ShutdownRegistry::Shutdown();
  EXPECT_EQ(ran, (std::vector<int>{3, 4, 1}));
  EXPECT_TRUE(capture.contains("Shutdown action 'flush cache' failed: disk gone"));
}

TEST(ShutdownRegistry, EveryActionRunsOnceUnderContention) {
  constexpr int kThreads = 8, kEach = 500;
  std::vector<std::atomic<int>> runs(kThreads * kEach);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t)
    threads.emplace_back([&, t] {
      for (int i = 0; i < kEach; ++i) {
        ShutdownRegistry::Register([&runs, k = t * kEach + i] { ++runs[k]; });
        if (i % 100 == 99) ShutdownRegistry::Shutdown();  // shutdowns racing with registrations
      }
    });
  for (auto& t : threads) t.join();
  ShutdownRegistry::Shutdown();
  for (const auto& r : runs) ASSERT_EQ(r.load(), 1);
}

}  // namespace
}  // namespace kel
