#include "kel/runtime/timing_tool.h"

#include <algorithm>
#include <cstdio>

namespace kel {
namespace {

double Seconds(std::chrono::steady_clock::duration d) { return std::chrono::duration<double>(d).count(); }

}  // namespace

TimingTool::TimingTool() : start_(std::chrono::steady_clock::now()), lastMark_(start_) {}

void TimingTool::Mark(const std::wstring& name) {
  const auto now = std::chrono::steady_clock::now();
  std::lock_guard<std::mutex> guard(mutex_);
  const double seconds = Seconds(now - lastMark_);
  lastMark_ = now;
  charge(name, seconds);
}

void TimingTool::Add(const std::wstring& name, double seconds) {
  std::lock_guard<std::mutex> guard(mutex_);
  charge(name, seconds);
}

void TimingTool::charge(const std::wstring& name, double seconds) {
  auto it = std::find_if(sections_.begin(), sections_.end(), [&](const Section& s) { return s.name == name; });
  if (it == sections_.end()) {
    sections_.push_back(Section{name});
    it = sections_.end() - 1;
  }
  ++it->count;
  it->total += seconds;
  it->peak = std::max(it->peak, seconds);
  it->last = seconds;
}

double TimingTool::Elapsed() const {
  std::lock_guard<std::mutex> guard(mutex_);
  return Seconds(std::chrono::steady_clock::now() - start_);
}

std::vector<TimingTool::Section> TimingTool::Sections() const {
  std::lock_guard<std::mutex> guard(mutex_);
  return sections_;
}

std::wstring TimingTool::Report() const {
  const double elapsed = Elapsed();
  const std::vector<Section> sections = Sections();
  std::size_t width = 7;
  for (const Section& s : sections) width = std::max(width, s.name.size());
  wchar_t line[256];
  std::swprintf(line, 256, L"%-*ls %8ls %12ls %12ls %12ls %7ls\n", static_cast<int>(width), L"section", L"count",
                L"total s", L"mean s", L"peak s", L"share");
  std::wstring out = line;
  for (const Section& s : sections) {
    std::swprintf(line, 256, L" %8llu %12.6f %12.6f %12.6f %6.1f%%\n", static_cast<unsigned long long>(s.count),
                  s.total, s.count ? s.total / static_cast<double>(s.count) : 0.0, s.peak,
                  elapsed > 0 ? 100.0 * s.total / elapsed : 0.0);
    out += s.name + std::wstring(width - s.name.size(), L' ') + line;
  }
  std::swprintf(line, 256, L"%-*ls %8ls %12.6f\n", static_cast<int>(width), L"elapsed", L"", elapsed);
  return out + line;
}

void TimingTool::Reset() {
  std::lock_guard<std::mutex> guard(mutex_);
  sections_.clear();
  start_ = lastMark_ = std::chrono::steady_clock::now();
}

TimingTool::Scope::Scope(TimingTool& tool, std::wstring name)
    : tool_(tool), name_(std::move(name)), start_(std::chrono::steady_clock::now()) {}

TimingTool::Scope::~Scope() { tool_.Add(name_, Seconds(std::chrono::steady_clock::now() - start_)); }

}  // namespace kel
