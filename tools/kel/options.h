// What every kel subcommand shares on top of CLI11: strict number options,
// usage errors found after parsing, and how a command hands its work to main.
#pragma once

#include <cstdint>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

namespace tool {

// A bad argument found by a command's own checks (after CLI11 accepted the
// words); like CLI11's errors it becomes one line on stderr and exit code 2.
struct UsageError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// Strict parsing: the whole word must be one decimal number. CLI11's own
// integer conversion takes "010" as octal and "0x10" as hex, which nobody
// typing a tile row means.
std::int64_t ParseInt(const std::string& text, const std::string& what);
double ParseDouble(const std::string& text, const std::string& what);
// "a,b,c" with exactly `n` numbers.
std::vector<double> ParseDoubles(const std::string& text, std::size_t n, const std::string& what);

// Option or positional (a name without dashes) bound to `out`: a decimal
// integer within [lo, hi]. `out` keeps its value when the option is absent.
CLI::Option* AddInt(CLI::App& cmd, const std::string& name, std::int64_t& out, std::int64_t lo, std::int64_t hi,
                    const std::string& help);
CLI::Option* AddNumber(CLI::App& cmd, const std::string& name, double& out, const std::string& help);
// A comma-separated list of exactly `n` numbers ("--box X0,Y0,X1,Y1").
CLI::Option* AddNumbers(CLI::App& cmd, const std::string& name, std::vector<double>& out, std::size_t n,
                        const std::string& help);

// A command group ("kel tile"): needs exactly one of its subcommands.
CLI::App* AddGroup(CLI::App& app, const std::string& name, const std::string& summary);
// A command whose work is `run`, started by main once every argument parsed;
// its result is the exit code. `details` is printed under --help.
CLI::App* AddCommand(CLI::App& parent, const std::string& name, const std::string& summary,
                     const std::string& details, std::function<int()> run);

// The work of the command the last parse chose (empty when none), handed
// over once.
std::function<int()> TakeChosenCommand();

// Parses `args` (without the program name) on a fresh tool and runs the
// chosen command: 0 or the command's code, 2 on bad arguments, 1 when the
// command fails. Errors go to stderr as one "kel: ..." line. Commands that
// reuse others (the demo) call it too. Defined in main.cpp.
int RunKel(const std::vector<std::string>& args);

}  // namespace tool
