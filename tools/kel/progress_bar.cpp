#include "progress_bar.h"

#include <cstdio>
#include <unistd.h>

namespace cli {

ProgressBar::ProgressBar(std::string label, std::uint64_t total)
    : label_(std::move(label)), total_(total ? total : 1), enabled_(isatty(STDERR_FILENO) != 0),
      start_(std::chrono::steady_clock::now()) {}

ProgressBar::~ProgressBar() { finish(); }

void ProgressBar::update(std::uint64_t done) {
  done_ = done > total_ ? total_ : done;
  draw(false);
}

void ProgressBar::finish() {
  if (finished_) return;
  finished_ = true;
  done_ = total_;
  draw(true);
  if (enabled_) std::fputc('\n', stderr);
}

void ProgressBar::draw(bool force) {
  if (!enabled_) return;
  const auto now = std::chrono::steady_clock::now();
  if (!force && now - lastDraw_ < std::chrono::milliseconds(50)) return;
  lastDraw_ = now;
  constexpr int kWidth = 30;
  const double fraction = static_cast<double>(done_) / static_cast<double>(total_);
  const int filled = static_cast<int>(fraction * kWidth);
  const double seconds = std::chrono::duration<double>(now - start_).count();
  std::fprintf(stderr, "\r%s [%.*s%*s] %3d%% %.1fs", label_.c_str(), filled,
               "##############################", kWidth - filled, "", static_cast<int>(fraction * 100), seconds);
  std::fflush(stderr);
}

}  // namespace cli
