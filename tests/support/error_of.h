// The message of the kel::wexception a callable throws, "" when it throws none,
// so expected messages compare with EXPECT_EQ.
#pragma once

#include <string>
#include <utility>

#include "kel/core/wexception.h"

namespace kel::test {

template <typename Fn>
std::wstring ErrorOf(Fn&& fn) {
  try {
    std::forward<Fn>(fn)();
  } catch (const wexception& e) {
    return e.message();
  }
  return L"";
}

}  // namespace kel::test
