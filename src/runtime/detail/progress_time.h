// The arithmetic behind Progress's times and texts, apart from any clock so
// that tests can feed it hours of elapsed time.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>

namespace kel::detail {

// Remaining seconds for `value` of `total` done after `elapsed` seconds;
// -1 when there is no estimate. The order of the tests is the contract.
inline double RemainingSeconds(bool interrupted, double elapsed, std::int64_t value, std::int64_t total) {
  if (interrupted) return -1.0;
  if (total <= 0) return -1.0;
  const double p = static_cast<double>(value) / static_cast<double>(total) * 100.0;
  if (p >= 100.0) return 0.0;
  if (p < 1.0 || elapsed < 5.0) return -1.0;
  const double f = p * 0.01;
  return elapsed / f * (1.0 - f) * (2.0 - f);
}

// "HH:MM:SS" of whole seconds; hours take as many digits as they need.
inline std::wstring DurationText(std::int64_t seconds) {
  if (seconds < 0) seconds = 0;
  wchar_t text[32];
  std::swprintf(text, sizeof text / sizeof text[0], L"%02lld:%02lld:%02lld", static_cast<long long>(seconds / 3600),
                static_cast<long long>(seconds / 60 % 60), static_cast<long long>(seconds % 60));
  return text;
}

// The remaining-time text for an estimate `r` (see RemainingSeconds).
inline std::wstring RemainingText(double r, bool interrupted, std::int64_t total) {
  if (r == 0.0) return L"finished;";
  if (r > 0.0) return DurationText(static_cast<std::int64_t>(r < 1e15 ? r : 1e15));
  if (interrupted) return L"interrupted";
  // The total is unsigned and so never negative: "unknown" stays unreachable.
  return total >= 0 ? L"calc. ..." : L"unknown";
}

}  // namespace kel::detail
