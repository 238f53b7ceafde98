// Actions to run once when the application shuts down (closing caches,
// flushing logs, releasing platform libraries), newest first, the way
// objects unwind. Thread-safe: any thread may register, unregister or shut
// down, also from inside an action.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

#include "kel/export.h"

namespace kel {

class KEL_API ShutdownRegistry final {
public:
  ShutdownRegistry() = delete;

  // Adds an action; the id (never 0) takes it back out. `name` appears in
  // the error logged when the action throws.
  static std::uint64_t Register(std::function<void()> action, const std::wstring& name = L"");
  // False when the id is unknown or its action already ran.
  static bool Unregister(std::uint64_t id);
  // Runs every registered action once, newest first, each outside the
  // registry's lock. An action registered meanwhile runs too (it is the
  // newest); one that throws is logged as an error and the rest still run.
  // A second call runs only what was registered since.
  static void Shutdown();
  static std::size_t Size();
};

}  // namespace kel
