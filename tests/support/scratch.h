// Scratch folders and file helpers for tests that write real files: a fresh
// folder per fixture, whole-file reads and writes, the temporaries a folder
// still holds, and a file size limit that makes the next write fail the way a
// full disk does.
#pragma once

#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace kel::test {

namespace fs = std::filesystem;

// A new empty folder under the system's temporary folder, removed with
// everything in it on destruction.
class ScratchDir {
public:
  explicit ScratchDir(const std::string& label = "kel") {
    static std::atomic<int> counter{0};
    path_ = fs::temp_directory_path() /
            (label + "_" + std::to_string(::getpid()) + "_" + std::to_string(counter++));
    fs::remove_all(path_);
    fs::create_directories(path_);
  }
  ~ScratchDir() {
    std::error_code ignored;
    fs::remove_all(path_, ignored);
  }
  ScratchDir(const ScratchDir&) = delete;
  ScratchDir& operator=(const ScratchDir&) = delete;

  const fs::path& path() const { return path_; }
  std::string operator/(const std::string& name) const { return (path_ / name).string(); }

private:
  fs::path path_;
};

inline std::string ReadBytes(const fs::path& p) {
  std::ifstream f(p, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(f), {});
}

inline void WriteBytes(const fs::path& p, const std::string& bytes) {
  std::ofstream f(p, std::ios::binary | std::ios::trunc);
  f.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

// Names in `dir` that look like an unfinished atomic write.
inline std::vector<std::string> Leftovers(const fs::path& dir) {
  std::vector<std::string> out;
  for (const auto& e : fs::directory_iterator(dir)) {
    const std::string name = e.path().filename().string();
    if (name.find(".kel-tmp-") != std::string::npos) out.push_back(name);
  }
  return out;
}

// While alive, files of this process cannot grow past `bytes`: writes beyond
// fail with EFBIG (SIGXFSZ is ignored), as on a full disk.
class FileSizeLimit {
public:
  explicit FileSizeLimit(rlim_t bytes) {
    ::getrlimit(RLIMIT_FSIZE, &saved_);
    oldHandler_ = ::signal(SIGXFSZ, SIG_IGN);
    rlimit limit = saved_;
    limit.rlim_cur = bytes;
    ::setrlimit(RLIMIT_FSIZE, &limit);
  }
  ~FileSizeLimit() {
    ::setrlimit(RLIMIT_FSIZE, &saved_);
    ::signal(SIGXFSZ, oldHandler_);
  }
  FileSizeLimit(const FileSizeLimit&) = delete;
  FileSizeLimit& operator=(const FileSizeLimit&) = delete;

private:
  rlimit saved_{};
  sighandler_t oldHandler_{};
};

}  // namespace kel::test
