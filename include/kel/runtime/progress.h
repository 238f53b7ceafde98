// Nested progress of long operations, for a user interface to show and to
// interrupt. Create one Progress on the stack per operation; one created
// while another is active on the same thread becomes its child, so the
// running work forms a tree that a reader walks from GetRootElements()
// between LockProgressInfo() and UnlockProgressInfo().
//
// Threads: the owning thread updates; any thread may read the counters,
// the times and the description, and interrupt. The tree's shape changes
// only under one process-wide lock, which constructors and destructors take
// blocking and readers take without waiting. Never create or destroy a
// Progress on a thread that holds LockProgressInfo(): it would wait for itself.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <set>
#include <string>

#include "kel/export.h"

namespace kel {

class KEL_API Progress {
public:
  // Whether interrupt() may stop the operation. Both allowing values behave
  // the same here; Announced lets a user interface ask for confirmation.
  enum AllowedInterrupt { InterruptForbidden = 0, InterruptAllowed = 1, InterruptAnnounced = 2 };

  // `total` is clamped into [0, 4294967295] (above it an error is logged).
  // With `showChildren` false the progress keeps no children: operations
  // started beneath it stay out of the tree (their parent() is still this).
  Progress(const std::wstring& description, std::int64_t total, AllowedInterrupt allowed = InterruptAllowed,
           bool showChildren = true);
  // Strictly last-in-first-out per thread, like the stack objects they are.
  ~Progress();
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  // Stores v clamped into [0, total] (above 4294967295 an error is logged).
  // False once interrupted: the caller should stop.
  bool updateValue(std::int64_t v);
  // Sets the value to the total, or to 1 when the total is 0 (the clamp
  // does not apply there, so that a zero-length operation can finish).
  // False once interrupted.
  bool finish();

  std::int64_t value() const { return value_.load(std::memory_order_relaxed); }
  std::int64_t totalValue() const { return total_; }
  // value / total * 100 of this object alone (children do not count); 0 for total 0.
  double percent() const;
  // Never when interrupted; else value == total (value == 1 for total 0).
  bool isFinished() const;

  // Interrupts for good when the creator allowed it; otherwise does nothing.
  // Children are not interrupted: each operation checks its own progress.
  void interrupt();
  bool isInterrupted() const { return state_.load(std::memory_order_acquire) == 1; }
  bool allowInterrupt() const { return allowed_ == InterruptAllowed || allowed_ == InterruptAnnounced; }
  AllowedInterrupt allowedInterrupt() const { return allowed_; }

  std::wstring description() const;
  void updateDescription(const std::wstring& description);

  Progress* parent() const { return parent_; }
  // Read under LockProgressInfo(). Empty (a shared set) without children.
  const std::set<Progress*>& children() const;

  // Seconds since construction, in whole milliseconds, on a monotonic clock
  // (a clock change never makes a bar run backwards).
  double timeElapsed() const;
  // Estimated seconds left: -1 while interrupted, without a total, below
  // 1 % or during the first 5 seconds; 0 when done; else
  // elapsed / f * (1 - f) * (2 - f) for the fraction f done. The (2 - f)
  // factor deliberately pads early estimates and fades to 1 at the end.
  double timeRemaining() const;
  // "HH:MM:SS" (hours may pass 24 and take more digits).
  std::wstring timeElapsedString() const;
  // "HH:MM:SS", "finished;", "interrupted" or "calc. ...".
  std::wstring timeRemainingString() const;

  // The progresses that have no parent. Read under LockProgressInfo().
  static const std::set<Progress*>& GetRootElements();
  // Takes the tree lock without waiting; when it is held already (by any
  // thread, this one included) logs the warning "Progress info already
  // locked" and returns false.
  static bool LockProgressInfo();
  static void UnlockProgressInfo();

  // Makes an existing progress the innermost one of this thread for its
  // lifetime, so that progresses created here (on a worker thread) become
  // its children.
  class KEL_API ThreadContext {
  public:
    explicit ThreadContext(Progress& p);
    ~ThreadContext();
    ThreadContext(const ThreadContext&) = delete;
    ThreadContext& operator=(const ThreadContext&) = delete;
  };

private:
  mutable std::mutex descriptionMutex_;
  std::wstring description_;
  const std::uint32_t total_;
  std::atomic<std::uint32_t> value_{0};
  std::atomic<std::int32_t> state_{0};
  const std::chrono::steady_clock::time_point start_;
  Progress* parent_ = nullptr;
  std::unique_ptr<std::set<Progress*>> children_;  // null when children are not shown
  const AllowedInterrupt allowed_;
};

}  // namespace kel
