// The doctor's table of hosts.
#include "host_table.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace pkgdist::doctor {
namespace {

HostLine host(size_t number) {
  return {"10.71." + std::to_string(number / 250) + "." + std::to_string(number % 250 + 1),
          6,
          6,
          0,
          {}};
}

TEST(HostTable, three_hundred_nodes_have_a_line_each_those_with_trouble_first) {
  std::vector<HostLine> hosts;
  for (size_t i = 0; i < 300; ++i) hosts.push_back(host(299 - i));
  hosts[7].troubles = {"multicast", "loss"};  // 10.71.1.43
  hosts[7].good_ways = 4;
  hosts[7].lost_percent = 100.0 / 3;
  hosts[200].troubles = {"mtu"};  // 10.71.0.100
  hosts[200].good_ways = 3;
  const std::vector<std::string> lines = host_table(hosts);
  ASSERT_EQ(lines.size(), 302u);
  EXPECT_EQ(lines[0], "host                ways     lost  trouble");
  EXPECT_EQ(lines[1], "10.71.0.100          3/6    0.0 %  mtu");
  EXPECT_EQ(lines[2], "10.71.1.43           4/6   33.3 %  multicast, loss");
  EXPECT_EQ(lines[3], "10.71.0.1            6/6    0.0 %  -");
  EXPECT_EQ(lines[4], "10.71.0.2            6/6    0.0 %  -") << "numbers by their value";
  EXPECT_EQ(lines[300], "10.71.1.50           6/6    0.0 %  -");
  EXPECT_EQ(lines[301], "300 hosts, 298 without trouble");
  for (size_t i = 0; i < 300; ++i) {
    const auto found = std::count_if(lines.begin(), lines.end(), [&](const std::string& line) {
      return line.starts_with(host(i).host + " ");
    });
    EXPECT_EQ(found, 1) << host(i).host;
  }
  for (const std::string& line : lines) EXPECT_LE(line.size(), 80u) << line;
}

TEST(HostTable, one_of_two_hosts_is_told_in_the_right_number) {
  EXPECT_EQ(host_table({host(1), host(2)}).back(), "2 hosts, 2 without trouble");
  EXPECT_EQ(host_table({host(1)}).back(), "1 host, 1 without trouble");
}

}  // namespace
}  // namespace pkgdist::doctor
