#include "logging.h"

#include <string>

#include <log4cplus/appender.h>
#include <log4cplus/logger.h>
#include <log4cplus/loglevel.h>
#include <log4cplus/spi/loggingevent.h>

#include "progress_view.h"

namespace tool {
namespace {

const char* LevelWord(log4cplus::LogLevel level) {
  if (level >= log4cplus::FATAL_LOG_LEVEL) return "fatal";
  if (level >= log4cplus::ERROR_LOG_LEVEL) return "error";
  if (level >= log4cplus::WARN_LOG_LEVEL) return "warning";
  if (level >= log4cplus::INFO_LOG_LEVEL) return "info";
  return "debug";
}

// One line per message: line breaks inside a message become spaces so a
// script reading stderr line by line sees whole messages.
class StderrAppender final : public log4cplus::Appender {
public:
  ~StderrAppender() override { destructorImpl(); }
  void close() override {}

protected:
  void append(const log4cplus::spi::InternalLoggingEvent& event) override {
    std::string text = event.getMessage();
    // The drawing thread skips a frame when a worker holds the progress
    // tree; that is no news to the user.
    if (text == "Progress info already locked" && event.getLogLevel() < log4cplus::ERROR_LOG_LEVEL &&
        log4cplus::Logger::getRoot().getLogLevel() > log4cplus::DEBUG_LOG_LEVEL)
      return;
    for (char& c : text)
      if (c == '\n' || c == '\r') c = ' ';
    ConsoleLine(std::string("kel: ") + LevelWord(event.getLogLevel()) + ": " + text);
  }
};

}  // namespace

void ConfigureLogging() {
  log4cplus::Logger root = log4cplus::Logger::getRoot();
  root.removeAllAppenders();
  root.addAppender(log4cplus::SharedAppenderPtr(new StderrAppender));
  root.setLogLevel(log4cplus::WARN_LOG_LEVEL);
}

void SetVerbosity(Verbosity v) {
  log4cplus::Logger::getRoot().setLogLevel(v == Verbosity::Quiet     ? log4cplus::ERROR_LOG_LEVEL
                                           : v == Verbosity::Verbose ? log4cplus::TRACE_LOG_LEVEL
                                                                     : log4cplus::WARN_LOG_LEVEL);
}

}  // namespace tool
