// Running the other programs that tests compare against (ImageMagick's
// convert, nvcompress, nvdecompress, the kel tool): a shell command and its
// exit status, and whether a program is installed at all.
#pragma once

#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

namespace kel::test {

// Runs `command` through the shell; its exit status (-1 when it could not run
// or was killed).
inline int Run(const std::string& command) {
  const int status = std::system(command.c_str());
  if (status == -1 || !WIFEXITED(status)) return -1;
  return WEXITSTATUS(status);
}

inline bool HaveProgram(const std::string& name) { return Run("command -v " + name + " >/dev/null 2>&1") == 0; }

// ImageMagick's convert. The installed binary is called directly: a wrapper
// earlier on PATH may cost far more per call than the conversion itself.
inline std::string Convert() { return ::access("/usr/bin/convert", X_OK) == 0 ? "/usr/bin/convert" : "convert"; }

// Single quotes for the shell.
inline std::string Quote(const std::string& s) {
  std::string out = "'";
  for (char c : s) out += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return out + "'";
}

}  // namespace kel::test
