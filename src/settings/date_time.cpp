#include "kel/settings/date_time.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string_view>

namespace kel {
namespace {

// Spelled out: inside DateTime, year, month and day name its own members.
namespace chr = std::chrono;

constexpr int kMaxOffset = 23 * 60 + 59;
constexpr std::int64_t kMicrosPerDay = 86'400'000'000LL;

// Reads exactly `n` ASCII digits at `*p`.
bool Digits(std::wstring_view text, std::size_t* p, int n, int* out) {
  if (*p + static_cast<std::size_t>(n) > text.size()) return false;
  int v = 0;
  for (int i = 0; i < n; ++i) {
    const wchar_t c = text[*p + static_cast<std::size_t>(i)];
    if (c < L'0' || c > L'9') return false;
    v = v * 10 + (c - L'0');
  }
  *p += static_cast<std::size_t>(n);
  *out = v;
  return true;
}

bool At(std::wstring_view text, std::size_t p, wchar_t c) { return p < text.size() && text[p] == c; }

bool IsDigit(std::wstring_view text, std::size_t p) { return p < text.size() && text[p] >= L'0' && text[p] <= L'9'; }

}  // namespace

DateTime DateTime::FromUnixMicroseconds(std::int64_t microseconds, int offsetMinutes) {
  DateTime t;
  t.micros_ = microseconds;
  t.offset_ = offsetMinutes >= -kMaxOffset && offsetMinutes <= kMaxOffset ? offsetMinutes : 0;
  return t;
}

DateTime DateTime::Now() {
  const auto now = chr::system_clock::now().time_since_epoch();
  return FromUnixMicroseconds(chr::duration_cast<chr::microseconds>(now).count());
}

bool DateTime::Parse(const std::wstring& input, DateTime& out) {
  const std::wstring_view text(input);
  std::size_t p = 0;
  int y = 0, mo = 0, d = 0, h = 0, mi = 0, s = 0, micro = 0;
  if (!Digits(text, &p, 4, &y)) return false;
  const bool extended = At(text, p, L'-');
  if (extended) ++p;
  if (!Digits(text, &p, 2, &mo)) return false;
  if (extended && !At(text, p++, L'-')) return false;
  if (!Digits(text, &p, 2, &d)) return false;
  const chr::year_month_day date{chr::year{y}, chr::month{static_cast<unsigned>(mo)},
                                 chr::day{static_cast<unsigned>(d)}};
  if (!date.ok()) return false;

  if (At(text, p, L'T') || At(text, p, L't') || (At(text, p, L' ') && IsDigit(text, p + 1))) {
    ++p;
    if (!Digits(text, &p, 2, &h) || h > 23) return false;
    auto next = [&](int* field) {  // optional ":mm" / "mm"
      if (extended ? !(At(text, p, L':') && IsDigit(text, p + 1)) : !IsDigit(text, p)) return true;
      if (extended) ++p;
      return Digits(text, &p, 2, field) && *field <= 59;
    };
    const std::size_t beforeMinutes = p;
    if (!next(&mi)) return false;
    if (p != beforeMinutes && !next(&s)) return false;
    if (At(text, p, L'.') || At(text, p, L',')) {
      ++p;
      if (!IsDigit(text, p)) return false;
      for (int scale = 100000; IsDigit(text, p); ++p, scale /= 10)
        if (scale > 0) micro += (text[p] - L'0') * scale;
    }
  }

  int offset = 0;
  if (At(text, p, L'Z') || At(text, p, L'z')) {
    ++p;
  } else if (At(text, p, L'+') || At(text, p, L'-')) {
    const int sign = text[p++] == L'-' ? -1 : 1;
    int oh = 0, om = 0;
    if (!Digits(text, &p, 2, &oh) || oh > 23) return false;
    const bool colon = At(text, p, L':');
    if (colon) ++p;
    if ((colon || IsDigit(text, p)) && (!Digits(text, &p, 2, &om) || om > 59)) return false;
    offset = sign * (oh * 60 + om);
  }
  if (p != text.size()) return false;

  const std::int64_t days = chr::sys_days(date).time_since_epoch().count();
  const std::int64_t local = days * kMicrosPerDay + ((h * 60LL + mi) * 60 + s) * 1'000'000LL + micro;
  out = FromUnixMicroseconds(local - offset * 60'000'000LL, offset);
  return true;
}

DateTime::Fields DateTime::fields() const {
  const std::int64_t local = micros_ + offset_ * 60'000'000LL;
  std::int64_t days = local / kMicrosPerDay, rest = local % kMicrosPerDay;
  if (rest < 0) rest += kMicrosPerDay, --days;  // floor for instants before 1970
  const chr::year_month_day date{chr::sys_days{chr::days{days}}};
  const std::int64_t seconds = rest / 1'000'000;
  return Fields{int(date.year()),       int(unsigned(date.month())), int(unsigned(date.day())),
                int(seconds / 3600),    int(seconds / 60 % 60),      int(seconds % 60),
                int(rest % 1'000'000)};
}

int DateTime::year() const { return fields().year; }
int DateTime::month() const { return fields().month; }
int DateTime::day() const { return fields().day; }
int DateTime::hour() const { return fields().hour; }
int DateTime::minute() const { return fields().minute; }
int DateTime::second() const { return fields().second; }
int DateTime::microsecond() const { return fields().microsecond; }

std::wstring DateTime::toString() const {
  const Fields f = fields();
  wchar_t text[64];
  int n = std::swprintf(text, 64, L"%04d-%02d-%02dT%02d:%02d:%02d", f.year, f.month, f.day, f.hour, f.minute,
                        f.second);
  if (f.microsecond) n += std::swprintf(text + n, 64 - n, L".%06d", f.microsecond);
  if (offset_ == 0)
    std::swprintf(text + n, 64 - n, L"Z");
  else
    std::swprintf(text + n, 64 - n, L"%lc%02d:%02d", offset_ < 0 ? L'-' : L'+', std::abs(offset_) / 60,
                  std::abs(offset_) % 60);
  return text;
}

}  // namespace kel
