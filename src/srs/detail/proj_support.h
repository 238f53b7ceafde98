// PROJ plumbing shared by the srs sources: the coordinate-system lock, the
// contexts, error texts and objects that several threads use at once.
//
// PROJ objects and contexts belong to one thread at a time. Every object the
// library shares therefore has a master copy, made and destroyed in the
// master context while holding CoordSysLock(), and each thread that uses it
// works on its own clone in its own context (SharedPj::local). The lock is
// recursive so that code holding it may still reach a getter.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include <proj.h>
#include <proj_experimental.h>

namespace kel::detail {

// Serialises the registry and the creation and destruction of systems and
// transforms.
std::recursive_mutex& CoordSysLock();

// The context of every master object; use it only while holding the lock.
PJ_CONTEXT* MasterContext();

// The calling thread's own context, made on first use and destroyed (with the
// thread's clones) when the thread ends.
PJ_CONTEXT* ThreadContext();

// PROJ's account of the last failure on `ctx`: the last error it logged, else
// the text of its error number, else `silent` (for calls that fail without a
// word). Clears both, so the next failure is reported on its own.
std::wstring TakeProjError(PJ_CONTEXT* ctx, const wchar_t* silent = L"unknown PROJ error");
// Forgets an earlier failure on `ctx` before a call whose failure is checked.
void ClearProjError(PJ_CONTEXT* ctx);

struct PjDeleter {
  void operator()(PJ* p) const { proj_destroy(p); }
};
using PjPtr = std::unique_ptr<PJ, PjDeleter>;

// PROJ's strings as wide text (UTF-8 inside PROJ); null gives "".
std::wstring FromProj(const char* s);

// One PROJ object shared between threads. The master is only cloned (under
// the lock); each thread keeps its clone until the thread ends or, once the
// SharedPj is gone, until that thread next makes a clone.
class SharedPj {
public:
  // Takes `master`, which must live in MasterContext().
  explicit SharedPj(PjPtr master);
  // Destroys the master under the lock.
  ~SharedPj();
  SharedPj(const SharedPj&) = delete;
  SharedPj& operator=(const SharedPj&) = delete;

  // Only while holding the lock.
  PJ* master() const { return master_.get(); }
  // The calling thread's clone in ThreadContext(); null when PROJ cannot
  // clone the object (its error is left on the thread's context).
  PJ* local() const;

private:
  PjPtr master_;
  std::uint64_t serial_;          // never reused, unlike addresses
  std::shared_ptr<char> alive_;   // expires with this object: lets threads drop stale clones
};

}  // namespace kel::detail
