#include "push/members.h"

#include <cerrno>

#include "push_fixture.h"

namespace pkgdist::lead {
namespace {

class MembersTest : public PushFixture {
 protected:
  static Transfer transfer_of(const PushPlan& plan, uint32_t file) {
    return {1, plan.key(file), {plan.size(file), 0644, 0}, 1};
  }
};

TEST_F(MembersTest, files_are_needed_by_the_present_members_on_which_they_have_not_ended) {
  const PushPlan plan(request_of({"a", "b"}), kXact);
  Members members(plan);
  const NodeIndex one = add_member(members);
  const NodeIndex other = add_member(members);
  EXPECT_EQ(members.needed(0), 2u);
  EXPECT_EQ(members.unfinished(), 2u);
  members.end(members[one], 0, 0, kStart);
  EXPECT_EQ(members.needed(0), 1u);
  EXPECT_EQ(members.needed(1), 2u);
  members.set_present(members[other], false);
  EXPECT_EQ(members.needed(0), 0u);
  EXPECT_EQ(members.needed(1), 1u);
  EXPECT_EQ(members.unfinished(), 1u);
}

TEST_F(MembersTest, who_comes_back_lacks_what_it_lacked) {
  const PushPlan plan(request_of({"a", "b"}), kXact);
  Members members(plan);
  const NodeIndex node = add_member(members);
  members.end(members[node], 0, 0, kStart);
  EXPECT_TRUE(members.set_present(members[node], false));
  EXPECT_FALSE(members.set_present(members[node], false));
  members.set_present(members.enter(node, nodes_[node].info), true);
  EXPECT_EQ(members.needed(0), 0u);
  EXPECT_EQ(members.needed(1), 1u);
  EXPECT_EQ(members.lacking(members[node], {0, 2}), std::vector<uint32_t>{1});
}

TEST_F(MembersTest, a_member_is_finished_with_its_last_file) {
  const PushPlan plan(request_of({"a", "b"}), kXact);
  Members members(plan);
  const NodeIndex node = add_member(members);
  EXPECT_FALSE(members.end(members[node], 1, ENOSPC, kStart));
  EXPECT_EQ(members[node].report.finished_at, 0u);
  EXPECT_TRUE(members.end(members[node], 0, 0, kStart + 5));
  EXPECT_EQ(members.unfinished(), 0u);
  EXPECT_EQ(members[node].report.finished_at, kStart + 5);
  EXPECT_EQ(members[node].report.bytes_left, 0u);
  EXPECT_EQ(members[node].failed, (std::map<uint32_t, uint64_t>{{1, ENOSPC}}));
}

TEST_F(MembersTest, a_level_opens_when_the_one_below_has_ended_on_every_present_member) {
  const PushPlan plan(request_of({"a", "a.tmp"}), kXact);
  Members members(plan);
  const NodeIndex one = add_member(members);
  const NodeIndex other = add_member(members);
  members.end(members[one], 0, 0, kStart);
  EXPECT_TRUE(members.may_hear(members[one], 1));
  EXPECT_FALSE(members.may_hear(members[other], 1));
  EXPECT_TRUE(members.level_open(0));
  EXPECT_FALSE(members.level_open(1));
  members.set_present(members[other], false);
  EXPECT_TRUE(members.level_open(1));
}

TEST_F(MembersTest, content_that_many_receive_is_counted_once_and_what_was_there_not_at_all) {
  const PushPlan plan(request_of({"a", "b"}, 1000), kXact);
  Members members(plan);
  const NodeIndex one = add_member(members);
  const NodeIndex other = add_member(members);
  for (const NodeIndex node : {one, other})
    members.count_end(members[node], 0, transfer_of(plan, 0), 0, false);
  members.count_end(members[one], 1, transfer_of(plan, 1), 0, true);
  EXPECT_EQ(members.bytes_received(), 1000u);
  EXPECT_EQ(members[one].report.files_done, 2u);
  EXPECT_EQ(members[one].report.files_skipped, 1u);
  EXPECT_EQ(members[one].report.bytes_done, 2000u);
  EXPECT_EQ(members[one].report.segments, 1u);
}

TEST_F(MembersTest, a_node_that_was_never_entered_is_no_member) {
  const PushPlan plan(request_of({"a"}), kXact);
  Members members(plan);
  const NodeIndex stranger = add_node();
  const NodeIndex node = add_member(members);
  EXPECT_EQ(members.find(stranger), nullptr);
  EXPECT_EQ(members.find(node + 1), nullptr);
  EXPECT_EQ(members.find(node), &members[node]);
  EXPECT_EQ(members.present(), 1u);
}

}  // namespace
}  // namespace pkgdist::lead
