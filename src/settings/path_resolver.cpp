#include "kel/settings/path_resolver.h"

#include "kel/core/path.h"
#include "kel/settings/string_utils.h"

namespace kel {

bool PathResolver::IsAbsolute(const std::wstring& path) {
  return !path.empty() && (path[0] == L'/' || path[0] == L'\\');
}

std::wstring PathResolver::Normalize(const std::wstring& path) {
  std::wstring slashed = path;
  for (wchar_t& c : slashed)
    if (c == L'\\') c = L'/';
  const bool absolute = IsAbsolute(slashed);
  std::vector<std::wstring> kept;
  for (std::wstring& piece : StringUtils::Split(slashed, L'/', true)) {
    if (piece == L".") continue;
    if (piece == L"..") {
      if (!kept.empty() && kept.back() != L"..") {
        kept.pop_back();
        continue;
      }
      if (absolute) continue;  // "/.." is "/"
    }
    kept.push_back(std::move(piece));
  }
  const std::wstring joined = StringUtils::Join(kept, L"/");
  if (absolute) return L"/" + joined;
  return joined.empty() && !path.empty() ? L"." : joined;
}

void PathResolver::addSearchPath(const std::wstring& folder) { searchPaths_.push_back(Normalize(folder)); }

std::wstring PathResolver::absolute(const std::wstring& path) const {
  if (IsAbsolute(path) || modelFolder_.empty()) return Normalize(path);
  return Normalize(File::ConcatPaths(modelFolder_, path));
}

std::wstring PathResolver::resolve(const std::wstring& path) const {
  if (path.empty()) return L"";
  std::vector<std::wstring> candidates{absolute(path)};
  if (!IsAbsolute(path))
    for (const std::wstring& folder : searchPaths_)
      candidates.push_back(Normalize(File::ConcatPaths(absolute(folder), path)));
  for (const std::wstring& c : candidates)
    if (File::Exists(c)) return c;
  return L"";
}

std::wstring PathResolver::relative(const std::wstring& path) const {
  const std::wstring full = absolute(path);
  if (modelFolder_.empty()) return full;
  const std::wstring base = absolute(L".");
  if (full == base) return L".";
  const std::wstring prefix = base == L"/" ? base : base + L"/";
  return StringUtils::StartsWith(full, prefix) ? full.substr(prefix.size()) : full;
}

}  // namespace kel
