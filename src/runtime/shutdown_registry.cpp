#include "kel/runtime/shutdown_registry.h"

#include <exception>
#include <mutex>
#include <vector>

#include "kel/core/log.h"
#include "kel/core/text.h"

namespace kel {
namespace {

struct Action {
  std::uint64_t id;
  std::wstring name;
  std::function<void()> run;
};

struct State {
  std::mutex mutex;
  std::vector<Action> actions;  // oldest first
  std::uint64_t nextId = 1;
};

// Never destroyed: actions may be registered from static destructors.
State& Registry() {
  static auto* state = new State;
  return *state;
}

}  // namespace

std::uint64_t ShutdownRegistry::Register(std::function<void()> action, const std::wstring& name) {
  State& s = Registry();
  std::lock_guard<std::mutex> guard(s.mutex);
  const std::uint64_t id = s.nextId++;
  s.actions.push_back({id, name, std::move(action)});
  return id;
}

bool ShutdownRegistry::Unregister(std::uint64_t id) {
  State& s = Registry();
  std::lock_guard<std::mutex> guard(s.mutex);
  for (auto it = s.actions.begin(); it != s.actions.end(); ++it)
    if (it->id == id) {
      s.actions.erase(it);
      return true;
    }
  return false;
}

void ShutdownRegistry::Shutdown() {
  State& s = Registry();
  while (true) {
    Action next;
    {
      std::lock_guard<std::mutex> guard(s.mutex);
      if (s.actions.empty()) return;
      next = std::move(s.actions.back());
      s.actions.pop_back();
    }
    // Outside the lock: an action may register, unregister or shut down.
    try {
      if (next.run) next.run();
    } catch (const std::exception& e) {
      KEL_LOG_ERROR(L"Shutdown action '" + next.name + L"' failed: " + Utf8String2WString(e.what()));
    } catch (...) {
      KEL_LOG_ERROR(L"Shutdown action '" + next.name + L"' failed");
    }
  }
}

std::size_t ShutdownRegistry::Size() {
  State& s = Registry();
  std::lock_guard<std::mutex> guard(s.mutex);
  return s.actions.size();
}

}  // namespace kel
