// Path joining for the library's wide path strings. Pure string work: no
// file system access.
#pragma once

#include <string>

#include "kel/export.h"

namespace kel {

class KEL_API File final {
public:
  File() = delete;
  // Joins two pieces with one '/' between them. An empty piece yields the
  // other; a separator ('/' or '\\') already at the seam is not doubled.
  static std::wstring ConcatPaths(const std::wstring& first, const std::wstring& second);
  // The native narrow (UTF-8) form of a wide path, for POSIX calls.
  static std::string NativePath(const std::wstring& path);
};

}  // namespace kel
