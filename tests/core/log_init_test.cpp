// Log::initialize configures log4cplus once per process, so each scenario
// runs in a forked child (gtest death-test machinery) with fresh state.
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

#include "kel/core/log.h"

namespace kel {
namespace {

std::string TempPath(const std::string& name) {
  const char* dir = std::getenv("TMPDIR");
  return std::string(dir && *dir ? dir : "/tmp") + "/" + name;
}

std::wstring WriteProperties(const std::string& name, const std::string& text) {
  const std::string path = TempPath(name);
  std::ofstream(path) << text;
  return std::wstring(path.begin(), path.end());
}

void Check(bool ok, const char* what) {
  if (!ok) {
    std::fprintf(stderr, "failed: %s\n", what);
    std::_Exit(1);
  }
}

TEST(LogInitialize, FileWithoutRootAppenderFailsThenBasicSucceedsOnce) {
  EXPECT_EXIT(
      {
        const std::wstring none = WriteProperties("kel_log_none.properties", "log4cplus.logger.Other=INFO\n");
        Check(!Log::initialize(none.c_str()), "file without root appender is refused");
        Check(Log::initialize(nullptr), "basic configuration succeeds afterwards");
        const auto appenders = log4cplus::Logger::getRoot().getAllAppenders().size();
        const std::wstring good = WriteProperties(
            "kel_log_good.properties", "log4cplus.rootLogger=INFO, A\nlog4cplus.appender.A=log4cplus::NullAppender\n");
        Check(Log::initialize(good.c_str()), "a later call reports success");
        Check(log4cplus::Logger::getRoot().getAllAppenders().size() == appenders, "and reconfigures nothing");
        std::_Exit(0);
      },
      ::testing::ExitedWithCode(0), "");
}

TEST(LogInitialize, PropertyFileAppenderReceivesWarningsWithSourcePosition) {
  const std::string logFile = TempPath("kel_log_output.txt");
  std::remove(logFile.c_str());
  EXPECT_EXIT(
      {
        const std::wstring props = WriteProperties(
            "kel_log_file.properties",
            "log4cplus.rootLogger=WARN, F\n"
            "log4cplus.appender.F=log4cplus::FileAppender\n"
            "log4cplus.appender.F.File=" + logFile + "\n"
            "log4cplus.appender.F.layout=log4cplus::PatternLayout\n"
            "log4cplus.appender.F.layout.ConversionPattern=%c|%p|%b|%L|%m%n\n");
        Check(Log::initialize(props.c_str()), "file appender configuration");
        KEL_LOG_WARN(L"disk nearly full");
        Log::shutdown();
        std::_Exit(0);
      },
      ::testing::ExitedWithCode(0), "");
  std::ifstream in(logFile);
  std::stringstream text;
  text << in.rdbuf();
  EXPECT_NE(text.str().find("KEL|WARN|log_init_test.cpp|"), std::string::npos) << text.str();
  EXPECT_NE(text.str().find("|disk nearly full"), std::string::npos) << text.str();
}

TEST(LogPath, EmptyWithoutAppDataThenCachedForever) {
  EXPECT_EXIT(
      {
        unsetenv("APPDATA");
        Check(std::wstring(Log::getLogPath(L"Vendor", L"App")).empty(), "unset APPDATA gives nothing");
        setenv("APPDATA", "/home/u/.config", 1);
        Check(std::wstring(Log::getLogPath(L"Vendor", L"App")) == L"/home/u/.config/Vendor/App/logs", "joined");
        setenv("APPDATA", "/elsewhere", 1);
        Check(std::wstring(Log::getLogPath(L"Other", L"Names")) == L"/home/u/.config/Vendor/App/logs", "cached");
        std::_Exit(0);
      },
      ::testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace kel
