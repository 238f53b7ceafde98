#include "kel/core/log.h"

#include <clocale>
#include <cstdlib>
#include <fstream>
#include <string>

#include <gtest/gtest.h>

#include "kel/core/locale.h"
#include "kel/core/wexception.h"
#include "support/log_capture.h"

namespace kel {
namespace {

class LogTest : public ::testing::Test {
protected:
  const std::vector<test::RecordingAppender::Event>& events() const { return capture_.events(); }

private:
  test::LogCapture capture_;
};

TEST_F(LogTest, WarningReachesTheAppenderWithItsSourcePosition) {
  const int line = __LINE__ + 1;
  KEL_LOG_WARN(L"caf\u00E9 warning");
  ASSERT_EQ(events().size(), 1u);
  const auto& e = events()[0];
  EXPECT_EQ(e.level, log4cplus::WARN_LOG_LEVEL);
  EXPECT_EQ(e.message, "caf\xC3\xA9 warning");  // UTF-8 at the library boundary
  EXPECT_NE(e.file.find("log_test.cpp"), std::string::npos);
  EXPECT_EQ(e.line, line);
}

TEST_F(LogTest, SetSilentTogglesWhateverItsArgument) {
  log4cplus::Logger& logger = Log::getKELLogger();
  const auto start = logger.getLogLevel();
  Log::setSilent(false);  // first call mutes, whatever the argument
  EXPECT_EQ(logger.getLogLevel(), log4cplus::OFF_LOG_LEVEL);
  KEL_LOG_ERROR(L"muted");
  EXPECT_TRUE(events().empty());
  Log::setSilent(true);
  EXPECT_EQ(logger.getLogLevel(), start);
  KEL_LOG_ERROR(L"heard");
  EXPECT_EQ(events().size(), 1u);
}

TEST_F(LogTest, LocaleGuardRestoresAndOnlyTheLoudOneWarns) {
  const std::string before = std::setlocale(LC_ALL, nullptr);
  {
    LocaleGuard quiet;  // quiet by default
    std::setlocale(LC_NUMERIC, "C.UTF-8");
    std::setlocale(LC_CTYPE, "C.UTF-8");
  }
  EXPECT_EQ(std::string(std::setlocale(LC_ALL, nullptr)), before);
  EXPECT_TRUE(events().empty());
  {
    LocaleGuard loud(false);
    std::setlocale(LC_CTYPE, "C.UTF-8");
  }
  EXPECT_EQ(std::string(std::setlocale(LC_ALL, nullptr)), before);
  ASSERT_EQ(events().size(), 1u);
  EXPECT_EQ(events()[0].message, "LocaleGuard: Locale was reset.");
  {
    LocaleGuard unchanged(false);
  }
  EXPECT_EQ(events().size(), 1u);
}

TEST(LocaleGuardScope, RestoresWhileAnExceptionPasses) {
  const std::string before = std::setlocale(LC_ALL, nullptr);
  try {
    LocaleGuard guard;
    std::setlocale(LC_CTYPE, "C.UTF-8");
    throw wexception(L"boom");
  } catch (const wexception&) {
  }
  EXPECT_EQ(std::string(std::setlocale(LC_ALL, nullptr)), before);
}

TEST(Wexception, NarrowsToCp1252AndHandlesEmptyMessages) {
  const wexception empty(L"");
  EXPECT_STREQ(empty.what(), "");
  EXPECT_STREQ(empty.message(), L"");
  const wexception e(L"Fehler \u20AC");
  EXPECT_STREQ(e.what(), "Fehler \x80");
  const wexception copy(e);
  EXPECT_STREQ(copy.message(), L"Fehler \u20AC");
  const std::exception& base = e;
  EXPECT_STREQ(base.what(), "Fehler \x80");
}

TEST(LocaleSettings, StoresTheLanguage) {
  LocaleSettings::SetAppLang(L"de");
  EXPECT_EQ(std::wstring(LocaleSettings::AppLang()), L"de");
  LocaleSettings::SetAppLang(nullptr);
  EXPECT_EQ(std::wstring(LocaleSettings::AppLang()), L"");
}

}  // namespace
}  // namespace kel
