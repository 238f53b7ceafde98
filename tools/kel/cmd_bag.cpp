// kel bag: property-bag text, the escaped "key=value" lines settings and
// attributes travel in.
#include <cstdio>
#include <fstream>
#include <iostream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include <kel/kel.h>

#include "commands.h"
#include "options.h"

namespace {

struct BagArgs {
  std::vector<std::string> items;
  std::string file = "-";
  bool list = false;
};

// Values may hold line feeds and other controls; shown C-style so each
// entry stays on one line.
std::string Shown(const std::wstring& value) {
  std::string out = "\"";
  for (unsigned char c : kel::WString2Utf8String(value)) {
    if (c == '\n') out += "\\n";
    else if (c == '\t') out += "\\t";
    else if (c == '\r') out += "\\r";
    else if (c == '\\' || c == '"') out += {'\\', static_cast<char>(c)};
    else if (c < 0x20 || c == 0x7f) {
      char hex[8];
      std::snprintf(hex, sizeof hex, "\\x%02x", c);
      out += hex;
    } else {
      out += static_cast<char>(c);
    }
  }
  return out + "\"";
}

int RunEncode(const BagArgs& a) {
  std::vector<std::wstring> items;
  for (const auto& item : a.items) items.push_back(kel::Utf8String2WString(item));
  std::wstring text;
  if (a.list) {
    text = kel::PropertyBag::Encode(
        kel::IDataArray<const std::wstring>{items.data(), static_cast<std::uint32_t>(items.size())});
  } else {
    kel::PropertyBag bag;
    for (const auto& item : items) {
      const auto eq = item.find(L'=');
      if (eq == std::wstring::npos)
        throw tool::UsageError("'" + kel::WString2Utf8String(item) + "' is not KEY=VALUE (or use --list)");
      bag.SetValue(item.substr(0, eq), item.substr(eq + 1));
    }
    text = kel::PropertyBag::Encode(bag);
  }
  std::printf("%s\n", kel::WString2Utf8String(text).c_str());
  return 0;
}

std::string ReadAll(const std::string& path) {
  if (path == "-") return std::string(std::istreambuf_iterator<char>(std::cin), {});
  std::ifstream in(path, std::ios::binary);
  if (!in) throw std::runtime_error("cannot open " + path);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

int RunDecode(const BagArgs& a) {
  std::string bytes = ReadAll(a.file);
  if (!bytes.empty() && bytes.back() == '\n') bytes.pop_back();  // the one encode prints
  const std::wstring text = kel::Utf8String2WString(bytes);
  if (a.list) {
    struct Print final : kel::IEnumerate<const wchar_t*> {
      bool push(const wchar_t* const& item) override {
        std::printf("%s\n", Shown(item).c_str());
        return true;
      }
    } print;
    kel::PropertyBag::Decode(text, print);
    return 0;
  }
  kel::PropertyBag::Map entries;
  if (!kel::PropertyBag::Decode(text, entries)) {
    std::size_t line = 1;
    for (std::size_t begin = 0;; ++line) {
      const auto end = text.find(L'\n', begin);
      const std::wstring piece = text.substr(begin, end == std::wstring::npos ? end : end - begin);
      if (!piece.empty() && piece.find(L'=') == std::wstring::npos) break;
      begin = end + 1;
    }
    std::fprintf(stderr, "kel: not property-bag text: line %zu has no '='\n", line);
    return 1;
  }
  for (const auto& [key, value] : entries)
    std::printf("%s = %s\n", kel::WString2Utf8String(key).c_str(), Shown(value).c_str());
  return 0;
}

}  // namespace

void AddBagCommands(CLI::App& app) {
  CLI::App* group = tool::AddGroup(app, "bag", "property-bag text: encode and decode");
  auto a = std::make_shared<BagArgs>();

  CLI::App* cmd = tool::AddCommand(
      *group, "encode", "KEY=VALUE pairs (or list items) to property-bag text",
      "Prints one 'key=value' line per pair in key order, values escaped (line feed\n"
      "as #>, # as ##, > as >>). With --list the items are joined by line feeds as\n"
      "they are, unescaped, the way lists are stored.",
      [a] { return RunEncode(*a); });
  cmd->add_option("ITEMS", a->items, "KEY=VALUE pairs, or list items with --list")->required();
  cmd->add_flag("--list", a->list, "encode a list rather than a bag");

  cmd = tool::AddCommand(*group, "decode", "property-bag text to its entries",
                         "Reads FILE (default '-', standard input), drops one final line feed and\n"
                         "prints 'key = \"value\"' per entry with line feeds and controls escaped C-style.\n"
                         "With --list prints each unescaped list item. Exit code 1 when a line has no '='.",
                         [a] { return RunDecode(*a); });
  cmd->add_option("FILE", a->file, "encoded text, or '-' for standard input");
  cmd->add_flag("--list", a->list, "decode a list rather than a bag");
}
