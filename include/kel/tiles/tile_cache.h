// Where cached tile artefacts live on disk and what they are called: tile SFF
// files under per-level and per-row folders, shared texture atlases and
// terrain impostor textures; plus the two placeholder tile files (null: zero
// bytes, "computed, holds nothing"; empty: a valid SFF file with one empty
// node) and the mapping of source folders to cache folders.
//
// Name builders are pure string work and never fail. Generated names use
// '/' separators. The file functions take wide paths (UTF-8 on disk) and
// report failure by their result, never by exception.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "kel/export.h"
#include "kel/tiles/tile_coords.h"

namespace kel {

class KEL_API TileCacheFileUtil final {
public:
  TileCacheFileUtil() = delete;

  enum SffFileState {
    SffMissing = 0,    // does not exist or cannot be opened
    SffUnchecked = 1,  // never returned by GetSffFileState
    SffNull = 2,       // exists and is empty: a null tile
    SffPresent = 3,    // exists and has at least one byte (not validated)
  };

  // The level in decimal; `separator` is not used.
  static std::wstring GetLevelName(const TileCoords& tile, wchar_t separator);
  // "<level><sep><row>".
  static void GetLevelRowName(std::wstring& out, const TileCoords& tile, wchar_t separator);
  // "<level><sep><row><sep><column>".
  static void GetLevelRowColumnName(std::wstring& out, const TileCoords& tile, wchar_t separator);
  // "<root>/<level>/<row>".
  static std::wstring GetTileFolder(const std::wstring& root, const TileCoords& tile);
  // "<root>/<level>/<row>/<name>_<level>_<row>_<column>.sff", cut to 259
  // characters (a 260-character buffer with its terminator).
  static void GetTileFile(std::wstring& out, const std::wstring& root, const std::wstring& name,
                          const TileCoords& tile);

  // "atlasInfo.xml".
  static std::wstring GetAtlasInfoFileName();
  // "__atlasImage__<index>.dds".
  static std::wstring GetSharedAtlasFileName(unsigned int index);
  // "terrain_impostor_texture_<level>_<row>_<column>.dds".
  static std::wstring GetTerrainLODImpostorTextureFile(const TileCoords& tile);
  // "SharedResources/".
  static std::wstring GetCitySharedResourceFolder();
  // "SharedResources/Facades/".
  static std::wstring GetAtlasFolderName();
  // "SharedResources/Colors/".
  static std::wstring GetColorTexFolderName();
  // second / "SharedResources/Facades/" / first / "atlasInfo.xml".
  static void GetAtlasInfoFile(std::wstring& out, const std::wstring& first, const std::wstring& second);

  // Looks at the first byte only: a corrupt non-empty file is SffPresent.
  static SffFileState GetSffFileState(const wchar_t* path);
  // Creates or truncates `path` to zero bytes. Logs and returns false on failure.
  static bool CreateNullSff(const wchar_t* path);
  // Writes the 9-byte SFF file "SFF0" + open '@' node 0 + close. False when
  // the file cannot be created.
  static bool CreateEmptySff(const wchar_t* path);

  // Maps files under registered source roots to the same relative path under
  // cache roots. A root matches a file when the file continues the root at a
  // separator; '/' and '\\' count as the same, letter case counts (POSIX
  // file names are case-sensitive), a trailing separator on a root is ignored.
  class KEL_API CacheFolderUtil {
  public:
    // Appends a pair; earlier pairs win.
    void registerPaths(const std::wstring& sourceRoot, const std::wstring& cacheRoot);
    // The cache path of `file` under the first matching root; false (and `out`
    // unchanged) when no root matches.
    bool getCacheFile(std::wstring& out, const std::wstring& file) const;
    const std::vector<std::pair<std::wstring, std::wstring>>& paths() const { return paths_; }

    // appRoot -> cityRoot/RendererCache/app, then
    // cityRoot -> cityRoot/RendererCache/city.
    static CacheFolderUtil DefaultRendererCachePaths(const std::wstring& appRoot, const std::wstring& cityRoot);
    // Both files exist and the first was last written no later than the second.
    static bool CacheFileUsable(const std::wstring& first, const std::wstring& second);

  private:
    std::vector<std::pair<std::wstring, std::wstring>> paths_;
  };
};

}  // namespace kel
