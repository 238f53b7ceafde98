#include "kel/core/locale.h"

#include <clocale>
#include <mutex>

#include "kel/core/log.h"

namespace kel {

LocaleGuard::LocaleGuard(bool quiet) : quiet_(quiet) {
  const char* name = std::setlocale(LC_ALL, nullptr);
  saved_ = name ? name : "C";
}

LocaleGuard::~LocaleGuard() { resetLocale(); }

void LocaleGuard::resetLocale() const {
  const char* current = std::setlocale(LC_ALL, nullptr);
  if (current != nullptr && saved_ == current) return;
  if (!quiet_) KEL_LOG_WARN(L"LocaleGuard: Locale was reset.");
  std::setlocale(LC_ALL, saved_.c_str());
}

namespace {
std::mutex& LangMutex() {
  static std::mutex m;  // created on first use, thread-safe since C++11
  return m;
}
std::wstring& LangValue() {
  static std::wstring lang;
  return lang;
}
}  // namespace

const wchar_t* LocaleSettings::AppLang() {
  std::lock_guard<std::mutex> lock(LangMutex());
  return LangValue().c_str();
}

void LocaleSettings::SetAppLang(const wchar_t* lang) {
  std::lock_guard<std::mutex> lock(LangMutex());
  LangValue() = lang ? lang : L"";
}

}  // namespace kel
