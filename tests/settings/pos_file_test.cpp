#include "kel/settings/pos_file.h"

#include <string>

#include <gtest/gtest.h>

#include "kel/core/text.h"
#include "kel/core/wexception.h"
#include "support/error_of.h"
#include "support/scratch.h"

namespace kel {
namespace {

std::string ParseError(const std::string& text) {
  return WString2Utf8String(test::ErrorOf([&] { PosFile::Parse(text, L"test.pos"); }));
}

TEST(PosFile, ReadsTolerantlyAndKeepsUnknownKeys) {
  const PosFile f = PosFile::Parse(
      "\xEF\xBB\xBF\n  #ORB_ModelSettings_V1.0  \r\n"
      "\n"
      "  Offset=  500000.25, 5400000  -12.5\r\n"
      "Author = Käthe = K.\n"
      "srs = +proj=utm +zone=32 +ellps=GRS80\n"
      "Zeta = last\n",
      L"test.pos");
  ASSERT_TRUE(f.hasOffset());
  EXPECT_EQ(f.offset()[0], 500000.25);
  EXPECT_EQ(f.offset()[1], 5400000.0);
  EXPECT_EQ(f.offset()[2], -12.5);
  EXPECT_EQ(f.srs(), L"+proj=utm +zone=32 +ellps=GRS80");
  ASSERT_EQ(f.extra().size(), 2u);
  EXPECT_EQ(f.extra()[0].first, L"Author");
  EXPECT_EQ(f.extra()[0].second, L"Käthe = K.");
  EXPECT_EQ(f.format(),
            "#ORB_ModelSettings_V1.0\n"
            "Offset = 500000.25 5400000 -12.5\n"
            "SRS = +proj=utm +zone=32 +ellps=GRS80\n"
            "Author = Käthe = K.\n"
            "Zeta = last\n");
}

TEST(PosFile, RejectsWhatIsNoModelSettingsFile) {
  struct Case {
    const char* text;
    const char* error;
  };
  const Case cases[] = {
      {"", "it is empty"},
      {"\n \n", "it is empty"},
      {"Offset = 1 2 3\n", "the first line is not #ORB_ModelSettings_V1.0"},
      {"#ORB_ModelSettings_V2.0\nSRS = x\n", "unsupported version #ORB_ModelSettings_V2.0"},
      {"#orb_modelsettings_v1.0\n", "the first line is not"},
      {"#ORB_ModelSettings_V1.0\nOffset 1 2 3\n", "line 2 has no '='"},
      {"#ORB_ModelSettings_V1.0\n = 5\n", "line 2 has no key"},
      {"#ORB_ModelSettings_V1.0\n\nOffset = 1 2\n", "line 3: Offset needs three numbers, got '1 2'"},
      {"#ORB_ModelSettings_V1.0\nOffset = 1 2 3 4\n", "Offset needs three numbers"},
      {"#ORB_ModelSettings_V1.0\nOffset = 1 2 east\n", "Offset needs three numbers"},
      {"#ORB_ModelSettings_V1.0\nOffset = ,1 2 3\n", "Offset needs three numbers"},
  };
  for (const Case& c : cases) {
    const std::string error = ParseError(c.text);
    EXPECT_EQ(error.rfind("Invalid model settings file test.pos: ", 0), 0u) << error;
    EXPECT_NE(error.find(c.error), std::string::npos) << error;
  }
}

TEST(PosFile, SavesAtomicallyAndReadsBackExactly) {
  test::ScratchDir dir;
  const std::wstring path = Utf8String2WString(dir / "model.pos");
  PosFile f;
  f.setOffset(Vec<3, double>(0.1, 1e-300, -3.0e15));
  f.setSrs(L"PROJCRS[\"ETRS89 / UTM 32N\",\n    BASEGEOGCRS[\"ETRS89\"]]");
  f.set(L"Author", L"me");
  f.set(L"Author", L"you");  // replaced, not repeated
  f.save(path);
  const PosFile back = PosFile::Load(path);
  EXPECT_EQ(back.offset()[0], 0.1);
  EXPECT_EQ(back.offset()[1], 1e-300);
  EXPECT_EQ(back.offset()[2], -3.0e15);
  EXPECT_EQ(back.srs(), L"PROJCRS[\"ETRS89 / UTM 32N\", BASEGEOGCRS[\"ETRS89\"]]");
  ASSERT_EQ(back.extra().size(), 1u);
  EXPECT_EQ(back.extra()[0].second, L"you");
  EXPECT_EQ(back.format(), f.format());

  PosFile empty;
  EXPECT_EQ(empty.format(), "#ORB_ModelSettings_V1.0\n");
  EXPECT_THROW(PosFile::Load(Utf8String2WString(dir / "missing.pos")), wexception);
  EXPECT_THROW(f.save(Utf8String2WString(dir / "no/such/folder/model.pos")), wexception);
  EXPECT_TRUE(test::Leftovers(dir.path()).empty());
}

}  // namespace
}  // namespace kel
