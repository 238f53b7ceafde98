#include "kel/tiles/tile_cache.h"

#include <chrono>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "kel/core/log.h"
#include "kel/core/text.h"
#include "support/log_capture.h"
#include "support/scratch.h"

namespace kel {
namespace {

namespace fs = std::filesystem;
using Util = TileCacheFileUtil;
using Folders = TileCacheFileUtil::CacheFolderUtil;


fs::path TempDir() {
  const fs::path dir = fs::temp_directory_path() / ("kel_cache_test_" + std::to_string(::getpid()));
  fs::create_directories(dir);
  return dir;
}

std::wstring W(const fs::path& p) { return Utf8String2WString(p.string()); }

std::string Contents(const fs::path& p) {
  std::ifstream f(p, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(f), {});
}

TEST(TileCacheFileUtil, NamesFollowTheirPatterns) {
  std::wstring s;
  EXPECT_EQ(Util::GetLevelName(TileCoords(7, 1, 2), L'/'), L"7");
  EXPECT_EQ(Util::GetLevelName(TileCoords(7, 1, 2), L'x'), L"7");
  Util::GetLevelRowName(s, TileCoords(3, -5, 9), L'_');
  EXPECT_EQ(s, L"3_-5");
  Util::GetLevelRowColumnName(s, TileCoords(3, 5, 9), L'/');
  EXPECT_EQ(s, L"3/5/9");
  EXPECT_EQ(Util::GetTileFolder(L"C:/cache", TileCoords(3, 5, 9)), L"C:/cache/3/5");
  Util::GetTileFile(s, L"C:/cache", L"terrain", TileCoords(3, 5, 9));
  EXPECT_EQ(s, L"C:/cache/3/5/terrain_3_5_9.sff");
  Util::GetTileFile(s, L"root", L"set", TileCoords(2, -1, 0));
  EXPECT_EQ(s, L"root/2/-1/set_2_-1_0.sff");
  EXPECT_EQ(Util::GetAtlasInfoFileName(), L"atlasInfo.xml");
  EXPECT_EQ(Util::GetSharedAtlasFileName(12), L"__atlasImage__12.dds");
  EXPECT_EQ(Util::GetTerrainLODImpostorTextureFile(TileCoords(4, 3, -2)), L"terrain_impostor_texture_4_3_-2.dds");
  EXPECT_EQ(Util::GetCitySharedResourceFolder(), L"SharedResources/");
  EXPECT_EQ(Util::GetAtlasFolderName(), L"SharedResources/Facades/");
  EXPECT_EQ(Util::GetColorTexFolderName(), L"SharedResources/Colors/");
  Util::GetAtlasInfoFile(s, L"atlas1", L"/city");
  EXPECT_EQ(s, L"/city/SharedResources/Facades/atlas1/atlasInfo.xml");
}

TEST(TileCacheFileUtil, OverlongTileFileNamesAreCutToTheBuffer) {
  std::wstring s;
  Util::GetTileFile(s, std::wstring(300, L'r'), L"n", TileCoords(1, 2, 3));
  EXPECT_EQ(s, std::wstring(259, L'r'));
  Util::GetTileFile(s, std::wstring(240, L'r'), L"name", TileCoords(1, 2, 3));
  EXPECT_EQ(s.substr(240), L"/1/2/name_1_2_3.sff");  // 259: fits
  Util::GetTileFile(s, std::wstring(241, L'r'), L"name", TileCoords(1, 2, 3));
  EXPECT_EQ(s.substr(241), L"/1/2/name_1_2_3.sf");
}

TEST(TileCacheFileUtil, FileStateLooksAtTheFirstByteOnly) {
  const fs::path dir = TempDir();
  { std::ofstream(dir / "empty.sff", std::ios::binary); }
  { std::ofstream(dir / "s.sff", std::ios::binary) << "S"; }
  EXPECT_EQ(Util::GetSffFileState(W(dir / "empty.sff").c_str()), Util::SffNull);
  EXPECT_EQ(Util::GetSffFileState(W(dir / "s.sff").c_str()), Util::SffPresent);
  EXPECT_EQ(Util::GetSffFileState(W(dir / "missing.sff").c_str()), Util::SffMissing);
  EXPECT_EQ(Util::GetSffFileState(nullptr), Util::SffMissing);
}

TEST(TileCacheFileUtil, PlaceholderFilesHaveTheirExactBytes) {
  const fs::path dir = TempDir();
  const fs::path null = dir / fs::path("null_\xC3\xA9.sff");
  { std::ofstream(null, std::ios::binary) << "previous content"; }
  EXPECT_TRUE(Util::CreateNullSff(W(null).c_str()));
  EXPECT_EQ(fs::file_size(null), 0u);
  EXPECT_EQ(Util::GetSffFileState(W(null).c_str()), Util::SffNull);

  const fs::path empty = dir / fs::path("empty_\xC3\xA9.sff");
  EXPECT_TRUE(Util::CreateEmptySff(W(empty).c_str()));
  EXPECT_EQ(Contents(empty), std::string("SFF0\x00\x40\x00\x00\x50", 9));
  EXPECT_EQ(Util::GetSffFileState(W(empty).c_str()), Util::SffPresent);
}

TEST(TileCacheFileUtil, PlaceholderFailuresReturnFalseAndNullLogs) {
  test::LogCapture capture;
  const std::wstring bad = W(TempDir() / "no_such_dir" / "x.sff");
  EXPECT_FALSE(Util::CreateNullSff(bad.c_str()));
  EXPECT_FALSE(Util::CreateEmptySff(bad.c_str()));
  const auto messages = capture.messages();
  ASSERT_EQ(messages.size(), 1u);
  EXPECT_EQ(messages[0], "Failed to create NULL sff:" + (TempDir() / "no_such_dir" / "x.sff").string() + " 2");
}

// An empty tile that cannot be written whole is not written at all: a cut
// one would read as a null tile, or replace a tile that was there.
TEST(TileCacheFileUtil, AnEmptySffThatDoesNotFitLeavesTheOldFile) {
  const fs::path path = TempDir() / "full.sff";
  { std::ofstream(path, std::ios::binary) << "tile"; }
  {
    test::FileSizeLimit limit(4);
    EXPECT_FALSE(Util::CreateEmptySff(W(path).c_str()));
  }
  EXPECT_EQ(Contents(path), "tile");
  EXPECT_TRUE(test::Leftovers(TempDir()).empty());
}

TEST(CacheFolderUtil, MapsFilesUnderTheFirstMatchingRoot) {
  Folders none;
  std::wstring out = L"unchanged";
  EXPECT_FALSE(none.getCacheFile(out, L"/a/b.sff"));
  EXPECT_EQ(out, L"unchanged");

  const Folders f = Folders::DefaultRendererCachePaths(L"/data/city/app", L"/data/city");
  ASSERT_EQ(f.paths().size(), 2u);
  EXPECT_EQ(f.paths()[0].second, L"/data/city/RendererCache/app");
  EXPECT_EQ(f.paths()[1].second, L"/data/city/RendererCache/city");
  struct Case {
    const wchar_t* file;
    bool found;
    const wchar_t* cache;
  };
  const Case cases[] = {
      {L"/data/city/app/tex/a.dds", true, L"/data/city/RendererCache/app/tex/a.dds"},  // both match: app first
      {L"/data/city/b.sff", true, L"/data/city/RendererCache/city/b.sff"},
      {L"\\data\\city\\c.sff", true, L"/data/city/RendererCache/city/c.sff"},
      {L"/data/city2/d.sff", false, L""},
      {L"/Data/City/e.sff", false, L""},  // letter case counts
      {L"/elsewhere/f.sff", false, L""},
  };
  for (const auto& c : cases) {
    std::wstring got;
    EXPECT_EQ(f.getCacheFile(got, c.file), c.found) << c.file;
    if (c.found) {
      EXPECT_EQ(got, c.cache) << c.file;
    }
  }
  Folders slash;
  slash.registerPaths(L"/src/", L"/cache");
  EXPECT_TRUE(slash.getCacheFile(out, L"/src/x/y"));
  EXPECT_EQ(out, L"/cache/x/y");
}

TEST(CacheFolderUtil, CacheFileIsUsableWhenNotNewerThanItsSource) {
  const fs::path dir = TempDir();
  const fs::path a = dir / "a.bin", b = dir / "b.bin";
  { std::ofstream(a) << "a"; }
  { std::ofstream(b) << "b"; }
  const auto now = fs::file_time_type::clock::now();
  fs::last_write_time(a, now - std::chrono::hours(1));
  fs::last_write_time(b, now);
  EXPECT_TRUE(Folders::CacheFileUsable(W(a), W(b)));
  EXPECT_FALSE(Folders::CacheFileUsable(W(b), W(a)));
  EXPECT_TRUE(Folders::CacheFileUsable(W(a), W(a)));
  EXPECT_FALSE(Folders::CacheFileUsable(W(dir / "missing"), W(b)));
  EXPECT_FALSE(Folders::CacheFileUsable(W(a), W(dir / "missing")));
}

}  // namespace
}  // namespace kel
