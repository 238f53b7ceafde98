// A one-line progress bar on stderr for long kel commands. Draws only when
// stderr is a terminal, so scripted runs and logs stay clean.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

namespace cli {

class ProgressBar {
public:
  ProgressBar(std::string label, std::uint64_t total);
  ~ProgressBar();
  ProgressBar(const ProgressBar&) = delete;
  ProgressBar& operator=(const ProgressBar&) = delete;

  // Sets the absolute amount done; redraws at most ~20 times a second.
  void update(std::uint64_t done);
  void finish();

private:
  void draw(bool force);

  std::string label_;
  std::uint64_t total_;
  std::uint64_t done_ = 0;
  bool enabled_;
  bool finished_ = false;
  std::chrono::steady_clock::time_point start_;
  std::chrono::steady_clock::time_point lastDraw_;
};

}  // namespace cli
