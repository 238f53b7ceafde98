// Log::initialize and getLogPath hold process-wide state, so this file's
// tests run in their own order-dependent sequence in one test.
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>

#include <gtest/gtest.h>

#include "kel/core/log.h"

namespace kel {
namespace {

std::string WriteTemp(const std::string& name, const std::string& text) {
  const char* dir = std::getenv("TMPDIR");
  std::string path = std::string(dir && *dir ? dir : "/tmp") + "/" + name;
  std::ofstream(path) << text;
  return path;
}

TEST(LogInitialize, FileWithoutRootAppenderFailsThenBasicSucceedsOnce) {
  const std::string none = WriteTemp("kel_log_none.properties", "log4cplus.logger.Other=INFO\n");
  const std::wstring wnone(none.begin(), none.end());
  EXPECT_FALSE(Log::initialize(wnone.c_str()));
  EXPECT_TRUE(Log::initialize(nullptr));
  // Later calls never reconfigure.
  const std::string good = WriteTemp("kel_log_good.properties",
                                     "log4cplus.rootLogger=INFO, A\nlog4cplus.appender.A=log4cplus::NullAppender\n");
  const std::wstring wgood(good.begin(), good.end());
  const auto appenders = log4cplus::Logger::getRoot().getAllAppenders().size();
  EXPECT_TRUE(Log::initialize(wgood.c_str()));
  EXPECT_EQ(log4cplus::Logger::getRoot().getAllAppenders().size(), appenders);
  std::remove(none.c_str());
  std::remove(good.c_str());
}

TEST(LogPath, EmptyWithoutAppDataThenCachedForever) {
  unsetenv("APPDATA");
  EXPECT_STREQ(Log::getLogPath(L"Vendor", L"App"), L"");
  setenv("APPDATA", "/home/u/.config", 1);
  EXPECT_STREQ(Log::getLogPath(L"Vendor", L"App"), L"/home/u/.config/Vendor/App/logs");
  setenv("APPDATA", "/elsewhere", 1);
  EXPECT_STREQ(Log::getLogPath(L"Other", L"Names"), L"/home/u/.config/Vendor/App/logs");
}

}  // namespace
}  // namespace kel
