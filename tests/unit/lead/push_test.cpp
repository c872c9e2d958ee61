// Whole distributions: the lead's core and modelled nodes over a network that loses, duplicates and
// reorders, under a virtual clock.
#include <gtest/gtest.h>

#include "lead_cluster.h"
#include "pkgdist/status.h"

namespace pkgdist::test {
namespace {

using lead::kMillisecond;
using lead::kSecond;

constexpr size_t kSegment = lead::kDefaultSegmentSize;

void add_mixed_tree(MemoryStore& store, uint64_t seed) {
  store.add("empty", {});
  store.add("one", pattern(1, seed));
  store.add("dir/exactly three", pattern(3 * kSegment, seed + 1));
  store.add("dir/three and one", pattern(3 * kSegment + 1, seed + 2), 0755);
  store.add("deep/er/middle", pattern(100'000, seed + 3), 0600, 12345);
  store.add("deep/er/large", pattern(3'000'000, seed + 4));
  store.add_link("link", "dir/one");
  store.add_link("long link", std::string(255, 'x'));
  for (int i = 0; i < 100; ++i)
    store.add("small/" + std::to_string(i),
              pattern(static_cast<size_t>(i) * 50, seed + 10 + static_cast<uint64_t>(i)));
}

struct Loss {
  double down;
  double up;
};

class PushUnderLoss : public testing::TestWithParam<Loss> {};

TEST_P(PushUnderLoss, every_node_gets_an_identical_tree) {
  for (uint64_t seed = 1; seed <= 5; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    LeadCluster cluster;
    add_mixed_tree(cluster.store, seed);
    cluster.add_hosts(3);
    cluster.set_loss(GetParam().down, GetParam().up, seed);
    EXPECT_TRUE(cluster.run_push(cluster.push_all(), 120 * kSecond));
    EXPECT_TRUE(cluster.lead().push_report().complete());
    EXPECT_TRUE(cluster.identical());
  }
}

INSTANTIATE_TEST_SUITE_P(Rates, PushUnderLoss,
                         testing::Values(Loss{0, 0}, Loss{0.01, 0.01}, Loss{0.05, 0.05},
                                         Loss{0.2, 0.05}, Loss{0.2, 0.2}));

}  // namespace
}  // namespace pkgdist::test
