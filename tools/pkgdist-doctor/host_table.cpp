#include "host_table.h"

#include <fmt/core.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <cstring>

#include "counted.h"

namespace pkgdist::doctor {

namespace {

std::string line_of(const HostLine& one) {
  return fmt::format("{:<16} {:>7} {:>6.1f} %  {}", one.host,
                     fmt::format("{}/{}", one.good_ways, one.ways), one.lost_percent,
                     one.troubles.empty() ? "-" : fmt::format("{}", fmt::join(one.troubles, ", ")));
}

}  // namespace

std::vector<std::string> host_table(std::vector<HostLine> hosts) {
  std::stable_sort(hosts.begin(), hosts.end(), [](const HostLine& a, const HostLine& b) {
    if (a.troubles.empty() != b.troubles.empty()) return b.troubles.empty();
    return ::strverscmp(a.host.c_str(), b.host.c_str()) < 0;
  });
  std::vector<std::string> lines{
      fmt::format("{:<16} {:>7} {:>8}  {}", "host", "ways", "lost", "trouble")};
  for (const HostLine& one : hosts) lines.push_back(line_of(one));
  const auto troubled = static_cast<size_t>(std::count_if(
      hosts.begin(), hosts.end(), [](const HostLine& one) { return !one.troubles.empty(); }));
  lines.push_back(fmt::format("{}, {} without trouble", cli::counted(hosts.size(), "host"),
                              hosts.size() - troubled));
  return lines;
}

}  // namespace pkgdist::doctor
