// Argument handling shared by every kel subcommand. A bad argument throws
// UsageError; main turns it into one line on stderr and exit code 2.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace cli {

struct UsageError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// Positional words and "--name value" / "--name=value" / "--flag" options.
// Each command declares its flags up front, so "--flag value" never eats a
// positional by accident.
class Args {
public:
  Args(std::vector<std::string> words, std::vector<std::string> flags);

  bool helpRequested() const { return help_; }
  const std::vector<std::string>& positional() const { return positional_; }
  // Throws unless exactly `min`..`max` positionals were given.
  void expectPositional(std::size_t min, std::size_t max, const char* usage) const;
  const std::string& at(std::size_t i) const { return positional_.at(i); }

  bool flag(const std::string& name) const;
  std::optional<std::string> option(const std::string& name) const;
  // Throws on options nobody asked about, so typos do not pass silently.
  void rejectUnknown(const std::vector<std::string>& known) const;

private:
  std::vector<std::string> positional_;
  std::map<std::string, std::string> options_;
  bool help_ = false;
};

// Strict number parsing: the whole word must be the number.
std::int64_t ParseInt(const std::string& text, const char* what);
double ParseDouble(const std::string& text, const char* what);
// "a,b,c" with exactly `n` numbers.
std::vector<double> ParseDoubles(const std::string& text, std::size_t n, const char* what);

// One subcommand of a command group ("kel tile info").
struct Command {
  const char* name;
  const char* summary;
  const char* help;  // full usage text printed by --help
  std::vector<std::string> flags;  // options that take no value
  std::function<int(const Args&)> run;
};

// Runs `words[0]` from `commands`, or prints the group's help.
int RunGroup(const char* group, const std::vector<Command>& commands, const std::vector<std::string>& words);

}  // namespace cli
