// Loading a shared library at run time and finding its symbols (plug-ins,
// optional platform libraries). Failures are logged as errors, "Failed to
// load library: " or "Failed to find symbol: " with the name and the
// system's reason, and answered with false or null. One object per thread.
#pragma once

#include <string>

#include "kel/export.h"

namespace kel {

class KEL_API DynamicLib {
public:
  DynamicLib() = default;
  // Loads at once; check isLoaded().
  explicit DynamicLib(const std::wstring& path);
  // Closes the library: pointers from it dangle afterwards.
  ~DynamicLib();
  DynamicLib(DynamicLib&& other) noexcept;
  DynamicLib& operator=(DynamicLib&& other) noexcept;
  DynamicLib(const DynamicLib&) = delete;
  DynamicLib& operator=(const DynamicLib&) = delete;

  // A name without a slash is searched the system's way (LD_LIBRARY_PATH,
  // the loader cache); with one it is a file. Closes what was loaded before.
  bool load(const std::wstring& path);
  void unload();
  bool isLoaded() const { return handle_ != nullptr; }
  const std::wstring& path() const { return path_; }

  // The symbol's address, or null (logged) when it is missing or nothing
  // is loaded.
  void* getSymbol(const std::string& name) const;
  template <typename F>
  F* getFunction(const std::string& name) const {
    return reinterpret_cast<F*>(getSymbol(name));
  }

private:
  void* handle_ = nullptr;
  std::wstring path_;
};

}  // namespace kel
