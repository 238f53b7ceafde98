// kel: the command-line face of the kel library.
#include <cstdio>
#include <exception>
#include <string>
#include <vector>

#include <kel/kel.h>

#include "cli.h"
#include "commands.h"

namespace {

struct Group {
  const char* name;
  const char* summary;
  int (*run)(const std::vector<std::string>&);
};

const Group kGroups[] = {
    {"tile", "quadtree tile addressing and index ranges", &RunTileCommand},
    {"sff", "SFF scene files: dump, pack, unpack", &RunSffCommand},
    {"cache", "tile cache file names and states", &RunCacheCommand},
    {"pick", "heights and ray hits on a tile file (kel pick TILE X Y)", &RunPickCommand},
    {"bvh", "the triangle tree of a tile file", &RunBvhCommand},
    {"dds", "DDS texture files: header, format, alpha", &RunDdsCommand},
    {"texture", "DDS textures: convert pictures, look at textures", &RunTextureCommand},
    {"demo", "the whole pipeline on a built-in example city", &RunDemoCommand},
};

void PrintHelp() {
  std::puts("usage: kel <group> <command> [args]   (kel <group> --help for its commands)\n\ngroups:");
  for (const auto& g : kGroups) std::printf("  %-8s %s\n", g.name, g.summary);
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::string> words(argv + 1, argv + argc);
  try {
    if (words.empty()) throw cli::UsageError("missing command group; try 'kel --help'");
    if (words[0] == "--help" || words[0] == "-h" || words[0] == "help") {
      PrintHelp();
      return 0;
    }
    for (const auto& g : kGroups)
      if (words[0] == g.name) return g.run(std::vector<std::string>(words.begin() + 1, words.end()));
    throw cli::UsageError("unknown command group '" + words[0] + "'; try 'kel --help'");
  } catch (const cli::UsageError& e) {
    std::fprintf(stderr, "kel: %s\n", e.what());
    return 2;
  } catch (const kel::wexception& e) {
    std::fprintf(stderr, "kel: %s\n", kel::WString2Utf8String(e.message()).c_str());
    return 1;
  } catch (const std::exception& e) {
    std::fprintf(stderr, "kel: %s\n", e.what());
    return 1;
  }
}
