// The tool's console: one thread, started by main, that turns Ctrl-C into
// an interrupt of the running kel::Progress tree and, when stderr is a
// terminal, draws that tree as nested bars while a Task is running.
//
// Rules for commands: long work runs inside a Task and checks it with
// step(); a command prints to stdout only while none of its Tasks is alive,
// because the bars are redrawn in place above the cursor.
#pragma once

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>

#include <kel/kel.h>

namespace tool {

// Thrown at a command's next step after Ctrl-C; main exits with code 130.
struct Interrupted : std::runtime_error {
  Interrupted() : std::runtime_error("interrupted") {}
};

class ProgressView {
public:
  // Blocks SIGINT in this thread and every thread started after it (start
  // it first thing in main), then watches for it on a thread of its own.
  // The first Ctrl-C interrupts every progress in the tree and fails the
  // next Task step; a second one ends the process at once with code 130.
  ProgressView();
  ~ProgressView();
  ProgressView(const ProgressView&) = delete;
  ProgressView& operator=(const ProgressView&) = delete;

  // True once Ctrl-C was pressed.
  static bool InterruptRequested();

private:
  void run();
  std::thread thread_;
};

// Writes one line to stderr without tearing the bars (they are redrawn on
// the next tick). Safe from any thread, with or without a ProgressView.
void ConsoleLine(const std::string& line);

// Sets `p` to `done`; throws Interrupted when it was interrupted (Ctrl-C
// interrupts every progress in the tree).
void Step(kel::Progress& p, std::int64_t done);

// A long command's root progress. The bars show while it lives; its end
// erases them before the command prints its result.
class Task {
public:
  // Throws Interrupted when Ctrl-C came before the work began.
  Task(const std::wstring& description, std::int64_t total);
  ~Task();
  Task(const Task&) = delete;
  Task& operator=(const Task&) = delete;

  kel::Progress& progress() { return *progress_; }
  // Sets the amount done; throws Interrupted when the user asked to stop.
  void step(std::int64_t done);

private:
  std::optional<kel::Progress> progress_;
};

}  // namespace tool
