// The command groups of the kel tool; each lives in its own cmd_<group>.cpp.
#pragma once

#include <string>
#include <vector>

int RunTileCommand(const std::vector<std::string>& words);
int RunDdsCommand(const std::vector<std::string>& words);
int RunTextureCommand(const std::vector<std::string>& words);
