#include "kel/core/wexception.h"

#include "kel/core/text.h"

namespace kel {

wexception::~wexception() = default;

const char* wexception::what() const noexcept {
  // A message that converts to nothing is converted again next time; harmless.
  if (narrow_.empty() && !message_.empty()) {
    try {
      narrow_ = W2A_SLOW(message_);
    } catch (...) {
      return "";
    }
  }
  return narrow_.c_str();
}

}  // namespace kel
