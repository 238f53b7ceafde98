// The library's logger and the one way every area logs.
//
// A call site (KEL_LOG_WARN / KEL_LOG_ERROR) first checks for an attached
// debugger (a tracer on this platform) and, if there is one, writes
// "<file>(<line>): <LEVEL>: <message>" to stderr; then, if the logger "KEL" is
// enabled for the level, hands message, file and line to log4cplus.
// Initialisation and getLogPath use unguarded process-wide state: call them
// from the start-up thread. Call sites themselves are thread-safe.
#pragma once

#include <string>

#include <log4cplus/logger.h>

#include "kel/export.h"

namespace kel {

class KEL_API Log final {
public:
  Log() = delete;

  // Configures log4cplus once per process. With a property file: false when
  // the file left the root logger without appenders (a later call may retry).
  // With null: log4cplus's basic console configuration. Later calls after a
  // success return true and change nothing.
  static bool initialize(const wchar_t* configFile);
  // The process-wide logger named "KEL".
  static log4cplus::Logger& getKELLogger();
  // "$APPDATA/<first>/<second>/logs", computed once and cached; the arguments
  // of later calls are ignored. Empty (and not cached) while APPDATA is unset.
  // The folder is not created.
  static const wchar_t* getLogPath(const wchar_t* first, const wchar_t* second);
  // Swaps the logger's level with a saved one (initially OFF). The argument
  // does not choose the direction: the first call mutes, the next restores.
  static void setSilent(bool silent);
  // Shuts log4cplus down; call once, last.
  static void shutdown();
};

namespace detail {
// True when a tracer (debugger) is attached to this process.
KEL_API bool DebuggerAttached();
// The call-site body behind the macros; level is a log4cplus level.
KEL_API void LogAt(int level, const std::wstring& message, const char* file, int line);
}  // namespace detail

}  // namespace kel

#define KEL_LOG_AT(level, message) ::kel::detail::LogAt((level), (message), __FILE__, __LINE__)
#define KEL_LOG_WARN(message) KEL_LOG_AT(::log4cplus::WARN_LOG_LEVEL, (message))
#define KEL_LOG_ERROR(message) KEL_LOG_AT(::log4cplus::ERROR_LOG_LEVEL, (message))
