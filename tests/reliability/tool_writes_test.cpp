// What the kel tool leaves on disk when its writes fail or it is killed: the
// old output byte for byte and no temporary, whatever the command. The tool
// runs as a child process with a file size limit (a full disk) or is
// stopped while it writes and killed with SIGKILL.
#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstdint>
#include <fstream>
#include <string_view>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "kel/core/text.h"
#include "kel/sff/sff_file_stream.h"
#include "kel/sff/sff_writer.h"
#include "support/peers.h"
#include "support/scratch.h"

namespace kel {
namespace {

using test::Leftovers;
using test::ReadBytes;
using test::ScratchDir;
using test::WriteBytes;

struct Outcome {
  int status = -1;  // raw waitpid status
  std::string err;
  bool exited(int code) const { return WIFEXITED(status) && WEXITSTATUS(status) == code; }
};

// The tool under test; KEL_TOOL in the environment points the suite at
// another build (an older one, to see what it left behind).
std::string Tool() {
  const char* other = std::getenv("KEL_TOOL");
  return other && *other ? other : KEL_TOOL;
}

// Starts kel with `args`; its stderr goes to `errFd`. A file size limit
// applies to files only, so stderr as a pipe still carries the message.
pid_t Spawn(const std::vector<std::string>& args, int errFd, rlim_t fileLimit) {
  const pid_t pid = ::fork();
  if (pid != 0) return pid;
  const int out = ::open("/dev/null", O_WRONLY);
  ::dup2(out, 1);
  ::dup2(errFd, 2);
  if (fileLimit != RLIM_INFINITY) {
    rlimit limit{fileLimit, fileLimit};
    ::setrlimit(RLIMIT_FSIZE, &limit);
  }
  std::vector<char*> argv;
  static std::string tool = Tool();
  argv.push_back(tool.data());
  for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
  argv.push_back(nullptr);
  ::execv(tool.c_str(), argv.data());
  ::_exit(127);
}

Outcome RunKel(const std::vector<std::string>& args, rlim_t fileLimit = RLIM_INFINITY) {
  int fds[2];
  if (::pipe(fds) != 0) return {};
  const pid_t pid = Spawn(args, fds[1], fileLimit);
  ::close(fds[1]);
  Outcome o;
  char buf[4096];
  for (ssize_t n; (n = ::read(fds[0], buf, sizeof buf)) > 0;) o.err.append(buf, static_cast<std::size_t>(n));
  ::close(fds[0]);
  ::waitpid(pid, &o.status, 0);
  return o;
}

// Bytes the process has written so far (all files and pipes), from /proc.
std::uint64_t Written(pid_t pid) {
  std::ifstream io("/proc/" + std::to_string(pid) + "/io");
  std::string key;
  std::uint64_t value = 0;
  while (io >> key >> value)
    if (key == "wchar:") return value;
  return 0;
}

// Starts kel, stops it once it has written `bytes`, then kills it with
// SIGKILL. True when it was caught mid-write (not finished before).
bool KillWhileWriting(const std::vector<std::string>& args, std::uint64_t bytes) {
  const int devNull = ::open("/dev/null", O_WRONLY);
  const pid_t pid = Spawn(args, devNull, RLIM_INFINITY);
  ::close(devNull);
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  int status = 0;
  while (std::chrono::steady_clock::now() < deadline) {
    if (Written(pid) >= bytes) {
      ::kill(pid, SIGSTOP);
      break;
    }
    if (::waitpid(pid, &status, WNOHANG) == pid) return false;  // finished first
    std::this_thread::sleep_for(std::chrono::microseconds(200));
  }
  ::kill(pid, SIGKILL);
  ::waitpid(pid, &status, 0);
  return WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL;
}

// A plain tile of `vertices` random positions in `meshes` meshes.
void WriteTile(const std::string& path, std::size_t vertices, bool compress, int meshes = 1) {
  std::mt19937 rng(11);
  std::vector<float> xyz(3 * vertices);
  for (auto& f : xyz) f = static_cast<float>(rng() % 100000) * 0.01f;
  std::vector<std::uint32_t> idx(vertices);
  for (std::size_t i = 0; i < idx.size(); ++i) idx[i] = static_cast<std::uint32_t>(i);
  sff_file_os out(path.c_str());
  {
    sff_writer w(out, compress, 1);
    w.beginAt();
    for (int m = 0; m < meshes; ++m) {
      w.beginC(static_cast<std::uint64_t>(m + 1));
      w.writePositions(xyz.data(), vertices);
      // Odd meshes carry their indices as a block of 4-byte elements: no index array.
      if (m % 2) w.writeArray4(idx.data(), idx.size());
      else w.writeIntegers(idx.data(), idx.size());
      w.end();
    }
    w.end();
  }
  out.commit();
}

class ToolWrites : public ::testing::Test {
protected:
  static void SetUpTestSuite() {
    shared_ = new ScratchDir("kel_tool_inputs");
    WriteTile(*shared_ / "big.sff", 1'500'000, false);   // 18 MB of positions
    WriteTile(*shared_ / "big_z.sff", 1'500'000, true);  // the same, compressed
  }
  static void TearDownTestSuite() {
    delete shared_;
    shared_ = nullptr;
  }
  void SetUp() override {
    if (::access(Tool().c_str(), X_OK) != 0) GTEST_SKIP() << "kel tool not built";
    test::fs::copy_file(*shared_ / "big.sff", dir_ / "big.sff");
    test::fs::copy_file(*shared_ / "big_z.sff", dir_ / "big_z.sff");
  }
  static ScratchDir* shared_;
  ScratchDir dir_{"kel_tool_writes"};
};
ScratchDir* ToolWrites::shared_ = nullptr;

// A full disk (here a file size limit) fails the command with a message and
// keeps what OUT held.
TEST_F(ToolWrites, AFullDiskFailsTheCommandAndKeepsTheOldOutput) {
  const std::string old = "previous output";
  if (test::HaveProgram(test::Convert())) {
    ASSERT_EQ(test::Run(test::Convert() + " -size 512x512 plasma:fractal -seed 4 -depth 8 " + test::Quote(dir_ / "in.png")), 0);
  }
  struct Case {
    const char* label;
    std::vector<std::string> args;
    rlim_t limit;
    const char* error;
  } cases[] = {
      {"sff unpack", {"sff", "unpack", dir_ / "big_z.sff", dir_ / "out.sff"}, 1 << 20, "Failed to write SFF file."},
      {"sff pack", {"sff", "pack", dir_ / "big.sff", dir_ / "out.sff"}, 1 << 20, "Failed to write SFF file."},
      {"cache empty-sff", {"cache", "empty-sff", dir_ / "out.sff"}, 4, "cannot create"},
      {"texture convert to dds", {"texture", "convert", dir_ / "in.png", dir_ / "out.dds", "--format", "rgba"}, 100000,
       "Failed to save DDS file"},
      {"texture convert to png", {"texture", "convert", dir_ / "in.png", dir_ / "out.png"}, 100000, "File too large"},
  };
  for (const auto& c : cases) {
    if (c.args[0] == "texture" && !test::fs::exists(dir_ / "in.png")) continue;
    const std::string target = c.args[3 - (c.args[0] == "cache")];
    WriteBytes(target, old);
    const Outcome o = RunKel(c.args, c.limit);
    EXPECT_TRUE(o.exited(1)) << c.label << ": " << o.err;
    EXPECT_NE(o.err.find(c.error), std::string::npos) << c.label << ": " << o.err;
    EXPECT_EQ(ReadBytes(target), old) << c.label;
    EXPECT_TRUE(Leftovers(dir_.path()).empty()) << c.label;
  }
}

// Killed mid-write, each command leaves the old output byte for byte, and no
// temporary stays behind.
TEST_F(ToolWrites, KillNineMidWriteKeepsTheOldOutput) {
  if (test::HaveProgram(test::Convert())) {
    ASSERT_EQ(test::Run(test::Convert() + " -size 1000x1000 plasma:fractal -seed 5 -depth 8 " + test::Quote(dir_ / "in.png")), 0);
  }
  struct Case {
    const char* label;
    std::vector<std::string> args;
  } cases[] = {
      {"sff pack", {"sff", "pack", dir_ / "big.sff", dir_ / "out.sff", "--level", "1"}},
      {"sff unpack", {"sff", "unpack", dir_ / "big_z.sff", dir_ / "out.sff"}},
      {"texture convert to dds", {"texture", "convert", dir_ / "in.png", dir_ / "out.dds", "--format", "rgba", "--mipmaps"}},
      {"texture convert to png", {"texture", "convert", dir_ / "in.png", dir_ / "out.png"}},
  };
  for (const auto& c : cases) {
    if (c.args[0] == "texture" && !test::fs::exists(dir_ / "in.png")) continue;
    const std::string target = c.args[3];
    // A previous good output, made by the command itself.
    ASSERT_TRUE(RunKel(c.args).exited(0)) << c.label;
    const std::string before = ReadBytes(target);
    ASSERT_GT(before.size(), 1u << 20) << c.label;
    EXPECT_TRUE(KillWhileWriting(c.args, 256 << 10)) << c.label << ": finished before it could be killed";
    EXPECT_EQ(ReadBytes(target), before) << c.label;
    EXPECT_TRUE(Leftovers(dir_.path()).empty()) << c.label;
  }
}

TEST_F(ToolWrites, ACutInputLeavesTheOldOutput) {
  const std::string whole = ReadBytes(dir_ / "big_z.sff");
  WriteBytes(dir_ / "cut_z.sff", whole.substr(0, whole.size() / 2));
  WriteBytes(dir_ / "out.sff", "previous output");
  for (const char* command : {"unpack", "pack"}) {
    const Outcome o = RunKel({"sff", command, dir_ / "cut_z.sff", dir_ / "out.sff"});
    EXPECT_TRUE(o.exited(1)) << command << ": " << o.err;
    EXPECT_NE(o.err.find("Inflate error."), std::string::npos) << o.err;
    EXPECT_EQ(ReadBytes(dir_ / "out.sff"), "previous output");
  }
}

TEST_F(ToolWrites, DumpSummaryNamesMeshesWithoutAnIndexArray) {
  WriteTile(dir_ / "meshes.sff", 30, false, 4);
  const std::string out = dir_ / "summary.txt";
  ASSERT_EQ(test::Run(Tool() + " sff dump --summary " + test::Quote(dir_ / "meshes.sff") + " > " +
                      test::Quote(out)),
            0);
  const std::string summary = ReadBytes(out);
  EXPECT_NE(summary.find("without an index array (integers, tag 41 / type 19): 2"), std::string::npos) << summary;
  EXPECT_NE(summary.find("2 of them carry a block of 4-byte elements"), std::string::npos) << summary;
  EXPECT_NE(summary.find("C id 2: 30 vertices, array4"), std::string::npos) << summary;
  EXPECT_NE(summary.find("C id 4: 30 vertices, array4"), std::string::npos) << summary;
}

}  // namespace
}  // namespace kel
