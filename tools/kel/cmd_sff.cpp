// kel sff: look inside SFF scene files and convert between plain and compressed.
#include <cstdio>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <system_error>
#include <vector>

#include <kel/kel.h>

#include "commands.h"
#include "options.h"
#include "progress_view.h"

namespace {

namespace fs = std::filesystem;

// Counts the bytes pulled from a source and moves the task's progress with
// them; a read after Ctrl-C throws tool::Interrupted.
class ProgressSource : public kel::sff_input_stream {
public:
  ProgressSource(kel::sff_input_stream& inner, tool::Task& task) : inner_(inner), task_(task) {}
  void reset() override {
    inner_.reset();
    done_ = 0;
  }
  std::size_t read(void* buffer, std::size_t size) override {
    const std::size_t n = inner_.read(buffer, size);
    done_ += n;
    task_.step(static_cast<std::int64_t>(done_));
    return n;
  }

private:
  kel::sff_input_stream& inner_;
  tool::Task& task_;
  std::uint64_t done_ = 0;
};

std::uint64_t FileSize(const std::string& path) {
  std::error_code ec;
  const auto size = fs::file_size(fs::path(path), ec);
  return ec ? 0 : size;
}

// Printable rendering of a string record, cut at 60 characters.
std::string Quote(const char* text, std::size_t size) {
  std::string s = "\"";
  for (std::size_t i = 0; i < size && i < 60; ++i) {
    const unsigned char c = static_cast<unsigned char>(text[i]);
    if (c >= 0x20 && c < 0x7F && c != '"' && c != '\\') {
      s += static_cast<char>(c);
    } else {
      char b[8];
      std::snprintf(b, sizeof b, "\\x%02x", c);
      s += b;
    }
  }
  s += size > 60 ? "\"..." : "\"";
  return s;
}

std::string NodeName(std::uint32_t type) {
  if (type >= 64 && type <= 71) return std::string(1, static_cast<char>(type));
  return "type " + std::to_string(type);
}

// Prints the node tree, one record per line, or only totals per kind.
class Dumper : public kel::sff_read_callback {
public:
  explicit Dumper(bool summary) : summary_(summary) {}

  void printSummary() const {
    std::printf("%-22s %12s %16s\n", "record", "count", "payload bytes");
    for (const auto& [kind, t] : totals_) std::printf("%-22s %12llu %16llu\n", kind.c_str(),
                                                      static_cast<unsigned long long>(t.count),
                                                      static_cast<unsigned long long>(t.bytes));
    std::printf("max depth %d\n", maxDepth_);
    // Picking reads a mesh's indices from the integer record only; a mesh
    // without one becomes a plain triangle list of its vertices.
    std::printf("meshes ('C' nodes with positions): %llu, without an index array (integers, tag 41 / type 19): %zu\n",
                static_cast<unsigned long long>(meshes_), unindexed_.size());
    std::size_t withArray4 = 0;
    for (const auto& m : unindexed_) withArray4 += m.array4;
    if (withArray4)
      std::printf("  %zu of them carry a block of 4-byte elements (array4, tag 43 / type 23), which is not an index array\n",
                  withArray4);
    for (std::size_t i = 0; i < unindexed_.size() && i < 20; ++i)
      std::printf("  C id %llu: %llu vertices%s\n", static_cast<unsigned long long>(unindexed_[i].id),
                  static_cast<unsigned long long>(unindexed_[i].vertices), unindexed_[i].array4 ? ", array4" : "");
    if (unindexed_.size() > 20) std::printf("  ... and %zu more\n", unindexed_.size() - 20);
  }

  void unknownRecord(std::uint32_t tag, std::uint32_t type, const void*, std::size_t n) override {
    line("unknown tag " + std::to_string(tag) + " type " + std::to_string(type), n, std::to_string(n) + " bytes");
  }
  void beginAt(std::uint64_t id) override { open(64, id); }
  void beginA(std::uint64_t id) override { open(65, id); }
  void beginB(std::uint64_t id) override { open(66, id); }
  void beginC(std::uint64_t id) override {
    open(67, id);
    open_.push_back({id, 0, false, false});
  }
  void beginD(std::uint64_t id) override { open(68, id); }
  void beginF(std::uint64_t id) override { open(70, id); }
  void beginE(std::uint64_t id) override { open(69, id); }
  void beginOther(std::uint32_t type, std::uint64_t id) override { open(type, id); }
  void beginG(std::uint64_t id) override { open(71, id); }
  void end(std::uint32_t type, std::uint64_t) override {
    --depth_;
    count("node " + NodeName(type) + " end", 0);
    if (type == 67 && !open_.empty()) {
      const Mesh m = open_.back();
      open_.pop_back();
      if (m.vertices) ++meshes_;
      if (m.vertices && !m.indexed) unindexed_.push_back(m);
    }
  }
  void reference(std::uint64_t id) override { line("reference", 0, std::to_string(id)); }
  void positions(const void*, std::size_t n) override {
    array("positions", n, 12);
    if (!open_.empty()) open_.back().vertices += n;
  }
  void array24(const void*, std::size_t n) override { array("array24", n, 24); }
  void normals(const void*, std::size_t n) override { array("normals", n, 12); }
  void array8(const void*, std::size_t n, std::uint32_t extra) override {
    line("array8", n * 8, std::to_string(n) + " x 8 bytes, extra " + std::to_string(extra));
  }
  void array4(const void*, std::size_t n) override {
    array("array4", n, 4);
    if (!open_.empty()) open_.back().array4 = true;
  }
  void integers(const std::uint64_t*, std::size_t n) override {
    line("integers", n * 8, std::to_string(n) + " values");
    if (!open_.empty()) open_.back().indexed = true;
  }
  void string34(const char* t, std::size_t n) override { line("string34", n, Quote(t, n)); }
  void string32(const char* t, std::size_t n) override { line("string32", n, Quote(t, n)); }
  void block21(const void*, std::size_t n) override { line("block21", n, std::to_string(n) + " bytes"); }
  void block22(const void*, std::size_t n) override { line("block22", n, std::to_string(n) + " bytes"); }
  void byte26(std::uint64_t v) override { line("byte26", 0, std::to_string(v)); }
  void byte27(std::uint64_t v) override { line("byte27", 0, std::to_string(v)); }
  void byte8(std::uint64_t v) override { line("byte8", 0, std::to_string(v)); }
  void string33(const char* t, std::size_t n) override { line("name", n, Quote(t, n)); }
  void value16Type1(const void*) override { line("value16 type 1", 16, "16 bytes"); }
  void value16Type2(const void*) override { line("value16 type 2", 16, "16 bytes"); }
  void value16Type3(const void*) override { line("value16 type 3", 16, "16 bytes"); }
  void value16Type4(const void*) override { line("value16 type 4", 16, "16 bytes"); }
  void scalar(std::uint64_t v) override { line("scalar", 0, std::to_string(v)); }
  void block64(const void*) override { line("block64", 64, "64 bytes"); }
  void block128(std::uint32_t type, const void*) override {
    line("block128", 128, "type " + std::to_string(type) + ", 128 bytes");
  }
  void block100(const void*, std::size_t n) override { line("block100", n, std::to_string(n) + " bytes"); }
  void integers101(const std::uint64_t*, std::size_t n) override {
    line("integers101", n * 8, std::to_string(n) + " values");
  }

private:
  struct Total {
    std::uint64_t count = 0, bytes = 0;
  };
  void count(const std::string& kind, std::uint64_t bytes) {
    auto& t = totals_[kind];
    ++t.count;
    t.bytes += bytes;
  }
  void line(const std::string& kind, std::uint64_t bytes, const std::string& detail) {
    count(kind, bytes);
    if (!summary_) std::printf("%*s%s: %s\n", 2 * depth_, "", kind.c_str(), detail.c_str());
  }
  void array(const char* kind, std::size_t n, std::size_t size) {
    line(kind, n * size, std::to_string(n) + " x " + std::to_string(size) + " bytes");
  }
  void open(std::uint32_t type, std::uint64_t id) {
    count("node " + NodeName(type), 0);
    if (!summary_) std::printf("%*snode %s id %llu\n", 2 * depth_, "", NodeName(type).c_str(),
                               static_cast<unsigned long long>(id));
    if (++depth_ > maxDepth_) maxDepth_ = depth_;
  }

  struct Mesh {
    std::uint64_t id, vertices;
    bool indexed, array4;
  };

  bool summary_;
  int depth_ = 0;
  int maxDepth_ = 0;
  std::map<std::string, Total> totals_;
  std::vector<Mesh> open_;       // 'C' nodes being read, innermost last
  std::vector<Mesh> unindexed_;  // meshes with vertices and no integer record
  std::uint64_t meshes_ = 0;
};

struct SffArgs {
  std::string in, out;
  bool summary = false;
  std::int64_t level = -1;
};

int RunDump(const SffArgs& a) {
  kel::sff_file_is in(a.in.c_str());
  Dumper dumper(a.summary);
  kel::sff_reader().read(in, dumper);
  if (a.summary) dumper.printSummary();
  return 0;
}

int Convert(const SffArgs& a, bool compress) {
  const std::string& inPath = a.in;
  const std::string& outPath = a.out;
  std::error_code ec;
  if (fs::equivalent(fs::path(inPath), fs::path(outPath), ec))
    throw tool::UsageError("IN and OUT must be different files");
  kel::sff_file_is file(inPath.c_str());
  // OUT is replaced only once every record is written and the file closed:
  // a failure, a full disk, Ctrl-C or a kill leaves what was there.
  kel::sff_file_os out(outPath.c_str());
  tool::Task task(kel::Utf8String2WString((compress ? "pack " : "unpack ") + fs::path(inPath).filename().string()),
                  static_cast<std::int64_t>(FileSize(inPath)));
  ProgressSource in(file, task);
  kel::sff_writer writer(out, compress, static_cast<int>(a.level));
  kel::sff_copy_callback copy(writer);
  kel::sff_reader().read(in, copy);
  writer.finish();
  out.commit();
  const std::uint64_t records = copy.records();
  std::printf("%s -> %s: %llu records, %llu -> %llu bytes\n", inPath.c_str(), outPath.c_str(),
              static_cast<unsigned long long>(records), static_cast<unsigned long long>(FileSize(inPath)),
              static_cast<unsigned long long>(FileSize(outPath)));
  return 0;
}

}  // namespace

void AddSffCommands(CLI::App& app) {
  CLI::App* group = tool::AddGroup(app, "sff", "SFF scene files: dump, pack, unpack");
  auto a = std::make_shared<SffArgs>();

  CLI::App* cmd = tool::AddCommand(
      *group, "dump", "node tree of an SFF file, or totals per record kind",
      "Prints every record of a plain (SFF0) or compressed (SFZ0) file, indented by\n"
      "node depth: arrays as element counts, strings as text. --summary prints the\n"
      "count and payload bytes per record kind instead.",
      [a] { return RunDump(*a); });
  cmd->add_option("FILE", a->in, "SFF file")->required();
  cmd->add_flag("--summary", a->summary, "totals per record kind instead of every record");

  cmd = tool::AddCommand(*group, "pack", "compress an SFF file (SFZ0)",
                         "Copies every record of IN into a compressed OUT. Level 1 is several times\n"
                         "faster than the default on mesh data for output only a few percent larger.",
                         [a] { return Convert(*a, true); });
  cmd->add_option("IN", a->in, "SFF file to read")->required();
  cmd->add_option("OUT", a->out, "compressed SFF file to write")->required();
  tool::AddInt(*cmd, "--level", a->level, -1, 9, "zlib level 0-9, or -1 for zlib's default (6)");

  cmd = tool::AddCommand(*group, "unpack", "decompress an SFF file (SFF0)",
                         "Copies every record of IN into a plain OUT.", [a] { return Convert(*a, false); });
  cmd->add_option("IN", a->in, "SFF file to read")->required();
  cmd->add_option("OUT", a->out, "plain SFF file to write")->required();
}
