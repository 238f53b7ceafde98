#include "kel/tiles/tile_cache.h"

#include <cerrno>
#include <cstdio>
#include <filesystem>

#include "kel/core/atomic_file.h"
#include "kel/core/log.h"
#include "kel/core/path.h"
#include "kel/core/wexception.h"
#include "kel/sff/sff_file_stream.h"
#include "kel/sff/sff_writer.h"

namespace kel {
namespace {

constexpr std::size_t kMaxPath = 260;

bool IsSeparator(wchar_t c) { return c == L'/' || c == L'\\'; }

// Root without trailing separators ("/" alone stays as it is).
std::wstring::size_type RootLength(const std::wstring& root) {
  std::wstring::size_type n = root.size();
  while (n > 1 && IsSeparator(root[n - 1])) --n;
  return n;
}

std::filesystem::path FsPath(const std::wstring& path) { return std::filesystem::path(File::NativePath(path)); }

}  // namespace

std::wstring TileCacheFileUtil::GetLevelName(const TileCoords& tile, wchar_t /*separator*/) {
  return std::to_wstring(tile.level);
}

void TileCacheFileUtil::GetLevelRowName(std::wstring& out, const TileCoords& tile, wchar_t separator) {
  out = std::to_wstring(tile.level) + separator + std::to_wstring(tile.row);
}

void TileCacheFileUtil::GetLevelRowColumnName(std::wstring& out, const TileCoords& tile, wchar_t separator) {
  out = std::to_wstring(tile.level) + separator + std::to_wstring(tile.row) + separator +
        std::to_wstring(tile.column);
}

std::wstring TileCacheFileUtil::GetTileFolder(const std::wstring& root, const TileCoords& tile) {
  std::wstring levelRow;
  GetLevelRowName(levelRow, tile, L'/');
  return root + L"/" + levelRow;
}

void TileCacheFileUtil::GetTileFile(std::wstring& out, const std::wstring& root, const std::wstring& name,
                                    const TileCoords& tile) {
  const std::wstring level = std::to_wstring(tile.level);
  const std::wstring row = std::to_wstring(tile.row);
  out = root + L"/" + level + L"/" + row + L"/" + name + L"_" + level + L"_" + row + L"_" +
        std::to_wstring(tile.column) + L".sff";
  if (out.size() > kMaxPath - 1) out.resize(kMaxPath - 1);
}

std::wstring TileCacheFileUtil::GetAtlasInfoFileName() { return L"atlasInfo.xml"; }

std::wstring TileCacheFileUtil::GetSharedAtlasFileName(unsigned int index) {
  return L"__atlasImage__" + std::to_wstring(index) + L".dds";
}

std::wstring TileCacheFileUtil::GetTerrainLODImpostorTextureFile(const TileCoords& tile) {
  return L"terrain_impostor_texture_" + std::to_wstring(tile.level) + L"_" + std::to_wstring(tile.row) + L"_" +
         std::to_wstring(tile.column) + L".dds";
}

std::wstring TileCacheFileUtil::GetCitySharedResourceFolder() { return L"SharedResources/"; }
std::wstring TileCacheFileUtil::GetAtlasFolderName() { return GetCitySharedResourceFolder() + L"Facades/"; }
std::wstring TileCacheFileUtil::GetColorTexFolderName() { return GetCitySharedResourceFolder() + L"Colors/"; }

void TileCacheFileUtil::GetAtlasInfoFile(std::wstring& out, const std::wstring& first, const std::wstring& second) {
  out = File::ConcatPaths(second, File::ConcatPaths(GetAtlasFolderName(), File::ConcatPaths(first, GetAtlasInfoFileName())));
}

TileCacheFileUtil::SffFileState TileCacheFileUtil::GetSffFileState(const wchar_t* path) {
  if (!path) return SffMissing;
  std::FILE* f = std::fopen(File::NativePath(path).c_str(), "rb");
  if (!f) return SffMissing;
  unsigned char byte;
  const bool any = std::fread(&byte, 1, 1, f) == 1;
  std::fclose(f);
  return any ? SffPresent : SffNull;
}

// Both placeholders go through a temporary and a rename: a full disk must
// not leave a 0-byte file that reads as a null tile where an empty one was
// meant, nor cut a tile that was there.
bool TileCacheFileUtil::CreateNullSff(const wchar_t* path) {
  int error = EINVAL;
  if (path) {
    try {
      AtomicFile file{std::wstring(path)};
      file.commit();
      return true;
    } catch (const wexception&) {
      error = errno;
    }
  }
  KEL_LOG_ERROR(L"Failed to create NULL sff:" + std::wstring(path ? path : L"") + L" " + std::to_wstring(error));
  return false;
}

bool TileCacheFileUtil::CreateEmptySff(const wchar_t* path) {
  if (!path) return false;
  try {
    sff_file_os sink(File::NativePath(path).c_str());
    {
      sff_writer writer(sink, false);
      writer.beginAt();
      writer.end();
    }
    sink.commit();
  } catch (const wexception&) {
    return false;
  }
  return true;
}

void TileCacheFileUtil::CacheFolderUtil::registerPaths(const std::wstring& sourceRoot, const std::wstring& cacheRoot) {
  paths_.emplace_back(sourceRoot, cacheRoot);
}

bool TileCacheFileUtil::CacheFolderUtil::getCacheFile(std::wstring& out, const std::wstring& file) const {
  for (const auto& [source, cache] : paths_) {
    const std::wstring::size_type n = RootLength(source);
    if (n == 0 || file.size() < n) continue;
    bool match = true;
    for (std::wstring::size_type i = 0; i < n && match; ++i)
      match = file[i] == source[i] || (IsSeparator(file[i]) && IsSeparator(source[i]));
    if (!match) continue;
    // "/data/city" must not claim "/data/city2/x".
    const bool rootEndsInSeparator = IsSeparator(source[n - 1]);
    if (file.size() > n && !rootEndsInSeparator && !IsSeparator(file[n])) continue;
    std::wstring::size_type rest = n;
    while (rest < file.size() && IsSeparator(file[rest])) ++rest;
    out = File::ConcatPaths(cache, file.substr(rest));
    return true;
  }
  return false;
}

TileCacheFileUtil::CacheFolderUtil TileCacheFileUtil::CacheFolderUtil::DefaultRendererCachePaths(
    const std::wstring& appRoot, const std::wstring& cityRoot) {
  const std::wstring cacheRoot = File::ConcatPaths(cityRoot, L"RendererCache");
  CacheFolderUtil util;
  util.registerPaths(appRoot, File::ConcatPaths(cacheRoot, L"app"));
  util.registerPaths(cityRoot, File::ConcatPaths(cacheRoot, L"city"));
  return util;
}

bool TileCacheFileUtil::CacheFolderUtil::CacheFileUsable(const std::wstring& first, const std::wstring& second) {
  std::error_code ec;
  const auto a = FsPath(first), b = FsPath(second);
  if (!std::filesystem::exists(a, ec) || !std::filesystem::exists(b, ec)) return false;
  const auto ta = std::filesystem::last_write_time(a, ec);
  if (ec) return false;
  const auto tb = std::filesystem::last_write_time(b, ec);
  if (ec) return false;
  return ta <= tb;
}

}  // namespace kel
