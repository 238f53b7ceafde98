// The command groups of the kel tool. Each group lives in its own
// cmd_<group>.cpp and registers its subcommands on the tool's CLI11 app
// through one function here; main.cpp lists them in the order --help shows.
#pragma once

namespace CLI {
class App;
}

void AddTileCommands(CLI::App& app);
void AddSffCommands(CLI::App& app);
void AddCacheCommands(CLI::App& app);
void AddPickCommands(CLI::App& app);  // "pick" and "bvh"
void AddDdsCommands(CLI::App& app);
void AddTextureCommands(CLI::App& app);
void AddSrsCommands(CLI::App& app);
void AddDemoCommands(CLI::App& app);
void AddBagCommands(CLI::App& app);
void AddSettingsCommands(CLI::App& app);
void AddCityCommands(CLI::App& app);
void AddGeomCommands(CLI::App& app);
void AddFeatureCommands(CLI::App& app);
