// Finding the files a model refers to: a relative path is tried under the
// model's folder, then under each search folder in turn. Backslashes from
// models written on Windows count as separators. Reads the file system only
// to test existence; one object per thread.
#pragma once

#include <string>
#include <vector>

#include "kel/export.h"

namespace kel {

class KEL_API PathResolver {
public:
  PathResolver() = default;
  explicit PathResolver(const std::wstring& modelFolder) { setModelFolder(modelFolder); }

  void setModelFolder(const std::wstring& folder) { modelFolder_ = Normalize(folder); }
  const std::wstring& modelFolder() const { return modelFolder_; }
  // Searched in the order added, after the model folder; a relative search
  // folder lies under the model folder.
  void addSearchPath(const std::wstring& folder);
  const std::vector<std::wstring>& searchPaths() const { return searchPaths_; }
  void clearSearchPaths() { searchPaths_.clear(); }

  // The first existing candidate, normalised; empty when none exists. An
  // absolute path is its own only candidate.
  std::wstring resolve(const std::wstring& path) const;
  // The path under the model folder (an absolute one as it is), normalised,
  // whether it exists or not.
  std::wstring absolute(const std::wstring& path) const;
  // Relative to the model folder when it lies inside it, else absolute.
  std::wstring relative(const std::wstring& path) const;

  // "/" separators, no "." pieces, "x/.." folded away, no doubled or
  // trailing "/". A relative path keeps leading ".." it cannot fold.
  static std::wstring Normalize(const std::wstring& path);
  static bool IsAbsolute(const std::wstring& path);

private:
  std::wstring modelFolder_;
  std::vector<std::wstring> searchPaths_;
};

}  // namespace kel
