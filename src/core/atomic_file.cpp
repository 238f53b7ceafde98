#include "kel/core/atomic_file.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <vector>

#include "kel/core/path.h"
#include "core/detail/atomic_file_testing.h"
#include "kel/core/text.h"
#include "kel/core/wexception.h"

namespace kel {
namespace {

constexpr std::size_t kBufferSize = 64 * 1024;
constexpr const char* kTempTag = ".kel-tmp-";

std::atomic<unsigned> g_counter{0};
std::atomic<bool> g_forceNamed{false};

std::wstring Failure(const char* what, const std::string& path, int error) {
  return Utf8String2WString(std::string(what) + " " + path + ": " + std::strerror(error));
}

// Callers that log the C runtime's error number find it in errno.
[[noreturn]] void Throw(const std::wstring& message, int error) {
  wexception e(message);
  errno = error;
  throw e;
}

// Writes everything or returns the errno that stopped it. A write that
// accepts nothing without an error is a full device by another name.
int WriteAll(int fd, const unsigned char* p, std::size_t n) {
  while (n) {
    const ssize_t done = ::write(fd, p, n);
    if (done < 0) {
      if (errno == EINTR) continue;
      return errno;
    }
    if (done == 0) return ENOSPC;
    p += done;
    n -= static_cast<std::size_t>(done);
  }
  return 0;
}

std::string FolderOf(const std::string& path) {
  const auto slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

std::string NameOf(const std::string& path) {
  const auto slash = path.rfind('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

// Removes "<name>.kel-tmp-<pid>-..." files of processes that no longer exist.
// A pid that was reused keeps its leftover until that process is gone too.
void RemoveLeftovers(const std::string& folder, const std::string& name) {
  DIR* dir = ::opendir(folder.c_str());
  if (!dir) return;
  const std::string prefix = name + kTempTag;
  const pid_t self = ::getpid();
  while (const dirent* entry = ::readdir(dir)) {
    const std::string_view entryName(entry->d_name);
    if (entryName.size() <= prefix.size() || entryName.compare(0, prefix.size(), prefix) != 0) continue;
    long pid = 0;
    std::size_t i = prefix.size();
    for (; i < entryName.size() && entryName[i] >= '0' && entryName[i] <= '9' && pid < (1L << 30); ++i)
      pid = pid * 10 + (entryName[i] - '0');
    if (i == prefix.size() || i == entryName.size() || entryName[i] != '-') continue;
    if (pid <= 0 || pid == self) continue;
    if (::kill(static_cast<pid_t>(pid), 0) == -1 && errno == ESRCH)
      ::unlinkat(::dirfd(dir), entry->d_name, 0);
  }
  ::closedir(dir);
}

// Unnamed temporaries need linkat through /proc to get a name at commit time.
bool CanLinkUnnamed() {
  static const bool can = ::access("/proc/self/fd", X_OK) == 0;
  return can && !g_forceNamed;
}

}  // namespace

void detail::ForceNamedTemporaries(bool on) { g_forceNamed = on; }

struct AtomicFile::State {
  std::string path;
  std::string tempPath;  // empty while the temporary is unnamed
  int fd = -1;
  std::vector<unsigned char> buffer;
  std::uint64_t size = 0;
  bool committed = false;
  std::wstring failure;  // set once a step failed; the object is then dead
  int failureErrno = 0;

  [[noreturn]] void fail(const char* what, int error) {
    failure = Failure(what, path, error);
    failureErrno = error;
    drop();
    Throw(failure, error);
  }

  void drop() noexcept {
    if (fd >= 0) ::close(fd);
    fd = -1;
    if (!tempPath.empty()) ::unlink(tempPath.c_str());
    tempPath.clear();
    buffer.clear();
    buffer.shrink_to_fit();
  }

  void checkUsable() const {
    if (!failure.empty()) Throw(failure, failureErrno);
    if (committed) Throw(Utf8String2WString("Already committed: " + path), EINVAL);
  }

  std::string nextTempName() const {
    return path + kTempTag + std::to_string(::getpid()) + "-" + std::to_string(g_counter++);
  }

  void flush() {
    if (buffer.empty()) return;
    if (const int error = WriteAll(fd, buffer.data(), buffer.size())) fail("Failed to write", error);
    buffer.clear();
  }
};

AtomicFile::AtomicFile(const std::wstring& path) : AtomicFile(File::NativePath(path)) {}

AtomicFile::AtomicFile(const std::string& utf8Path) : state_(std::make_unique<State>()) {
  State& s = *state_;
  s.path = utf8Path;
  const std::string folder = FolderOf(utf8Path);
  const std::string name = NameOf(utf8Path);
  if (name.empty() || name == "." || name == "..")
    Throw(Failure("Failed to create", utf8Path, EISDIR), EISDIR);
  RemoveLeftovers(folder, name);

  // Replacing a file keeps its permissions; a new one gets what fopen gives.
  struct stat old {};
  const bool replacing = ::stat(utf8Path.c_str(), &old) == 0;
  if (replacing && S_ISDIR(old.st_mode)) Throw(Failure("Failed to create", utf8Path, EISDIR), EISDIR);

#ifdef O_TMPFILE
  if (CanLinkUnnamed()) s.fd = ::open(folder.c_str(), O_TMPFILE | O_WRONLY | O_CLOEXEC, 0666);
#endif
  if (s.fd < 0) {
    for (int attempt = 0; attempt < 100 && s.fd < 0; ++attempt) {
      s.tempPath = s.nextTempName();
      s.fd = ::open(s.tempPath.c_str(), O_CREAT | O_EXCL | O_WRONLY | O_CLOEXEC, 0666);
      if (s.fd < 0 && errno != EEXIST) break;
    }
    if (s.fd < 0) {
      const int error = errno;
      s.tempPath.clear();
      Throw(Failure("Failed to create", utf8Path, error), error);
    }
  }
  if (replacing && S_ISREG(old.st_mode)) ::fchmod(s.fd, old.st_mode & 07777);
}

AtomicFile::~AtomicFile() {
  if (state_) state_->drop();
}

AtomicFile::AtomicFile(AtomicFile&& other) noexcept = default;

AtomicFile& AtomicFile::operator=(AtomicFile&& other) noexcept {
  if (this != &other) {
    if (state_) state_->drop();
    state_ = std::move(other.state_);
  }
  return *this;
}

void AtomicFile::write(const void* data, std::size_t size) {
  State& s = *state_;
  s.checkUsable();
  if (!size) return;
  const auto* p = static_cast<const unsigned char*>(data);
  if (s.buffer.size() + size > kBufferSize) {
    s.flush();
    if (size >= kBufferSize) {
      if (const int error = WriteAll(s.fd, p, size)) s.fail("Failed to write", error);
      s.size += size;
      return;
    }
  }
  if (s.buffer.capacity() < kBufferSize) s.buffer.reserve(kBufferSize);
  s.buffer.insert(s.buffer.end(), p, p + size);
  s.size += size;
}

void AtomicFile::commit(Sync sync) {
  State& s = *state_;
  s.checkUsable();
  s.flush();
  if (sync == Sync::Synced && ::fsync(s.fd) != 0) s.fail("Failed to write", errno);
  if (s.tempPath.empty()) {
    // Give the unnamed temporary a name beside the target; rename() then
    // replaces the target in one step, which linkat() cannot do.
    const std::string self = "/proc/self/fd/" + std::to_string(s.fd);
    for (int attempt = 0; attempt < 100; ++attempt) {
      s.tempPath = s.nextTempName();
      if (::linkat(AT_FDCWD, self.c_str(), AT_FDCWD, s.tempPath.c_str(), AT_SYMLINK_FOLLOW) == 0) break;
      const int error = errno;
      s.tempPath.clear();
      if (error != EEXIST) s.fail("Failed to write", error);
    }
    if (s.tempPath.empty()) s.fail("Failed to write", EEXIST);
  }
  const int fd = s.fd;
  s.fd = -1;
  if (::close(fd) != 0) s.fail("Failed to write", errno);
  if (::rename(s.tempPath.c_str(), s.path.c_str()) != 0) s.fail("Failed to replace", errno);
  s.tempPath.clear();
  s.committed = true;
  s.buffer.clear();
  s.buffer.shrink_to_fit();
}

void AtomicFile::discard() noexcept {
  if (!state_) return;
  state_->drop();
  if (!state_->committed && state_->failure.empty()) {
    try {
      state_->failure = Utf8String2WString("Discarded: " + state_->path);
      state_->failureErrno = ECANCELED;
    } catch (...) {
      state_->failure = L"Discarded";
    }
  }
}

const std::string& AtomicFile::path() const { return state_->path; }
std::uint64_t AtomicFile::size() const { return state_->size; }
bool AtomicFile::committed() const { return state_->committed; }

std::string AtomicFile::TemporaryPrefix(const std::string& utf8Path) { return utf8Path + kTempTag; }

}  // namespace kel
