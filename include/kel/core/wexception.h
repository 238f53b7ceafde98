// The library's one exception type: a wide message with a lazily made narrow
// (code page 1252) rendering for std::exception::what(). Thrown by value by
// the file-format readers and writers, caught by reference.
#pragma once

#include <exception>
#include <string>

#include "kel/export.h"

namespace kel {

class KEL_API wexception : public std::exception {
public:
  wexception() = default;
  explicit wexception(const std::wstring& message) : message_(message) {}
  wexception(const wexception& other) = default;
  wexception& operator=(const wexception& other) = default;
  ~wexception() override;

  // CP1252 text of the message; converted on first call and cached. Never
  // throws, also for an empty message.
  const char* what() const noexcept override;
  virtual const wchar_t* message() const noexcept { return message_.c_str(); }

private:
  std::wstring message_;
  mutable std::string narrow_;
};

}  // namespace kel
