#include "kel/core/log.h"

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>

#include <log4cplus/configurator.h>
#include <log4cplus/loglevel.h>

#include "kel/core/path.h"
#include "kel/core/text.h"

namespace kel {
namespace {

// Holds whichever level is not applied to the logger; see setSilent.
log4cplus::LogLevel g_savedLevel = log4cplus::OFF_LOG_LEVEL;
bool g_initialized = false;
std::wstring g_logPath;

log4cplus::Logger& KelLogger() {
  static log4cplus::Logger logger = log4cplus::Logger::getInstance(LOG4CPLUS_TEXT("KEL"));
  return logger;
}
// Obtain the logger during static initialisation, as the library promises.
[[maybe_unused]] const log4cplus::Logger& g_staticLogger = KelLogger();

const char* LevelName(int level) {
  switch (level) {
    case log4cplus::TRACE_LOG_LEVEL: return "TRACE";
    case log4cplus::DEBUG_LOG_LEVEL: return "DEBUG";
    case log4cplus::INFO_LOG_LEVEL: return "INFO";
    case log4cplus::WARN_LOG_LEVEL: return "WARN";
    case log4cplus::ERROR_LOG_LEVEL: return "ERROR";
    case log4cplus::FATAL_LOG_LEVEL: return "FATAL";
    default: return "LOG";
  }
}

}  // namespace

bool Log::initialize(const wchar_t* configFile) {
  if (g_initialized) return true;
  if (configFile != nullptr) {
    log4cplus::Logger root = log4cplus::Logger::getRoot();
    log4cplus::PropertyConfigurator::doConfigure(WString2Utf8String(configFile),
                                                 log4cplus::Logger::getDefaultHierarchy(), 0);
    if (root.getAllAppenders().empty()) return false;
  } else {
    log4cplus::BasicConfigurator config(log4cplus::Logger::getDefaultHierarchy());
    config.configure();
  }
  g_initialized = true;
  return true;
}

log4cplus::Logger& Log::getKELLogger() { return KelLogger(); }

const wchar_t* Log::getLogPath(const wchar_t* first, const wchar_t* second) {
  if (!g_logPath.empty()) return g_logPath.c_str();
  const char* appData = std::getenv("APPDATA");
  if (appData == nullptr || *appData == '\0') return g_logPath.c_str();
  std::wstring path = Utf8String2WString(appData);
  path = File::ConcatPaths(path, first ? first : L"");
  path = File::ConcatPaths(path, second ? second : L"");
  g_logPath = File::ConcatPaths(path, L"logs");
  return g_logPath.c_str();
}

void Log::setSilent(bool) {
  log4cplus::Logger& logger = KelLogger();
  const log4cplus::LogLevel current = logger.getLogLevel();
  if (current == g_savedLevel) return;
  logger.setLogLevel(g_savedLevel);
  g_savedLevel = current;
}

void Log::shutdown() { log4cplus::Logger::shutdown(); }

namespace detail {

bool DebuggerAttached() {
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.rfind("TracerPid:", 0) == 0) return std::strtol(line.c_str() + 10, nullptr, 10) != 0;
  }
  return false;
}

void LogAt(int level, const std::wstring& message, const char* file, int line) {
  const std::string text = WString2Utf8String(message);
  if (DebuggerAttached())
    std::fprintf(stderr, "%s(%d): %s: %s\n", file, line, LevelName(level), text.c_str());
  log4cplus::Logger& logger = KelLogger();
  if (logger.isEnabledFor(level)) logger.forcedLog(level, text, file, line);
}

}  // namespace detail
}  // namespace kel
