#include "kel/runtime/dynamic_lib.h"

#include <utility>

#include <dlfcn.h>

#include "kel/core/log.h"
#include "kel/core/path.h"
#include "kel/core/text.h"

namespace kel {
namespace {

std::wstring LastError() {
  const char* reason = dlerror();
  return reason ? Utf8String2WString(reason) : L"unknown reason";
}

}  // namespace

DynamicLib::DynamicLib(const std::wstring& path) { load(path); }

DynamicLib::~DynamicLib() { unload(); }

DynamicLib::DynamicLib(DynamicLib&& other) noexcept
    : handle_(std::exchange(other.handle_, nullptr)), path_(std::move(other.path_)) {}

DynamicLib& DynamicLib::operator=(DynamicLib&& other) noexcept {
  if (this != &other) {
    unload();
    handle_ = std::exchange(other.handle_, nullptr);
    path_ = std::move(other.path_);
  }
  return *this;
}

bool DynamicLib::load(const std::wstring& path) {
  unload();
  path_ = path;
  dlerror();  // clear a stale message
  handle_ = dlopen(File::NativePath(path).c_str(), RTLD_NOW | RTLD_LOCAL);
  if (!handle_) KEL_LOG_ERROR(L"Failed to load library: " + path + L": " + LastError());
  return handle_ != nullptr;
}

void DynamicLib::unload() {
  if (handle_) dlclose(handle_);
  handle_ = nullptr;
}

void* DynamicLib::getSymbol(const std::string& name) const {
  const std::wstring wname = Utf8String2WString(name);
  if (!handle_) {
    KEL_LOG_ERROR(L"Failed to find symbol: " + wname + L": no library loaded");
    return nullptr;
  }
  dlerror();
  void* symbol = dlsym(handle_, name.c_str());
  // A symbol may legitimately be null; dlerror tells the cases apart.
  if (const char* reason = dlerror()) {
    KEL_LOG_ERROR(L"Failed to find symbol: " + wname + L": " + Utf8String2WString(reason));
    return nullptr;
  }
  return symbol;
}

}  // namespace kel
