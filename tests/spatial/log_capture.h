// Captures what the KEL logger forwards, for tests that check warnings.
#pragma once

#include <string>
#include <vector>

#include <log4cplus/appender.h>
#include <log4cplus/spi/loggingevent.h>

#include "kel/core/log.h"

namespace kel::test {

class RecordingAppender : public log4cplus::Appender {
public:
  struct Event {
    int level;
    std::string message;
  };
  std::vector<Event> events;
  ~RecordingAppender() override { destructorImpl(); }
  void close() override {}

  int countOf(const std::string& message) const {
    int n = 0;
    for (const auto& e : events) n += e.message == message;
    return n;
  }

protected:
  void append(const log4cplus::spi::InternalLoggingEvent& e) override {
    events.push_back({e.getLogLevel(), e.getMessage()});
  }
};

// Attaches a recorder to the KEL logger for its lifetime.
class LogCapture {
public:
  LogCapture() : recorder_(new RecordingAppender), appender_(recorder_) {
    Log::getKELLogger().addAppender(appender_);
    Log::getKELLogger().setLogLevel(log4cplus::TRACE_LOG_LEVEL);
  }
  ~LogCapture() { Log::getKELLogger().removeAppender(appender_); }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;
  const RecordingAppender& log() const { return *recorder_; }

private:
  RecordingAppender* recorder_;
  log4cplus::SharedAppenderPtr appender_;
};

}  // namespace kel::test
