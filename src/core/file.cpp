#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <system_error>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "kel/core/atomic_file.h"
#include "kel/core/log.h"
#include "kel/core/path.h"
#include "kel/core/text.h"
#include "kel/core/wexception.h"

namespace kel {
namespace {

void LogFailure(const wchar_t* what, const std::wstring& path, const std::string& reason) {
  KEL_LOG_ERROR(std::wstring(L"Failed to ") + what + L" " + path + L": " + Utf8String2WString(reason));
}

}  // namespace

bool File::Exists(const std::wstring& path) {
  struct stat st;
  return !path.empty() && lstat(NativePath(path).c_str(), &st) == 0;
}

bool File::IsDirectory(const std::wstring& path) {
  struct stat st;
  return !path.empty() && stat(NativePath(path).c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

std::int64_t File::Size(const std::wstring& path) {
  struct stat st;
  if (path.empty() || stat(NativePath(path).c_str(), &st) != 0 || !S_ISREG(st.st_mode)) return -1;
  return static_cast<std::int64_t>(st.st_size);
}

int File::ReadAllOrError(const std::wstring& path, std::string& bytes) {
  const int fd = open(NativePath(path).c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return errno;
  std::string data;
  struct stat st;
  if (fstat(fd, &st) == 0 && S_ISREG(st.st_mode)) data.reserve(static_cast<std::size_t>(st.st_size));
  char buffer[1 << 16];
  while (true) {
    const ssize_t n = read(fd, buffer, sizeof buffer);
    if (n == 0) break;
    if (n < 0) {
      if (errno == EINTR) continue;
      const int error = errno;
      close(fd);
      return error;
    }
    data.append(buffer, static_cast<std::size_t>(n));
  }
  close(fd);
  bytes = std::move(data);
  return 0;
}

bool File::ReadAll(const std::wstring& path, std::string& bytes) {
  const int error = ReadAllOrError(path, bytes);
  if (error != 0) LogFailure(L"read", path, std::strerror(error));
  return error == 0;
}

bool File::WriteAll(const std::wstring& path, std::string_view bytes) {
  try {
    AtomicFile out(path);
    out.write(bytes);
    out.commit();
    return true;
  } catch (const wexception& e) {
    KEL_LOG_ERROR(e.message());  // AtomicFile names the path and the reason
    return false;
  }
}

bool File::CreateDirectories(const std::wstring& path) {
  std::error_code ec;
  std::filesystem::create_directories(NativePath(path), ec);
  if (IsDirectory(path)) return true;
  LogFailure(L"create folder", path, ec ? ec.message() : "a file of that name is in the way");
  return false;
}

bool File::Remove(const std::wstring& path) {
  if (!Exists(path)) return true;
  if (std::remove(NativePath(path).c_str()) == 0) return true;
  LogFailure(L"remove", path, std::strerror(errno));
  return false;
}

}  // namespace kel
