#include "push/push_plan.h"

#include <gtest/gtest.h>

namespace pkgdist::lead {
namespace {

PushPlan plan_of(const std::vector<std::string>& names) {
  PushRequest request;
  for (const std::string& name : names) request.files.push_back({name, name.size()});
  return {std::move(request), 7};
}

TEST(PushPlan, files_keep_their_order_when_no_name_is_in_the_way_of_another) {
  const PushPlan plan = plan_of({"b", "a", "c"});
  EXPECT_EQ(plan.name(0), "b");
  EXPECT_EQ(plan.original(2), 2u);
  EXPECT_FALSE(plan.leveled());
}

TEST(PushPlan, a_name_that_a_partial_file_takes_comes_later_and_keeps_its_place_in_the_request) {
  const PushPlan plan = plan_of({"a.tmp", "b", "a"});
  EXPECT_TRUE(plan.leveled());
  EXPECT_EQ(plan.name(2), "a.tmp");
  EXPECT_EQ(plan.original(2), 0u);
  EXPECT_EQ(plan.original(0), 1u);
  EXPECT_EQ(plan.original(1), 2u);
  EXPECT_EQ(plan.pieces().size(), 2u);
  EXPECT_EQ(plan.piece_of(1), 0u);
  EXPECT_EQ(plan.piece_of(2), 1u);
}

TEST(PushPlan, files_are_found_by_name) {
  const PushPlan plan = plan_of({"a.tmp", "a"});
  EXPECT_EQ(plan.find("a"), 0u);
  EXPECT_EQ(plan.find("a.tmp"), 1u);
  EXPECT_EQ(plan.find("c"), std::nullopt);
  EXPECT_EQ(plan.key(1).name, "a.tmp");
}

TEST(PushPlan, sizes_add_up) {
  const PushPlan plan = plan_of({"a", "bbb", "cc"});
  EXPECT_EQ(plan.bytes(), 6u);
  EXPECT_EQ(plan.bytes_of({1, 3}), 5u);
}

TEST(PushPlan, without_a_list_of_nodes_every_node_is_wanted_and_a_number_of_them_expected) {
  PushRequest request;
  request.files.push_back({"a", 1});
  request.node_count = 3;
  const PushPlan plan(request, 7);
  EXPECT_TRUE(plan.wants(5));
  EXPECT_EQ(plan.expected_nodes(), 3u);
}

TEST(PushPlan, with_a_list_only_its_nodes_are_wanted) {
  PushRequest request;
  request.files.push_back({"a", 1});
  request.nodes = {4, 5};
  const PushPlan plan(request, 7);
  EXPECT_TRUE(plan.wants(5));
  EXPECT_FALSE(plan.wants(6));
  EXPECT_EQ(plan.expected_nodes(), 2u);
}

}  // namespace
}  // namespace pkgdist::lead
