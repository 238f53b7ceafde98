#include "srs/detail/proj_support.h"

#include <algorithm>
#include <atomic>
#include <vector>

#include "kel/core/text.h"

namespace kel::detail {
namespace {

// What PROJ logged last on one context; it logs the detail ("proj_create:
// unrecognized format / unknown name") that its error number lacks.
struct ContextLog {
  std::string last;
  // PROJ resets a context's error number only through an object of it.
  PJ* resetter = nullptr;
};

void Capture(void* data, int level, const char* message) {
  if (level == PJ_LOG_ERROR && message != nullptr) static_cast<ContextLog*>(data)->last = message;
}

PJ_CONTEXT* MakeContext(ContextLog* log) {
  PJ_CONTEXT* ctx = proj_context_create();
  proj_log_func(ctx, log, Capture);
  proj_log_level(ctx, PJ_LOG_ERROR);
  log->resetter = proj_create(ctx, "+proj=noop");
  return ctx;
}

// The master context and its log live until the process ends: the registry
// keeps master objects until then, and destroying them during static
// destruction would race PROJ's own teardown.
struct Master {
  ContextLog log;
  PJ_CONTEXT* ctx = MakeContext(&log);
};
Master& TheMaster() {
  static Master* master = new Master;
  return *master;
}

struct ThreadState {
  struct Clone {
    std::uint64_t serial;
    std::weak_ptr<char> alive;
    PJ* pj;
  };
  ContextLog log;
  PJ_CONTEXT* ctx = nullptr;
  std::vector<Clone> clones;
  // One-entry memo: a hot loop uses the same object over and over.
  std::uint64_t lastSerial = 0;
  PJ* lastPj = nullptr;

  ~ThreadState() {
    for (const Clone& c : clones) proj_destroy(c.pj);
    proj_destroy(log.resetter);
    if (ctx != nullptr) proj_context_destroy(ctx);
  }
  PJ_CONTEXT* context() {
    if (ctx == nullptr) ctx = MakeContext(&log);
    return ctx;
  }
  // Drops clones whose shared object is gone.
  void prune() {
    auto dead = std::remove_if(clones.begin(), clones.end(), [](const Clone& c) {
      if (!c.alive.expired()) return false;
      proj_destroy(c.pj);
      return true;
    });
    clones.erase(dead, clones.end());
  }
};

ThreadState& Thread() {
  thread_local ThreadState state;
  return state;
}

ContextLog* LogOf(PJ_CONTEXT* ctx) {
  if (ctx == TheMaster().ctx) return &TheMaster().log;
  ThreadState& t = Thread();
  return ctx == t.ctx ? &t.log : nullptr;
}

std::atomic<std::uint64_t> g_nextSerial{1};

}  // namespace

std::recursive_mutex& CoordSysLock() {
  static std::recursive_mutex* lock = new std::recursive_mutex;
  return *lock;
}

PJ_CONTEXT* MasterContext() { return TheMaster().ctx; }

PJ_CONTEXT* ThreadContext() { return Thread().context(); }

std::wstring TakeProjError(PJ_CONTEXT* ctx, const wchar_t* silent) {
  std::string text;
  if (ContextLog* log = LogOf(ctx)) text.swap(log->last);
  const int err = proj_context_errno(ctx);
  if (text.empty() && err != 0) {
    const char* s = proj_context_errno_string(ctx, err);
    if (s != nullptr) text = s;
  }
  ClearProjError(ctx);
  return text.empty() ? std::wstring(silent) : Utf8String2WString(text);
}

void ClearProjError(PJ_CONTEXT* ctx) {
  if (ContextLog* log = LogOf(ctx)) {
    log->last.clear();
    if (log->resetter != nullptr) proj_errno_reset(log->resetter);
  }
}

std::wstring FromProj(const char* s) { return s == nullptr ? std::wstring() : Utf8String2WString(s); }

SharedPj::SharedPj(PjPtr master)
    : master_(std::move(master)), serial_(g_nextSerial.fetch_add(1)), alive_(std::make_shared<char>()) {}

SharedPj::~SharedPj() {
  alive_.reset();
  std::lock_guard<std::recursive_mutex> lock(CoordSysLock());
  master_.reset();
}

PJ* SharedPj::local() const {
  ThreadState& t = Thread();
  if (t.lastSerial == serial_) return t.lastPj;
  PJ* pj = nullptr;
  for (const ThreadState::Clone& c : t.clones)
    if (c.serial == serial_) pj = c.pj;
  if (pj == nullptr) {
    t.prune();
    PJ_CONTEXT* ctx = t.context();
    {
      // Cloning reads the master, which other threads may be cloning too.
      std::lock_guard<std::recursive_mutex> lock(CoordSysLock());
      pj = proj_clone(ctx, master_.get());
    }
    if (pj == nullptr) return nullptr;
    t.clones.push_back({serial_, alive_, pj});
  }
  t.lastSerial = serial_;
  t.lastPj = pj;
  return pj;
}

}  // namespace kel::detail
