// A scratch directory for tests that make files, removed with its content,
// and a look at which deleted files this process still holds open.
#pragma once

#include <dirent.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

namespace kel::test {

class TempDir {
public:
  TempDir() {
    std::string name = (std::filesystem::temp_directory_path() / "kel-test-XXXXXX").string();
    path_ = mkdtemp(name.data()) ? name : std::string();
  }
  ~TempDir() {
    std::error_code ec;
    std::filesystem::remove_all(path_, ec);
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::string& path() const { return path_; }
  std::wstring wpath() const { return std::wstring(path_.begin(), path_.end()); }
  std::vector<std::string> entries() const {
    std::vector<std::string> out;
    for (const auto& e : std::filesystem::directory_iterator(path_)) out.push_back(e.path().filename().string());
    return out;
  }

private:
  std::string path_;
};

// Whether this process holds a descriptor on `target` (an unlinked file
// reads "<path> (deleted)").
inline bool HoldsOpen(const std::string& target) {
  for (const auto& e : std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code ec;
    if (std::filesystem::read_symlink(e.path(), ec).string() == target && !ec) return true;
  }
  return false;
}

}  // namespace kel::test
