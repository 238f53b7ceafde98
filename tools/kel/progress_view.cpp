#include "progress_view.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <ctime>
#include <mutex>
#include <vector>

#include <pthread.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace tool {
namespace {

// SIGUSR2 only wakes the thread for shutdown; nobody else sends it.
constexpr int kWakeSignal = SIGUSR2;
constexpr long kTickNanoseconds = 100'000'000;
// Commands that end sooner never flash a bar.
constexpr double kQuietSeconds = 0.3;
constexpr std::size_t kMaxLines = 12;

std::atomic<bool> g_interruptRequested{false};
std::atomic<bool> g_stopping{false};
std::atomic<int> g_tasks{0};

// Guards the terminal: what is drawn and every write to stderr. Recursive
// because the drawing thread's own LockProgressInfo may log a warning,
// which comes back here through ConsoleLine.
std::recursive_mutex& TerminalMutex() {
  static std::recursive_mutex m;
  return m;
}
std::size_t g_linesDrawn = 0;  // under TerminalMutex

bool DrawingEnabled() {
  static const bool enabled = isatty(STDERR_FILENO) != 0;
  return enabled;
}

// Erases the bars: back to the first line drawn, then clear to the end.
void EraseLocked() {
  if (g_linesDrawn == 0) return;
  if (g_linesDrawn > 1) std::fprintf(stderr, "\r\x1b[%zuA", g_linesDrawn - 1);
  std::fputs("\r\x1b[J", stderr);
  std::fflush(stderr);
  g_linesDrawn = 0;
}

int TerminalWidth() {
  winsize ws{};
  if (ioctl(STDERR_FILENO, TIOCGWINSZ, &ws) == 0 && ws.ws_col >= 40) return ws.ws_col;
  return 80;
}

std::string Narrow(const std::wstring& text) { return kel::WString2Utf8String(text); }

// "  description [#######.............]  35%  00:01:10 left 00:02:05"
std::string Line(const kel::Progress& p, int depth, int width) {
  constexpr int kBar = 20;
  const double percent = std::clamp(p.percent(), 0.0, 100.0);
  const int filled = static_cast<int>(percent / 100.0 * kBar);
  std::string tail = " [" + std::string(filled, '#') + std::string(kBar - filled, '.') + "]";
  char numbers[96];
  std::snprintf(numbers, sizeof numbers, " %3d%%  %s  left %s", static_cast<int>(percent),
                Narrow(p.timeElapsedString()).c_str(), Narrow(p.timeRemainingString()).c_str());
  tail += numbers;
  std::string head(static_cast<std::size_t>(2 * depth), ' ');
  head += Narrow(p.description());
  // The description gives way first; a line never wraps, or erasing would
  // miss the wrapped part.
  const std::size_t room = static_cast<std::size_t>(width - 1) > tail.size() ? width - 1 - tail.size() : 0;
  if (head.size() > room) head.resize(room);
  head.resize(room, ' ');
  std::string line = head + tail;
  if (line.size() > static_cast<std::size_t>(width - 1)) line.resize(static_cast<std::size_t>(width - 1));
  return line;
}

void Collect(const kel::Progress& p, int depth, int width, std::vector<std::string>& lines) {
  if (lines.size() >= kMaxLines) return;
  lines.push_back(Line(p, depth, width));
  for (const kel::Progress* child : p.children()) Collect(*child, depth + 1, width, lines);
}

// Interrupts the whole tree: each operation checks only its own progress,
// so stopping the root alone would leave the innermost loop running.
void InterruptAll(const kel::Progress& p) {
  const_cast<kel::Progress&>(p).interrupt();
  for (const kel::Progress* child : p.children()) InterruptAll(*child);
}

bool WithTree(void (*visit)(void*), void* context) {
  if (!kel::Progress::LockProgressInfo()) return false;
  visit(context);
  kel::Progress::UnlockProgressInfo();
  return true;
}

void Draw() {
  std::lock_guard<std::recursive_mutex> guard(TerminalMutex());
  if (g_tasks.load() == 0) return;
  struct Frame {
    std::vector<std::string> lines;
    int width;
    bool old = false;
  } frame{{}, TerminalWidth()};
  const bool locked = WithTree(
      [](void* c) {
        auto& f = *static_cast<Frame*>(c);
        for (const kel::Progress* root : kel::Progress::GetRootElements()) {
          f.old = f.old || root->timeElapsed() >= kQuietSeconds;
          Collect(*root, 0, f.width, f.lines);
        }
      },
      &frame);
  if (!locked || !frame.old) return;  // a worker is changing the tree: next tick
  EraseLocked();
  for (std::size_t i = 0; i < frame.lines.size(); ++i)
    std::fprintf(stderr, "%s%s", i ? "\n" : "", frame.lines[i].c_str());
  std::fflush(stderr);
  g_linesDrawn = frame.lines.size();
}

void OnInterrupt() {
  if (g_interruptRequested.exchange(true)) {
    // Second Ctrl-C: the work is stuck somewhere no step is checked.
    static const char kMessage[] = "\nkel: interrupted\n";
    [[maybe_unused]] auto n = write(STDERR_FILENO, kMessage, sizeof kMessage - 1);
    _exit(130);
  }
  ConsoleLine("kel: warning: interrupted; stopping at the next step (Ctrl-C again to quit at once)");
}

// While an interrupt is pending, progress that starts later is stopped too.
void InterruptTree() {
  for (int attempt = 0; attempt < 50; ++attempt) {
    if (WithTree(
            [](void*) {
              for (const kel::Progress* root : kel::Progress::GetRootElements()) InterruptAll(*root);
            },
            nullptr))
      return;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
}

sigset_t WatchedSignals() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGINT);
  sigaddset(&set, kWakeSignal);
  return set;
}

}  // namespace

ProgressView::ProgressView() {
  const sigset_t set = WatchedSignals();
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
  thread_ = std::thread([this] { run(); });
}

ProgressView::~ProgressView() {
  g_stopping = true;
  pthread_kill(thread_.native_handle(), kWakeSignal);
  thread_.join();
  std::lock_guard<std::recursive_mutex> guard(TerminalMutex());
  EraseLocked();
}

bool ProgressView::InterruptRequested() { return g_interruptRequested.load(); }

void ProgressView::run() {
  const sigset_t set = WatchedSignals();
  const timespec tick{0, kTickNanoseconds};
  while (!g_stopping.load()) {
    const int signal = sigtimedwait(&set, nullptr, &tick);
    if (signal == SIGINT) OnInterrupt();
    if (g_stopping.load()) break;
    if (g_interruptRequested.load()) InterruptTree();
    if (DrawingEnabled()) Draw();
  }
}

void ConsoleLine(const std::string& line) {
  std::lock_guard<std::recursive_mutex> guard(TerminalMutex());
  EraseLocked();
  std::fprintf(stderr, "%s\n", line.c_str());
  std::fflush(stderr);
}

Task::Task(const std::wstring& description, std::int64_t total) {
  if (ProgressView::InterruptRequested()) throw Interrupted();
  progress_.emplace(description, total, kel::Progress::InterruptAllowed);
  ++g_tasks;
}

Task::~Task() {
  // Out of the tree first, so the drawing thread cannot draw it again after
  // the erase below; only then may the command print.
  progress_.reset();
  std::lock_guard<std::recursive_mutex> guard(TerminalMutex());
  --g_tasks;
  EraseLocked();
}

void Task::step(std::int64_t done) { Step(*progress_, done); }

void Step(kel::Progress& p, std::int64_t done) {
  if (!p.updateValue(done) || ProgressView::InterruptRequested()) throw Interrupted();
}

}  // namespace tool
