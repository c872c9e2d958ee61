// Nodes that have a part of a file and ask for the rest before the stream has begun with it.
#include <gtest/gtest.h>

#include "lead_cluster.h"

namespace pkgdist::test {
namespace {

using lead::kSecond;

constexpr size_t kSegment = lead::kDefaultSegmentSize;
constexpr uint32_t kSegments = 2000;

class Resume : public testing::Test {
 protected:
  Resume() { cluster_.store.add("file", pattern(kSegments * kSegment, 1)); }

  // A node with a partial file of which these segments are right, the others not.
  void add_node_with(ModelNode::Good good) {
    const size_t index = cluster_.add_host();
    StoredFile partial;
    partial.content = cluster_.store.files().at("1:file").content;
    for (uint32_t k = 0; k < kSegments; ++k)
      if (!good(k)) partial.content[k * kSegment] ^= 1;
    cluster_.host(index).disk["1:file.tmp"] = partial;
    cluster_.node(index).go_on_with(std::move(good));
  }
  void push() {
    EXPECT_TRUE(cluster_.run_push(cluster_.push_all(), 60 * kSecond));
    EXPECT_TRUE(cluster_.lead().push_report().complete());
    EXPECT_TRUE(cluster_.identical());
  }
  uint64_t sent() { return cluster_.lead().counters().segments_sent; }

  LeadCluster cluster_;
};

TEST_F(Resume, only_what_a_node_lacks_is_sent) {
  add_node_with([](uint32_t k) { return k < 1500 && k != 7; });
  push();
  EXPECT_GE(sent(), 501u);
  EXPECT_LE(sent(), 501u + 2);  // the first and the last one may be shown again
}

TEST_F(Resume, what_several_nodes_lack_is_sent_once) {
  add_node_with([](uint32_t k) { return k < 1500; });
  add_node_with([](uint32_t k) { return k < 1600 && k >= 100; });
  push();
  EXPECT_GE(sent(), 600u);
  EXPECT_LE(sent(), 600u + 2);
}

TEST_F(Resume, a_node_that_has_nothing_gets_everything_and_the_others_no_more_than_that) {
  add_node_with([](uint32_t k) { return k < 1500; });
  cluster_.add_host();
  push();
  EXPECT_GE(sent(), kSegments);
  EXPECT_LE(sent(), kSegments + 2);
}

TEST_F(Resume, a_node_that_lacks_nearly_everything_gets_it_from_the_stream) {
  add_node_with([](uint32_t k) { return k == 0; });
  push();
  EXPECT_EQ(cluster_.lead().counters().repairs_sent, 0u);
}

class ResumeUnderLoss : public Resume, public testing::WithParamInterface<uint64_t> {};

TEST_P(ResumeUnderLoss, ends_whole) {
  add_node_with([](uint32_t k) { return k % 200 != 0; });
  add_node_with([](uint32_t k) { return k < 1900; });
  cluster_.set_loss(0.1, 0.1, GetParam());
  push();
}

INSTANTIATE_TEST_SUITE_P(Seeds, ResumeUnderLoss, testing::Range(uint64_t{1}, uint64_t{9}));

}  // namespace
}  // namespace pkgdist::test
