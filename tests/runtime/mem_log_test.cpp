#include "kel/runtime/mem_log.h"

#include <cstring>
#include <memory>

#include <gtest/gtest.h>

#include "support/log_capture.h"

namespace kel {
namespace {

TEST(MemLog, PeakFollowsMemoryTouched) {
  MemLog::Usage before;
  ASSERT_TRUE(MemLog::Read(before));
  EXPECT_GT(before.resident, 0u);
  EXPECT_GE(before.peakResident, before.resident);
  constexpr std::size_t kBytes = 64u << 20;
  auto block = std::make_unique<char[]>(kBytes);
  std::memset(block.get(), 1, kBytes);  // resident only once touched
  MemLog::Usage during;
  ASSERT_TRUE(MemLog::Read(during));
  EXPECT_GE(during.resident + 4 * 1048576, before.resident + kBytes);
  EXPECT_GE(during.peakResident, during.resident);
  EXPECT_EQ(block[kBytes - 1], 1);
}

TEST(MemLog, LogsTheNamedPoint) {
  test::LogCapture capture;
  const MemLog::Usage usage = MemLog::Log(L"after tiles");
  EXPECT_GT(usage.resident, 0u);
  ASSERT_EQ(capture.events().size(), 1u);
  EXPECT_EQ(capture.events()[0].level, log4cplus::INFO_LOG_LEVEL);
  EXPECT_EQ(capture.events()[0].message.rfind("Memory at after tiles: resident ", 0), 0u);
  EXPECT_NE(capture.events()[0].message.find(" MiB, peak "), std::string::npos);
}

}  // namespace
}  // namespace kel
