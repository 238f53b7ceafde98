// Helpers shared by the codec and DDS tests: small images from pixel lists,
// block bytes, and a recorder for the KEL logger's events.
#pragma once

#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <log4cplus/appender.h>
#include <log4cplus/spi/loggingevent.h>

#include "kel/core/log.h"
#include "kel/core/types.h"
#include "kel/image/image_util.h"

namespace kel::testing {

// A 1-level RGBA (or BGRA) image of w x h from pixels in row order, given as
// red, green, blue, alpha whatever the format (BGRA stores them swapped).
inline std::shared_ptr<IImage> MakeImage(std::uint64_t w, std::uint64_t h, const std::vector<Color4B>& px,
                                         IImage::Format format = IImage::RGBA) {
  auto img = ImageUtil::CreateImage(w, h, format, 1);
  std::uint8_t* d = img->lineData(0, 0);
  for (std::size_t i = 0; i < w * h; ++i) {
    const Color4B c = px[i];
    d[4 * i + 0] = format == IImage::BGRA ? c.b : c.r;
    d[4 * i + 1] = c.g;
    d[4 * i + 2] = format == IImage::BGRA ? c.r : c.b;
    d[4 * i + 3] = c.a;
  }
  return img;
}

inline Color4B PixelAt(const IImage& img, std::uint64_t x, std::uint64_t y) {
  const std::uint8_t* p = img.lineData(0, 0) + (y * img.width() + x) * 4;
  if (img.format() == IImage::BGRA) return {p[2], p[1], p[0], p[3]};
  return {p[0], p[1], p[2], p[3]};
}

inline std::vector<std::uint8_t> Bytes(const IImage& img) {
  const std::uint8_t* p = img.lineData(0, 0);
  return std::vector<std::uint8_t>(p, p + img.sizeInBytes());
}

// Records every event the KEL logger forwards while it is alive.
class LogRecorder {
public:
  LogRecorder() {
    appender_ = log4cplus::SharedAppenderPtr(sink_ = new Sink);
    Log::getKELLogger().addAppender(appender_);
    saved_ = Log::getKELLogger().getLogLevel();
    Log::getKELLogger().setLogLevel(log4cplus::TRACE_LOG_LEVEL);
  }
  ~LogRecorder() {
    Log::getKELLogger().removeAppender(appender_);
    Log::getKELLogger().setLogLevel(saved_);
  }
  LogRecorder(const LogRecorder&) = delete;
  LogRecorder& operator=(const LogRecorder&) = delete;

  const std::vector<std::string>& messages() const { return sink_->messages; }
  bool contains(const std::string& text) const {
    for (const auto& m : sink_->messages)
      if (m.find(text) != std::string::npos) return true;
    return false;
  }

private:
  class Sink : public log4cplus::Appender {
  public:
    std::vector<std::string> messages;
    ~Sink() override { destructorImpl(); }
    void close() override {}

  protected:
    void append(const log4cplus::spi::InternalLoggingEvent& e) override { messages.push_back(e.getMessage()); }
  };
  Sink* sink_ = nullptr;
  log4cplus::SharedAppenderPtr appender_;
  log4cplus::LogLevel saved_ = log4cplus::NOT_SET_LOG_LEVEL;
};

}  // namespace kel::testing
