// An instant with the UTC offset it was written in, read from and written
// as ISO 8601 text. Microsecond resolution, years 0000 to 9999, the
// proleptic Gregorian calendar. Pure value type; parsing hostile text is
// safe and answers false.
#pragma once

#include <cstdint>
#include <string>

#include "kel/export.h"

namespace kel {

class KEL_API DateTime {
public:
  // 1970-01-01T00:00:00Z.
  DateTime() = default;
  // `offsetMinutes` within +-(23 * 60 + 59); out-of-range offsets become 0.
  static DateTime FromUnixMicroseconds(std::int64_t microseconds, int offsetMinutes = 0);
  // Now, in UTC.
  static DateTime Now();

  // Accepts a date "YYYY-MM-DD" (or basic "YYYYMMDD"), optionally followed
  // by "T" (or "t", or one space) and a time "hh[:mm[:ss[.fraction]]]" (or
  // basic "hh[mm[ss[.fraction]]]", in the date's own form), then "Z", "+hh",
  // "+hh:mm" or "+hhmm" (or "-"). Without a zone the time is taken as UTC.
  // A comma may stand for the decimal point; digits past microseconds are
  // cut. Impossible dates (February 30th), hours past 23, minutes or
  // seconds past 59 (no leap seconds) and trailing text fail, leaving `out`
  // untouched.
  static bool Parse(const std::wstring& text, DateTime& out);
  // "YYYY-MM-DDThh:mm:ss" with ".ffffff" when there are microseconds, then
  // "Z" for UTC or "+hh:mm". Parse reads it back to the same value.
  std::wstring toString() const;

  std::int64_t unixMicroseconds() const { return micros_; }
  int offsetMinutes() const { return offset_; }
  // The same instant written in another offset.
  DateTime withOffset(int offsetMinutes) const { return FromUnixMicroseconds(micros_, offsetMinutes); }

  // The calendar fields in the time's own offset.
  int year() const;
  int month() const;  // 1..12
  int day() const;  // 1..31
  int hour() const;
  int minute() const;
  int second() const;
  int microsecond() const;

  // Instants compare; the offset they are written in does not matter.
  friend bool operator==(const DateTime& a, const DateTime& b) { return a.micros_ == b.micros_; }
  friend bool operator<(const DateTime& a, const DateTime& b) { return a.micros_ < b.micros_; }

private:
  struct Fields {
    int year, month, day, hour, minute, second, microsecond;
  };
  Fields fields() const;

  std::int64_t micros_ = 0;
  int offset_ = 0;
};

}  // namespace kel
