#include "kel/runtime/mem_log.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>

#include "kel/core/log.h"

namespace kel {

bool MemLog::Read(Usage& out) {
  std::ifstream status("/proc/self/status");
  if (!status) return false;
  Usage usage;
  int found = 0;
  std::string line;
  while (std::getline(status, line)) {
    // "VmRSS:     12345 kB"
    std::uint64_t* field = line.rfind("VmRSS:", 0) == 0   ? &usage.resident
                           : line.rfind("VmHWM:", 0) == 0 ? &usage.peakResident
                                                          : nullptr;
    if (!field) continue;
    *field = std::strtoull(line.c_str() + 6, nullptr, 10) * 1024;
    ++found;
  }
  if (found != 2) return false;
  out = usage;
  return true;
}

MemLog::Usage MemLog::Log(const std::wstring& point) {
  Usage usage;
  if (!Read(usage)) {
    KEL_LOG_WARN(L"Memory at " + point + L": /proc/self/status is not readable");
    return usage;
  }
  wchar_t text[96];
  std::swprintf(text, 96, L": resident %.1f MiB, peak %.1f MiB", usage.resident / 1048576.0,
                usage.peakResident / 1048576.0);
  KEL_LOG_AT(log4cplus::INFO_LOG_LEVEL, L"Memory at " + point + text);
  return usage;
}

}  // namespace kel
