// Where the time of a long run goes: named marks split the run into
// sections, and each section name collects how often it ran, its total and
// its peak (longest single) time. Thread-safe; the times are wall-clock
// seconds on a monotonic clock.
#pragma once

#include <chrono>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "kel/export.h"

namespace kel {

class KEL_API TimingTool {
public:
  struct Section {
    std::wstring name;
    std::uint64_t count = 0;
    double total = 0;  // seconds
    double peak = 0;
    double last = 0;
  };

  // Starts the clock; the first mark's section begins now.
  TimingTool();

  // Ends the running section: the time since the previous mark (or the
  // start) is charged to `name`, and the next section begins.
  void Mark(const std::wstring& name);
  // Charges `seconds` to `name` without moving the mark (see Scope).
  void Add(const std::wstring& name, double seconds);
  // Seconds since the start or the last Reset().
  double Elapsed() const;
  // Sections in order of their first appearance.
  std::vector<Section> Sections() const;
  // One line per section: name, count, total, mean and peak seconds, and the
  // share of the elapsed time.
  std::wstring Report() const;
  // Forgets every section and restarts the clock.
  void Reset();

  // Measures its own lifetime and charges it to a section; scopes on
  // several threads may overlap.
  class KEL_API Scope {
  public:
    Scope(TimingTool& tool, std::wstring name);
    ~Scope();
    Scope(const Scope&) = delete;
    Scope& operator=(const Scope&) = delete;

  private:
    TimingTool& tool_;
    std::wstring name_;
    std::chrono::steady_clock::time_point start_;
  };

private:
  void charge(const std::wstring& name, double seconds);

  mutable std::mutex mutex_;
  std::chrono::steady_clock::time_point start_;
  std::chrono::steady_clock::time_point lastMark_;
  std::vector<Section> sections_;
};

}  // namespace kel
