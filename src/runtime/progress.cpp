#include "kel/runtime/progress.h"

#include <cassert>
#include <condition_variable>
#include <limits>
#include <vector>

#include "kel/core/log.h"
#include "runtime/detail/progress_time.h"

namespace kel {
namespace {

constexpr std::int64_t kMaxValue = std::numeric_limits<std::uint32_t>::max();

// The tree lock. A plain std::mutex cannot say "held already" to the thread
// that holds it (try_lock there is undefined), and LockProgressInfo must.
class TreeLock {
public:
  void lock() {
    std::unique_lock<std::mutex> guard(mutex_);
    free_.wait(guard, [this] { return !held_; });
    held_ = true;
  }
  bool tryLock() {
    std::lock_guard<std::mutex> guard(mutex_);
    if (held_) return false;
    held_ = true;
    return true;
  }
  void unlock() {
    {
      std::lock_guard<std::mutex> guard(mutex_);
      assert(held_ && "UnlockProgressInfo without LockProgressInfo");
      held_ = false;
    }
    free_.notify_one();
  }

private:
  std::mutex mutex_;
  std::condition_variable free_;
  bool held_ = false;
};

// Process-wide state, built on first use so that a Progress created during
// static initialisation finds it, and never destroyed so that one destroyed
// during exit still does.
TreeLock& Lock() {
  static TreeLock* lock = new TreeLock;
  return *lock;
}

std::set<Progress*>& Roots() {
  static auto* roots = new std::set<Progress*>;
  return *roots;
}

// This thread's active progresses, innermost last.
std::vector<Progress*>& Stack() {
  thread_local std::vector<Progress*> stack;
  return stack;
}

std::uint32_t Clamped(std::int64_t v, std::int64_t high) {
  if (v > kMaxValue) KEL_LOG_ERROR(L"progress value exceeds uint32 range: " + std::to_wstring(v));
  return static_cast<std::uint32_t>(v < 0 ? 0 : v > high ? high : v);
}

}  // namespace

Progress::Progress(const std::wstring& description, std::int64_t total, AllowedInterrupt allowed, bool showChildren)
    : description_(description),
      total_(Clamped(total, kMaxValue)),
      start_(std::chrono::steady_clock::now()),
      children_(showChildren ? std::make_unique<std::set<Progress*>>() : nullptr),
      allowed_(allowed) {
  std::vector<Progress*>& stack = Stack();
  Progress* enclosing = stack.empty() ? nullptr : stack.back();
  stack.push_back(this);
  std::lock_guard<TreeLock> guard(Lock());
  parent_ = enclosing;
  if (!enclosing)
    Roots().insert(this);
  else if (enclosing->children_)
    enclosing->children_->insert(this);
}

Progress::~Progress() {
  std::vector<Progress*>& stack = Stack();
  assert(!stack.empty() && stack.back() == this && "Progress objects must end in reverse order of creation");
  stack.pop_back();
  std::lock_guard<TreeLock> guard(Lock());
  // Leaving the tree from the parent we joined is the same as from the new
  // innermost progress while nesting is last-in-first-out, and stays right
  // when it is not.
  if (!parent_)
    Roots().erase(this);
  else if (parent_->children_)
    parent_->children_->erase(this);
}

bool Progress::updateValue(std::int64_t v) {
  value_.store(Clamped(v, total_), std::memory_order_relaxed);
  return !isInterrupted();
}

bool Progress::finish() {
  if (isInterrupted()) return false;
  if (total_ == 0) {
    value_.store(1, std::memory_order_relaxed);
    return !isInterrupted();
  }
  return updateValue(total_);
}

double Progress::percent() const {
  return total_ > 0 ? static_cast<double>(value()) / static_cast<double>(total_) * 100.0 : 0.0;
}

bool Progress::isFinished() const {
  if (isInterrupted()) return false;
  return total_ == 0 ? value() == 1 : value() == total_;
}

void Progress::interrupt() {
  if (allowInterrupt()) state_.store(1, std::memory_order_release);
}

std::wstring Progress::description() const {
  std::lock_guard<std::mutex> guard(descriptionMutex_);
  return description_;
}

void Progress::updateDescription(const std::wstring& description) {
  std::lock_guard<std::mutex> guard(descriptionMutex_);
  description_ = description;
}

const std::set<Progress*>& Progress::children() const {
  static const auto* none = new std::set<Progress*>;
  return children_ ? *children_ : *none;
}

double Progress::timeElapsed() const {
  const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start_);
  return static_cast<double>(ms.count()) * 0.001;
}

double Progress::timeRemaining() const {
  return detail::RemainingSeconds(isInterrupted(), timeElapsed(), value(), totalValue());
}

std::wstring Progress::timeElapsedString() const {
  return detail::DurationText(
      std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() - start_).count());
}

std::wstring Progress::timeRemainingString() const {
  return detail::RemainingText(timeRemaining(), isInterrupted(), totalValue());
}

const std::set<Progress*>& Progress::GetRootElements() { return Roots(); }

bool Progress::LockProgressInfo() {
  if (Lock().tryLock()) return true;
  KEL_LOG_WARN(L"Progress info already locked");
  return false;
}

void Progress::UnlockProgressInfo() { Lock().unlock(); }

Progress::ThreadContext::ThreadContext(Progress& p) { Stack().push_back(&p); }

Progress::ThreadContext::~ThreadContext() { Stack().pop_back(); }

}  // namespace kel
