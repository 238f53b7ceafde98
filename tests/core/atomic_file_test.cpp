#include "kel/core/atomic_file.h"

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <functional>
#include <random>
#include <string>

#include <gtest/gtest.h>

#include "core/detail/atomic_file_testing.h"
#include "kel/core/text.h"
#include "support/error_of.h"
#include "support/scratch.h"

namespace kel {
namespace {

using test::ErrorOf;
using test::Leftovers;
using test::ReadBytes;
using test::ScratchDir;
using test::WriteBytes;

std::string RandomBytes(std::size_t n, unsigned seed) {
  std::mt19937 rng(seed);
  std::string out(n, '\0');
  for (auto& c : out) c = static_cast<char>(rng());
  return out;
}

// Writes `bytes` in seeded random pieces, so buffer seams fall everywhere.
void WriteInPieces(AtomicFile& out, const std::string& bytes, unsigned seed) {
  std::mt19937 rng(seed);
  std::size_t at = 0;
  while (at < bytes.size()) {
    const std::size_t piece = std::min<std::size_t>(bytes.size() - at, rng() % 3 ? rng() % 300 : rng() % 200000);
    out.write(bytes.data() + at, piece);
    at += piece;
  }
}

// Every test runs with unnamed temporaries and with the named ones that
// other file systems get.
class AtomicFileTest : public ::testing::TestWithParam<bool> {
protected:
  void SetUp() override { detail::ForceNamedTemporaries(GetParam()); }
  void TearDown() override { detail::ForceNamedTemporaries(false); }
};

TEST_P(AtomicFileTest, CommitReplacesTheTargetWithExactlyTheBytesWritten) {
  ScratchDir dir;
  const std::string target = dir / "out.bin";
  for (const auto sync : {AtomicFile::Sync::Synced, AtomicFile::Sync::Unsynced})
    for (std::size_t size : {0u, 1u, 65535u, 65536u, 65537u, 300001u}) {
      SCOPED_TRACE(sync == AtomicFile::Sync::Synced ? "synced" : "unsynced");
      WriteBytes(target, "previous content");
      const std::string bytes = RandomBytes(size, static_cast<unsigned>(size));
      AtomicFile out(target);
      WriteInPieces(out, bytes, static_cast<unsigned>(size) + 1);
      EXPECT_EQ(ReadBytes(target), "previous content") << "visible before commit, size " << size;
      out.commit(sync);
      EXPECT_EQ(out.size(), size);
      EXPECT_EQ(ReadBytes(target), bytes) << size;
      EXPECT_TRUE(Leftovers(dir.path()).empty()) << size;
    }
}

TEST_P(AtomicFileTest, AbandonedWritesLeaveTheOldFileAndNoTemporary) {
  const std::string big = RandomBytes(200000, 3);
  struct Case {
    const char* label;
    bool existed;
    std::function<void(const std::string&)> abandon;
  } cases[] = {
      {"destroyed without commit", true, [&](const std::string& t) { AtomicFile(t).write(big); }},
      {"discarded", true,
       [&](const std::string& t) {
         AtomicFile out(t);
         out.write(big);
         out.discard();
         EXPECT_NE(ErrorOf([&] { out.commit(); }), L"");
       }},
      {"exception unwinding", true,
       [&](const std::string& t) {
         try {
           AtomicFile out(t);
           out.write(big);
           throw 1;
         } catch (int) {
         }
       }},
      {"new target never committed", false, [&](const std::string& t) { AtomicFile(t).write(big); }},
  };
  for (const auto& c : cases) {
    ScratchDir dir;
    const std::string target = dir / "keep.bin";
    if (c.existed) WriteBytes(target, "old");
    c.abandon(target);
    if (c.existed)
      EXPECT_EQ(ReadBytes(target), "old") << c.label;
    else
      EXPECT_FALSE(test::fs::exists(target)) << c.label;
    EXPECT_TRUE(Leftovers(dir.path()).empty()) << c.label;
  }
}

TEST_P(AtomicFileTest, AFullDiskFailsTheWriteOrCommitAndKeepsTheOldFile) {
  ScratchDir dir;
  const std::string target = dir / "full.bin";
  WriteBytes(target, "old");
  // Small payloads fail only at commit (they sit in the buffer), big ones at write.
  for (std::size_t size : {5000u, 1000000u}) {
    std::wstring error;
    {
      test::FileSizeLimit limit(4096);
      AtomicFile out(target);
      error = ErrorOf([&] {
        out.write(RandomBytes(size, 9));
        out.commit();
      });
      EXPECT_NE(ErrorOf([&] { out.commit(); }), L"") << "a failed file cannot commit later";
    }
    EXPECT_EQ(error, Utf8String2WString("Failed to write " + target + ": File too large")) << size;
    EXPECT_EQ(ReadBytes(target), "old");
    EXPECT_TRUE(Leftovers(dir.path()).empty());
  }
}

TEST_P(AtomicFileTest, AKilledWriterLeavesTheOldFileAndTheNextWriterFindsNoLeftover) {
  ScratchDir dir;
  const std::string target = dir / "killed.bin";
  WriteBytes(target, "old");
  const pid_t child = ::fork();
  if (child == 0) {
    AtomicFile out(target);
    out.write(RandomBytes(1 << 20, 5));
    ::raise(SIGKILL);
  }
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFSIGNALED(status));
  EXPECT_EQ(ReadBytes(target), "old");
  { AtomicFile next(target); }
  EXPECT_TRUE(Leftovers(dir.path()).empty());
}

TEST_P(AtomicFileTest, RemovesNamedLeftoversOfDeadProcessesOnly) {
  ScratchDir dir;
  const std::string target = dir / "t.sff";
  const pid_t dead = ::fork();
  if (dead == 0) ::_exit(0);
  ::waitpid(dead, nullptr, 0);
  const std::string prefix = AtomicFile::TemporaryPrefix(target);
  const std::string deadOne = prefix + std::to_string(dead) + "-0";
  const std::string alive = prefix + std::to_string(::getppid()) + "-0";
  const std::string mine = prefix + std::to_string(::getpid()) + "-77";
  const std::string other = (dir / "u.sff") + ".kel-tmp-" + std::to_string(dead) + "-0";
  const std::string unparsable = prefix + "x";
  for (const auto& p : {deadOne, alive, mine, other, unparsable}) WriteBytes(p, "x");
  AtomicFile out(target);
  EXPECT_FALSE(test::fs::exists(deadOne));
  for (const auto& p : {alive, mine, other, unparsable}) EXPECT_TRUE(test::fs::exists(p)) << p;
}

TEST_P(AtomicFileTest, KeepsTheModeOfTheFileItReplaces) {
  ScratchDir dir;
  const std::string target = dir / "mode.bin";
  WriteBytes(target, "old");
  ::chmod(target.c_str(), 0640);
  AtomicFile out(target);
  out.write("new");
  out.commit();
  struct stat st {};
  ASSERT_EQ(::stat(target.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0640u);
}

TEST_P(AtomicFileTest, WidePathsAreWrittenUnderTheirUtf8Name) {
  ScratchDir dir;
  const std::string utf8 = dir / "t\xC3\xA8st_\xE6\x97\xA5.bin";
  AtomicFile out(Utf8String2WString(utf8));
  out.write("abc");
  out.commit();
  EXPECT_EQ(ReadBytes(utf8), "abc");
  EXPECT_EQ(out.path(), utf8);
}

TEST_P(AtomicFileTest, RefusesTargetsItCannotCreate) {
  ScratchDir dir;
  const std::string missing = dir / "no_such_dir/x.bin";
  EXPECT_EQ(ErrorOf([&] { AtomicFile f(missing); }),
            Utf8String2WString("Failed to create " + missing + ": No such file or directory"));
  EXPECT_NE(ErrorOf([&] { AtomicFile f(dir.path().string()); }), L"") << "a folder";
  EXPECT_NE(ErrorOf([&] { AtomicFile f(dir.path().string() + "/"); }), L"") << "no file name";
}

TEST_P(AtomicFileTest, CommitsOnlyOnce) {
  ScratchDir dir;
  AtomicFile out(dir / "once.bin");
  out.write("a");
  out.commit();
  EXPECT_TRUE(out.committed());
  EXPECT_NE(ErrorOf([&] { out.write("b"); }), L"");
  EXPECT_NE(ErrorOf([&] { out.commit(); }), L"");
  EXPECT_EQ(ReadBytes(dir / "once.bin"), "a");
}

INSTANTIATE_TEST_SUITE_P(Temporaries, AtomicFileTest, ::testing::Values(false, true),
                         [](const auto& info) { return info.param ? "Named" : "Unnamed"; });

}  // namespace
}  // namespace kel
