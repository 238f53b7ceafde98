// Memory use of this process, read from /proc: the resident set now and its
// peak, logged at named points of a long run (at info level, so a tool
// shows it when verbose). Safe from any thread.
#pragma once

#include <cstdint>
#include <string>

#include "kel/export.h"

namespace kel {

class KEL_API MemLog final {
public:
  MemLog() = delete;

  struct Usage {
    std::uint64_t resident = 0;  // bytes (VmRSS)
    std::uint64_t peakResident = 0;  // bytes (VmHWM)
  };
  // False (out untouched) when /proc/self/status cannot be read.
  static bool Read(Usage& out);
  // Logs "Memory at <point>: resident N MiB, peak M MiB" and returns the
  // reading (zeros when unreadable, which is logged as a warning).
  static Usage Log(const std::wstring& point);
};

}  // namespace kel
