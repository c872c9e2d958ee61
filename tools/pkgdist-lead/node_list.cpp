#include "node_list.h"

#include <arpa/inet.h>
#include <fmt/core.h>
#include <netdb.h>
#include <sys/socket.h>

#include <CLI/Error.hpp>
#include <algorithm>
#include <charconv>
#include <fstream>
#include <iterator>

#include "cli_common.h"

namespace pkgdist::lead_program {

namespace {

// More names than this are a mistyped range.
constexpr size_t kMaxNames = 65536;
constexpr const char* kDigits = "0123456789";
constexpr const char* kBetweenEntries = " \t\r\n,";

[[noreturn]] void refuse(const std::string& what, const std::string& value) {
  throw CLI::ValidationError(fmt::format("{}: '{}'", what, value));
}

bool all_of(const std::string& text, const char* characters) {
  return !text.empty() && text.find_first_not_of(characters) == std::string::npos;
}

// "[" to "]" hold commas of their own.
std::vector<std::string> split_entries(const std::string& text, const char* separators) {
  std::vector<std::string> entries(1);
  bool inside = false;
  for (const char c : text) {
    inside = c == '[' || (inside && c != ']');
    if (!inside && std::string_view(separators).find(c) != std::string_view::npos)
      entries.emplace_back();
    else
      entries.back() += c;
  }
  return entries;
}

uint32_t number_of(const std::string& text, const std::string& pattern) {
  uint32_t number = 0;
  const char* end = text.data() + text.size();
  if (std::from_chars(text.data(), end, number).ptr != end || text.empty())
    refuse("not a range of numbers", pattern);
  return number;
}

// The texts of "01-03".
std::vector<std::string> numbers_of(const std::string& range, const std::string& pattern) {
  const size_t dash = range.find('-');
  if (dash == std::string::npos) {
    (void)number_of(range, pattern);
    return {range};
  }
  const std::string first = range.substr(0, dash);
  const uint32_t from = number_of(first, pattern);
  const uint32_t to = number_of(range.substr(dash + 1), pattern);
  if (to < from || to - from >= kMaxNames) refuse("not a range of numbers", pattern);
  const size_t width = first.front() == '0' ? first.size() : 0;
  std::vector<std::string> texts;
  for (uint64_t number = from; number <= to; ++number)
    texts.push_back(fmt::format("{:0{}}", number, width));
  return texts;
}

void add(NodeList& list, uint32_t address, const std::string& name) {
  const auto known = std::find(list.addresses.begin(), list.addresses.end(), address);
  if (known == list.addresses.end()) list.addresses.push_back(address);
  if (!name.empty()) list.names.emplace(address, name);
}

// What looks like an address is not looked up: it would only take time.
void add_name(NodeList& list, const std::string& name, const Resolve& resolve) {
  if (name.empty()) refuse("not an address or a name of a node", name);
  if (all_of(name, "0123456789.")) return add(list, cli::parse_address(name), "");
  const std::optional<uint32_t> address = resolve(name);
  if (!address) refuse("no address is known of the node", name);
  add(list, *address, name);
}

void add_entry(NodeList& list, const std::string& entry, const Resolve& resolve) {
  for (const std::string& name : expand_ranges(entry)) add_name(list, name, resolve);
}

void add_file(NodeList& list, const std::string& place, const Resolve& resolve) {
  const size_t colon = place.rfind(':');
  const std::string path = place.substr(0, colon);
  const std::string group = colon == std::string::npos ? "" : place.substr(colon + 1);
  std::ifstream file(path);
  const std::string text{std::istreambuf_iterator<char>(file), {}};
  if (!file.is_open() || file.bad()) refuse("the list of nodes cannot be read", path);
  const std::vector<std::string> entries = entries_of(text, group);
  if (entries.empty()) refuse("no node is listed there", place);
  for (const std::string& entry : entries) add_entry(list, entry, resolve);
}

}  // namespace

std::optional<uint32_t> resolve_host(const std::string& name) {
  addrinfo hints{};
  hints.ai_family = AF_INET;
  hints.ai_socktype = SOCK_DGRAM;
  addrinfo* found = nullptr;
  if (::getaddrinfo(name.c_str(), nullptr, &hints, &found) != 0) return std::nullopt;
  const uint32_t address =
      ntohl(reinterpret_cast<const sockaddr_in*>(found->ai_addr)->sin_addr.s_addr);
  ::freeaddrinfo(found);
  return address;
}

std::vector<std::string> expand_ranges(const std::string& pattern) {
  const size_t open = pattern.find('[');
  if (open == std::string::npos) return {pattern};
  const size_t close = pattern.find(']', open);
  if (close == std::string::npos) refuse("'[' without ']'", pattern);
  const std::vector<std::string> rests = expand_ranges(pattern.substr(close + 1));
  std::vector<std::string> names;
  for (const std::string& range : split_entries(pattern.substr(open + 1, close - open - 1), ","))
    for (const std::string& number : numbers_of(range, pattern))
      for (const std::string& rest : rests) {
        if (names.size() == kMaxNames) refuse("too many names", pattern);
        names.push_back(pattern.substr(0, open) + number + rest);
      }
  return names;
}

std::vector<std::string> entries_of(const std::string& text, const std::string& group) {
  std::vector<std::string> entries;
  bool listed = group.empty();
  for (std::string line : split_entries(text + '\n', "\n")) {
    line.erase(std::min(line.find('#'), line.size()));
    line.erase(0, std::min(line.find_first_not_of(" \t\r"), line.size()));
    line.erase(line.find_last_not_of(" \t\r") + 1);
    if (line.starts_with('[') && line.ends_with(']')) {
      listed = group.empty() || line.substr(1, line.size() - 2) == group;
      continue;
    }
    if (!listed) continue;
    for (const std::string& entry : split_entries(line, kBetweenEntries))
      if (!entry.empty()) entries.push_back(entry);
  }
  return entries;
}

NodeList parse_node_names(const std::string& text, const Resolve& resolve) {
  NodeList list;
  for (const std::string& entry : split_entries(text, ",")) {
    if (entry.starts_with('@'))
      add_file(list, entry.substr(1), resolve);
    else
      add_entry(list, entry, resolve);
  }
  return list;
}

NodeList parse_node_list(const std::string& text, const Resolve& resolve) {
  constexpr size_t kMostDigits = 4;
  if (!all_of(text, kDigits)) return parse_node_names(text, resolve);
  NodeList list;
  if (text.size() <= kMostDigits) list.count = number_of(text, text);
  if (list.count == 0) refuse("--nodes: not a number of nodes", text);
  return list;
}

}  // namespace pkgdist::lead_program
