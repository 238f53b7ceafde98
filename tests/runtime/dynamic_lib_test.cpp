#include "kel/runtime/dynamic_lib.h"

#include <cmath>
#include <utility>

#include <gtest/gtest.h>

#include "support/log_capture.h"

namespace kel {
namespace {

TEST(DynamicLib, CallsAFunctionOfASystemLibrary) {
  DynamicLib libm(L"libm.so.6");
  ASSERT_TRUE(libm.isLoaded());
  auto* cosine = libm.getFunction<double(double)>("cos");
  ASSERT_NE(cosine, nullptr);
  EXPECT_EQ(cosine(0.5), std::cos(0.5));
  DynamicLib moved(std::move(libm));
  EXPECT_FALSE(libm.isLoaded());
  EXPECT_NE(moved.getSymbol("sin"), nullptr);
}

TEST(DynamicLib, ReportsMissingLibrariesAndSymbolsWithTheReason) {
  struct Case {
    const wchar_t* library;
    const char* symbol;
    const char* message;
  };
  const Case cases[] = {
      {L"libkel_no_such_library.so", nullptr,
       "Failed to load library: libkel_no_such_library.so: libkel_no_such_library.so: cannot open shared object file"},
      {L"/nonexistent/dir/libx.so", nullptr, "Failed to load library: /nonexistent/dir/libx.so: "},
      {L"libm.so.6", "kel_no_such_symbol", "Failed to find symbol: kel_no_such_symbol: "},
      {nullptr, "cos", "Failed to find symbol: cos: no library loaded"},
  };
  for (const Case& c : cases) {
    test::LogCapture capture;
    DynamicLib lib;
    if (c.library) lib.load(c.library);
    if (c.symbol) {
      EXPECT_EQ(lib.getSymbol(c.symbol), nullptr);
    }
    ASSERT_EQ(capture.events().size(), 1u) << c.message;
    EXPECT_EQ(capture.events()[0].message.rfind(c.message, 0), 0u) << capture.events()[0].message;
    if (c.library) {  // the system's reason follows
      EXPECT_GT(capture.events()[0].message.size(), std::string(c.message).size());
    }
  }
}

}  // namespace
}  // namespace kel
