// Paths and whole files for the library's wide path strings: joining
// (pure string work) and a few file system operations on the native UTF-8
// form. The file system operations log failures as errors ("Failed to read
// <path>: <reason>") and answer with false or -1; queries log nothing.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

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

  // Anything at all under that name (a file, a folder, a device).
  static bool Exists(const std::wstring& path);
  static bool IsDirectory(const std::wstring& path);
  // Bytes of a regular file (symbolic links followed), -1 for anything else.
  static std::int64_t Size(const std::wstring& path);
  // The whole file; on false `bytes` is untouched and the failure logged.
  static bool ReadAll(const std::wstring& path, std::string& bytes);
  // The same without logging, for callers that report failures their own
  // way: 0, or the errno of the failed call.
  static int ReadAllOrError(const std::wstring& path, std::string& bytes);
  // Replaces the file as a whole through kel::AtomicFile: a failed or killed
  // write leaves the old file as it was and no half-written one.
  static bool WriteAll(const std::wstring& path, std::string_view bytes);
  // The folder and any missing parents; true when it is a folder afterwards.
  static bool CreateDirectories(const std::wstring& path);
  // A file or an empty folder; true when nothing is left under the name
  // (also when nothing was there).
  static bool Remove(const std::wstring& path);
};

}  // namespace kel
