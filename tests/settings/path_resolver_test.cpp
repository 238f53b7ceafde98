#include "kel/settings/path_resolver.h"

#include <string>

#include <gtest/gtest.h>

#include "kel/core/text.h"
#include "support/scratch.h"

namespace kel {
namespace {

TEST(PathResolver, NormalizesPaths) {
  const std::pair<const wchar_t*, const wchar_t*> cases[] = {
      {L"a/b/../c", L"a/c"},       {L"a\\b\\.\\c\\", L"a/b/c"}, {L"//a///b", L"/a/b"},
      {L"../../x", L"../../x"},    {L"a/../../x", L"../x"},     {L"/../x", L"/x"},
      {L"./", L"."},               {L"a/..", L"."},             {L"", L""},
      {L"/", L"/"},
  };
  for (const auto& [in, out] : cases) EXPECT_EQ(PathResolver::Normalize(in), out) << WString2Utf8String(in);
}

TEST(PathResolver, TriesTheModelFolderThenTheSearchPaths) {
  test::ScratchDir dir;
  const std::wstring root = Utf8String2WString(dir.path().string());
  for (const char* file : {"model/tex/wall.png", "shared/tex/roof.png", "shared/tex/wall.png", "lib/roof.png"}) {
    std::filesystem::create_directories((dir.path() / file).parent_path());
    test::WriteBytes(dir.path() / file, "x");
  }
  PathResolver r(root + L"/model");
  r.addSearchPath(L"../shared");  // under the model folder
  r.addSearchPath(root + L"/lib");
  EXPECT_EQ(r.resolve(L"tex\\wall.png"), root + L"/model/tex/wall.png");  // the model folder wins
  EXPECT_EQ(r.resolve(L"tex/roof.png"), root + L"/shared/tex/roof.png");
  EXPECT_EQ(r.resolve(L"roof.png"), root + L"/lib/roof.png");
  EXPECT_EQ(r.resolve(L"tex/door.png"), L"");
  EXPECT_EQ(r.resolve(root + L"/lib/roof.png"), root + L"/lib/roof.png");
  EXPECT_EQ(r.resolve(root + L"/model/roof.png"), L"");  // absolute: no search
  EXPECT_EQ(r.resolve(L""), L"");

  EXPECT_EQ(r.absolute(L"tex/../door.png"), root + L"/model/door.png");
  EXPECT_EQ(r.relative(root + L"/model/tex/wall.png"), L"tex/wall.png");
  EXPECT_EQ(r.relative(root + L"/model"), L".");
  EXPECT_EQ(r.relative(root + L"/modelling/x"), root + L"/modelling/x");  // a prefix is not a parent
  EXPECT_EQ(PathResolver().absolute(L"a/./b"), L"a/b");
}

}  // namespace
}  // namespace kel
