#include "packet_filter.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <memory>
#include <optional>

namespace pkgdist::doctor {

namespace {

// What the command prints, nothing when it fails.
std::optional<std::string> output_of(const char* command) {
  FILE* pipe = ::popen(command, "re");
  if (pipe == nullptr) return std::nullopt;
  std::string text;
  std::array<char, 4096> buffer;
  while (const size_t got = std::fread(buffer.data(), 1, buffer.size(), pipe))
    text.append(buffer.data(), got);
  if (::pclose(pipe) != 0) return std::nullopt;
  return text;
}

bool may_drop(const std::string& line) {
  for (const char* word : {" drop", " reject", "-j DROP", "-j REJECT", " DROP ["})
    if (line.find(word) != std::string::npos) return true;
  return false;
}

}  // namespace

PacketFilter::PacketFilter() {
  // Directories of administration are in the path of root's shells only.
  for (const char* command : {"PATH=$PATH:/usr/sbin:/sbin nft list ruleset 2>/dev/null",
                              "PATH=$PATH:/usr/sbin:/sbin iptables-save -c 2>/dev/null"}) {
    const std::optional<std::string> text = output_of(command);
    if (!text) continue;
    readable_ = true;
    for (size_t start = 0; start < text->size();) {
      const size_t end = std::min(text->find('\n', start), text->size());
      std::string line = text->substr(start, end - start);
      line.erase(0, std::min(line.find_first_not_of(" \t"), line.size()));
      if (may_drop(line)) drops_.push_back(line);
      start = end + 1;
    }
  }
}

std::vector<std::string> PacketFilter::counted_since(const PacketFilter& before) const {
  std::vector<std::string> counted;
  for (const std::string& line : drops_)
    if (std::find(before.drops_.begin(), before.drops_.end(), line) == before.drops_.end())
      counted.push_back(line);
  return counted;
}

}  // namespace pkgdist::doctor
