#include "kel/settings/date_time.h"

#include <cstdio>
#include <ctime>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "kel/core/text.h"
#include "support/scratch.h"

namespace kel {
namespace {

std::int64_t Micros(const wchar_t* text) {
  DateTime t;
  EXPECT_TRUE(DateTime::Parse(text, t)) << WString2Utf8String(text);
  return t.unixMicroseconds();
}

TEST(DateTime, ReadsTheIsoForms) {
  struct Case {
    const wchar_t* text;
    std::int64_t micros;
    int offset;
    const wchar_t* written;
  };
  const Case cases[] = {
      {L"1970-01-01T00:00:00Z", 0, 0, L"1970-01-01T00:00:00Z"},
      {L"2024-02-29", 1709164800000000, 0, L"2024-02-29T00:00:00Z"},
      {L"20240229T123456Z", 1709210096000000, 0, L"2024-02-29T12:34:56Z"},
      {L"2024-02-29T12:34:56+05:30", 1709190296000000, 330, L"2024-02-29T12:34:56+05:30"},
      {L"2024-02-29 12:34-0800", 1709238840000000, -480, L"2024-02-29T12:34:00-08:00"},
      {L"2024-02-29t12z", 1709208000000000, 0, L"2024-02-29T12:00:00Z"},
      {L"2024-02-29T12:34:56.5+01", 1709206496500000, 60, L"2024-02-29T12:34:56.500000+01:00"},
      {L"2024-02-29T12:34:56,1234567Z", 1709210096123456, 0, L"2024-02-29T12:34:56.123456Z"},
      {L"1969-12-31T23:59:59.999999Z", -1, 0, L"1969-12-31T23:59:59.999999Z"},
      {L"0000-01-01T00:00:00Z", -62167219200000000, 0, L"0000-01-01T00:00:00Z"},
      {L"9999-12-31T23:59:59-23:59", 253402387139000000, -1439, L"9999-12-31T23:59:59-23:59"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(WString2Utf8String(c.text));
    DateTime t;
    ASSERT_TRUE(DateTime::Parse(c.text, t));
    EXPECT_EQ(t.unixMicroseconds(), c.micros);
    EXPECT_EQ(t.offsetMinutes(), c.offset);
    EXPECT_EQ(t.toString(), c.written);
  }
  const DateTime t = DateTime::FromUnixMicroseconds(Micros(L"2024-02-29T23:30:00Z"), 90);
  EXPECT_EQ(t.toString(), L"2024-03-01T01:00:00+01:30");
  EXPECT_EQ(t.day(), 1);
  EXPECT_EQ(t.withOffset(0).day(), 29);
  EXPECT_TRUE(t == t.withOffset(-600));
}

TEST(DateTime, RejectsBadText) {
  const wchar_t* bad[] = {
      L"", L"2024", L"2024-02", L"24-02-29", L"2024-02-30", L"2023-02-29", L"2024-13-01", L"2024-00-10",
      L"2024-01-00", L"2024-1-01", L"2024-01-01T", L"2024-01-01T24:00", L"2024-01-01T12:60", L"2024-01-01T12:00:60",
      L"2024-01-01T12:00:00.", L"2024-01-01T12:00:00.Z", L"2024-01-01T12:00+24:00", L"2024-01-01T12:00+05:60",
      L"2024-01-01T12:00+5", L"2024-01-01T12:00+05:", L"2024-01-01T12:00Z ", L"20240101T12:00",
      L"2024-01-01T1200", L"2024-01-01X12:00", L"2024-01-01  12:00", L"２０２４-01-01", L"2024-01-01T12:00:00ZZ",
  };
  for (const wchar_t* text : bad) {
    DateTime t = DateTime::FromUnixMicroseconds(42, 60);
    EXPECT_FALSE(DateTime::Parse(text, t)) << WString2Utf8String(text);
    EXPECT_EQ(t.unixMicroseconds(), 42);
    EXPECT_EQ(t.offsetMinutes(), 60);
  }
}

// Random instants written in random offsets read back to themselves, and
// their UTC fields agree with the C library's timegm.
TEST(DateTime, AgreesWithTimegmAndReadsItsOwnText) {
  std::mt19937_64 rng(17);
  std::uniform_int_distribution<std::int64_t> instant(-62135596800000000LL, 253402300799999999LL);
  std::uniform_int_distribution<int> offset(-1439, 1439);
  for (int i = 0; i < 3000; ++i) {
    const DateTime t = DateTime::FromUnixMicroseconds(instant(rng), offset(rng));
    DateTime back;
    ASSERT_TRUE(DateTime::Parse(t.toString(), back)) << WString2Utf8String(t.toString());
    ASSERT_EQ(back.unixMicroseconds(), t.unixMicroseconds());
    ASSERT_EQ(back.offsetMinutes(), t.offsetMinutes());
    const DateTime utc = t.withOffset(0);
    std::tm tm{};
    tm.tm_year = utc.year() - 1900;
    tm.tm_mon = utc.month() - 1;
    tm.tm_mday = utc.day();
    tm.tm_hour = utc.hour();
    tm.tm_min = utc.minute();
    tm.tm_sec = utc.second();
    ASSERT_EQ(static_cast<std::int64_t>(timegm(&tm)) * 1000000 + utc.microsecond(), t.unixMicroseconds());
  }
}

// GNU date reads the same texts to the same instants.
TEST(DateTime, AgreesWithGnuDate) {
  const wchar_t* texts[] = {
      L"2024-02-29T12:34:56+05:30", L"1999-12-31T23:59:59Z", L"2000-03-01T00:00:00-14:00",
      L"1900-02-28T06:07:08+00:45", L"2038-01-19T03:14:08Z", L"1969-07-20T20:17:40.25Z",
      L"2016-12-31T23:59:59-03:30", L"1582-10-15T12:00:00Z",
  };
  test::ScratchDir dir;
  std::string lines;
  for (const wchar_t* t : texts) lines += WString2Utf8String(t) + "\n";
  test::WriteBytes(dir / "dates", lines);
  const std::string command = "date -u -f '" + (dir / "dates") + "' +%s.%N";
  FILE* pipe = popen(command.c_str(), "r");
  ASSERT_NE(pipe, nullptr);
  char line[64];
  for (const wchar_t* t : texts) {
    ASSERT_NE(std::fgets(line, sizeof line, pipe), nullptr) << "date printed too little";
    long long seconds = 0, nanos = 0;
    ASSERT_EQ(std::sscanf(line, "%lld.%lld", &seconds, &nanos), 2) << line;
    EXPECT_EQ(Micros(t), seconds * 1000000 + nanos / 1000) << WString2Utf8String(t);
  }
  EXPECT_EQ(pclose(pipe), 0);
}

}  // namespace
}  // namespace kel
