// Which nodes a command is for, and what they are called: the value of --nodes.
//
//   3                       so many nodes, whichever come (push only)
//   192.0.2.7,db1           addresses and host names
//   node[01-32],db[1,3-5]   names with ranges; a number keeps its leading zeros
//   @FILE                   what a file lists, all of its groups; @FILE:GROUP for one of them
//
// A file has entries of the same kinds, but for files, separated by spaces, commas or ends of line.
// "[GROUP]" on a line of its own begins a group, and "#" a comment.
//
// Every parser throws CLI::ValidationError with a text that names the value.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace pkgdist::lead_program {

struct NodeList {
  uint32_t count = 0;                     // with a number; then there are no nodes
  std::vector<uint32_t> addresses;        // each once, in the order of the list
  std::map<uint32_t, std::string> names;  // of those that were given by name
};

// The IPv4 address of a host name.
using Resolve = std::function<std::optional<uint32_t>(const std::string& name)>;
std::optional<uint32_t> resolve_host(const std::string& name);

NodeList parse_node_list(const std::string& text, const Resolve& resolve = resolve_host);
// The same without a number.
NodeList parse_node_names(const std::string& text, const Resolve& resolve = resolve_host);

// The names that "node[01-32]" stands for; a name without brackets for itself.
std::vector<std::string> expand_ranges(const std::string& pattern);

// Entries of a node file's text, of one group or, with none, of all.
std::vector<std::string> entries_of(const std::string& text, const std::string& group);

}  // namespace pkgdist::lead_program
