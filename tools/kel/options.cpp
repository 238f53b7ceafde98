#include "options.h"

#include <charconv>
#include <cstdio>
#include <exception>
#include <sstream>
#include <utility>

namespace tool {

std::int64_t ParseInt(const std::string& text, const std::string& what) {
  std::int64_t v = 0;
  const char* end = text.data() + text.size();
  auto [ptr, ec] = std::from_chars(text.data(), end, v);
  if (ec != std::errc() || ptr != end || text.empty())
    throw UsageError(what + " must be an integer, got '" + text + "'");
  return v;
}

double ParseDouble(const std::string& text, const std::string& what) {
  double v = 0;
  const char* end = text.data() + text.size();
  auto [ptr, ec] = std::from_chars(text.data(), end, v);
  if (ec != std::errc() || ptr != end || text.empty())
    throw UsageError(what + " must be a number, got '" + text + "'");
  return v;
}

std::vector<double> ParseDoubles(const std::string& text, std::size_t n, const std::string& what) {
  std::vector<double> out;
  std::stringstream ss(text);
  std::string item;
  while (std::getline(ss, item, ',')) out.push_back(ParseDouble(item, what));
  if (out.size() != n || (!text.empty() && text.back() == ','))
    throw UsageError(what + " needs " + std::to_string(n) + " comma-separated numbers, got '" + text + "'");
  return out;
}

namespace {

// Our parse errors surface from inside CLI11's callbacks as its own type, so
// the parse fails as a whole and main reports it like any other.
template <class Parse>
void Checked(Parse&& parse) {
  try {
    parse();
  } catch (const UsageError& e) {
    throw CLI::ValidationError(e.what());
  }
}

// The command chosen by the last parse; see RunKel.
std::function<int()> g_chosen;

}  // namespace

CLI::Option* AddInt(CLI::App& cmd, const std::string& name, std::int64_t& out, std::int64_t lo, std::int64_t hi,
                    const std::string& help) {
  const std::string& what = name;
  auto* opt = cmd.add_option_function<std::string>(
      name,
      [&out, lo, hi, what](const std::string& text) {
        Checked([&] {
          const std::int64_t v = ParseInt(text, what);
          if (v < lo || v > hi)
            throw UsageError(what + " must be between " + std::to_string(lo) + " and " + std::to_string(hi));
          out = v;
        });
      },
      help);
  return opt->type_name("INT");
}

CLI::Option* AddNumber(CLI::App& cmd, const std::string& name, double& out, const std::string& help) {
  const std::string& what = name;
  auto* opt = cmd.add_option_function<std::string>(
      name, [&out, what](const std::string& text) { Checked([&] { out = ParseDouble(text, what); }); }, help);
  return opt->type_name("NUMBER");
}

CLI::Option* AddNumbers(CLI::App& cmd, const std::string& name, std::vector<double>& out, std::size_t n,
                        const std::string& help) {
  const std::string& what = name;
  auto* opt = cmd.add_option_function<std::string>(
      name, [&out, n, what](const std::string& text) { Checked([&] { out = ParseDoubles(text, n, what); }); },
      help);
  return opt->type_name(n == 2 ? "X,Y" : "N,...");
}

CLI::App* AddGroup(CLI::App& app, const std::string& name, const std::string& summary) {
  CLI::App* group = app.add_subcommand(name, summary);
  group->require_subcommand(1);
  group->footer("'kel " + name + " COMMAND --help' shows a command's usage.");
  return group;
}

CLI::App* AddCommand(CLI::App& parent, const std::string& name, const std::string& summary,
                     const std::string& details, std::function<int()> run) {
  CLI::App* cmd = parent.add_subcommand(name, summary);
  cmd->footer(details);
  cmd->callback([run = std::move(run)] { g_chosen = run; });
  return cmd;
}

std::function<int()> TakeChosenCommand() { return std::exchange(g_chosen, nullptr); }

}  // namespace tool
