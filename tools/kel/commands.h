// The command groups of the kel tool; each lives in its own cmd_<group>.cpp.
#pragma once

#include <string>
#include <vector>

int RunTileCommand(const std::vector<std::string>& words);
int RunSffCommand(const std::vector<std::string>& words);
int RunCacheCommand(const std::vector<std::string>& words);
int RunPickCommand(const std::vector<std::string>& words);
int RunBvhCommand(const std::vector<std::string>& words);
int RunDdsCommand(const std::vector<std::string>& words);
int RunTextureCommand(const std::vector<std::string>& words);
int RunDemoCommand(const std::vector<std::string>& words);
