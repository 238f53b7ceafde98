// Captures what the KEL logger forwards (level, message, source position)
// while a LogCapture is alive, for tests that check warnings. The logger's
// level is opened to TRACE and put back afterwards.
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
    std::string file;
    int line;
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
    events.push_back({e.getLogLevel(), e.getMessage(), e.getFile(), e.getLine()});
  }
};

class LogCapture {
public:
  LogCapture() : recorder_(new RecordingAppender), appender_(recorder_) {
    log4cplus::Logger& logger = Log::getKELLogger();
    saved_ = logger.getLogLevel();
    logger.addAppender(appender_);
    logger.setLogLevel(log4cplus::TRACE_LOG_LEVEL);
  }
  ~LogCapture() {
    Log::getKELLogger().removeAppender(appender_);
    Log::getKELLogger().setLogLevel(saved_);
  }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  const RecordingAppender& log() const { return *recorder_; }
  const std::vector<RecordingAppender::Event>& events() const { return recorder_->events; }
  std::vector<std::string> messages() const {
    std::vector<std::string> out;
    for (const auto& e : recorder_->events) out.push_back(e.message);
    return out;
  }
  // True when some message contains `text`.
  bool contains(const std::string& text) const {
    for (const auto& e : recorder_->events)
      if (e.message.find(text) != std::string::npos) return true;
    return false;
  }

private:
  RecordingAppender* recorder_;
  log4cplus::SharedAppenderPtr appender_;
  log4cplus::LogLevel saved_ = log4cplus::NOT_SET_LOG_LEVEL;
};

}  // namespace kel::test
