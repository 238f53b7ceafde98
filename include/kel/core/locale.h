// Guarding the C runtime's process-wide locale, and the application's
// language code.
#pragma once

#include <string>

#include "kel/export.h"

namespace kel {

// Remembers setlocale(LC_ALL, NULL) on construction and puts it back when it
// goes out of scope (also while an exception passes). A guard that is not
// quiet logs a warning when it has to restore.
class KEL_API LocaleGuard {
public:
  explicit LocaleGuard(bool quiet = true);
  LocaleGuard(const LocaleGuard& other) = default;
  LocaleGuard& operator=(const LocaleGuard&) = delete;
  virtual ~LocaleGuard();

  // Restores the saved locale now if it has changed.
  void resetLocale() const;

private:
  std::string saved_;
  bool quiet_;
};

// The application's language code, guarded by one mutex. AppLang returns a
// pointer into the shared string: copy it at once, as a concurrent
// SetAppLang may invalidate it.
class KEL_API LocaleSettings final {
public:
  LocaleSettings() = delete;
  static const wchar_t* AppLang();
  static void SetAppLang(const wchar_t* lang);
};

}  // namespace kel
