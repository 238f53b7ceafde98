#include "cli.h"

#include <charconv>
#include <cstdio>
#include <sstream>

namespace cli {

Args::Args(std::vector<std::string> words, std::vector<std::string> flags) {
  for (std::size_t i = 0; i < words.size(); ++i) {
    const std::string& w = words[i];
    if (w == "--help" || w == "-h") {
      help_ = true;
    } else if (w.size() > 2 && w.compare(0, 2, "--") == 0) {
      const auto eq = w.find('=');
      std::string name = w.substr(2, eq == std::string::npos ? std::string::npos : eq - 2);
      bool isFlag = false;
      for (const auto& f : flags) isFlag |= (f == name);
      if (eq != std::string::npos) {
        options_[name] = w.substr(eq + 1);
      } else if (isFlag) {
        options_[name] = "";
      } else {
        if (i + 1 >= words.size()) throw UsageError("option --" + name + " needs a value");
        options_[name] = words[++i];
      }
    } else {
      positional_.push_back(w);
    }
  }
}

void Args::expectPositional(std::size_t min, std::size_t max, const char* usage) const {
  if (positional_.size() < min || positional_.size() > max)
    throw UsageError(std::string("wrong number of arguments; usage: ") + usage);
}

bool Args::flag(const std::string& name) const { return options_.count(name) != 0; }

std::optional<std::string> Args::option(const std::string& name) const {
  auto it = options_.find(name);
  if (it == options_.end()) return std::nullopt;
  return it->second;
}

void Args::rejectUnknown(const std::vector<std::string>& known) const {
  for (const auto& [name, value] : options_) {
    bool ok = false;
    for (const auto& k : known) ok |= (k == name);
    if (!ok) throw UsageError("unknown option --" + name);
  }
}

std::int64_t ParseInt(const std::string& text, const char* what) {
  std::int64_t v = 0;
  const char* end = text.data() + text.size();
  auto [ptr, ec] = std::from_chars(text.data(), end, v);
  if (ec != std::errc() || ptr != end || text.empty())
    throw UsageError(std::string(what) + " must be an integer, got '" + text + "'");
  return v;
}

double ParseDouble(const std::string& text, const char* what) {
  double v = 0;
  const char* end = text.data() + text.size();
  auto [ptr, ec] = std::from_chars(text.data(), end, v);
  if (ec != std::errc() || ptr != end || text.empty())
    throw UsageError(std::string(what) + " must be a number, got '" + text + "'");
  return v;
}

std::vector<double> ParseDoubles(const std::string& text, std::size_t n, const char* what) {
  std::vector<double> out;
  std::stringstream ss(text);
  std::string item;
  while (std::getline(ss, item, ',')) out.push_back(ParseDouble(item, what));
  if (out.size() != n || (!text.empty() && text.back() == ','))
    throw UsageError(std::string(what) + " needs " + std::to_string(n) + " comma-separated numbers, got '" + text + "'");
  return out;
}

int RunGroup(const char* group, const std::vector<Command>& commands, const std::vector<std::string>& words) {
  auto printHelp = [&](std::FILE* to) {
    std::fprintf(to, "usage: kel %s <command> [args]\n\ncommands:\n", group);
    for (const auto& c : commands) std::fprintf(to, "  %-12s %s\n", c.name, c.summary);
    std::fprintf(to, "\n'kel %s <command> --help' shows a command's usage.\n", group);
  };
  if (words.empty() || words[0] == "--help" || words[0] == "-h") {
    if (words.empty()) throw UsageError(std::string("missing command; try 'kel ") + group + " --help'");
    printHelp(stdout);
    return 0;
  }
  for (const auto& c : commands) {
    if (words[0] != c.name) continue;
    Args args(std::vector<std::string>(words.begin() + 1, words.end()), c.flags);
    if (args.helpRequested()) {
      std::fputs(c.help, stdout);
      return 0;
    }
    return c.run(args);
  }
  throw UsageError(std::string("unknown command '") + words[0] + "' for 'kel " + group + "'");
}

}  // namespace cli
