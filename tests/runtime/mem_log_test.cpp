#include "kel/runtime/mem_log.h"

#include <cstring>
#include <memory>

#include <gtest/gtest.h>

#include "support/log_capture.h"

namespace kel {
namespace {

TEST(MemLog, ReadsAndLogsMemoryTouched) {
  test::LogCapture capture;
  const MemLog::Usage before = MemLog::Log(L"before");
  constexpr std::size_t kBytes = 64u << 20;
  auto block = std::make_unique<char[]>(kBytes);
  std::memset(block.get(), 1, kBytes);  // resident only once touched
  MemLog::Usage during;
  ASSERT_TRUE(MemLog::Read(during));
  EXPECT_GE(during.resident + (4u << 20), before.resident + kBytes);
  EXPECT_GE(during.peakResident, during.resident);
  ASSERT_EQ(capture.events().size(), 1u);
  EXPECT_EQ(capture.events()[0].level, log4cplus::INFO_LOG_LEVEL);
  EXPECT_EQ(capture.events()[0].message.rfind("Memory at before: resident ", 0), 0u);
  EXPECT_EQ(block[kBytes - 1], 1);
}

}  // namespace
}  // namespace kel
