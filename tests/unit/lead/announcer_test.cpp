#include "push/announcer.h"

#include "push_fixture.h"

namespace pkgdist::lead {
namespace {

constexpr Time kListWait = 2 * kSecond;

class AnnouncerTest : public PushFixture {
 protected:
  explicit AnnouncerTest(PushRequest request = request_of({"a", "b"}))
      : plan_(std::move(request), kXact) {}

  void run(Time now, bool in_transfer = false) {
    announcer_.run([in_transfer](uint32_t) { return in_transfer; }, now);
  }
  Announcer::Arrived acknowledge(NodeIndex node, Time now = kStart) {
    return announcer_.on_acknowledged(control_.last_sequence(), node, true, now);
  }

  PushPlan plan_;
  Members members_{plan_};
  Announcer announcer_{plan_, members_, nodes_, control_};
};

using What = Announcer::Arrived::What;

TEST_F(AnnouncerTest, a_piece_is_ready_when_every_member_has_acknowledged_its_list) {
  const NodeIndex one = add_member(members_, announcer_);
  const NodeIndex other = add_member(members_, announcer_);
  EXPECT_FALSE(announcer_.ready(0, kStart));
  EXPECT_EQ(messages(), 1u);
  EXPECT_EQ(acknowledge(one).what, What::kPiece);
  EXPECT_FALSE(announcer_.ready(0, kStart));
  EXPECT_EQ(announcer_.listeners(0), std::vector<NodeIndex>{one});
  EXPECT_EQ(acknowledge(other).what, What::kPiece);
  EXPECT_TRUE(announcer_.ready(0, kStart));
  EXPECT_EQ(messages(), 0u);
}

TEST_F(AnnouncerTest, a_piece_waits_two_seconds_at_most) {
  add_member(members_, announcer_);
  EXPECT_FALSE(announcer_.ready(0, kStart));
  EXPECT_EQ(announcer_.next_deadline(kStart), kStart + kListWait);
  EXPECT_FALSE(announcer_.ready(0, kStart + kListWait - 1));
  EXPECT_TRUE(announcer_.ready(0, kStart + kListWait));
  EXPECT_TRUE(announcer_.listeners(0).empty());
}

TEST_F(AnnouncerTest, who_restarts_has_heard_of_nothing) {
  const NodeIndex node = add_member(members_, announcer_);
  announcer_.ready(0, kStart);
  acknowledge(node);
  ASSERT_TRUE(announcer_.has_heard(node, 0));
  announcer_.forget(node);
  EXPECT_FALSE(announcer_.has_heard(node, 0));
  EXPECT_FALSE(announcer_.reached(node));
  messages();
  EXPECT_FALSE(announcer_.ready(0, kStart));
  EXPECT_EQ(messages(), 1u);
}

TEST_F(AnnouncerTest, nodes_that_appear_together_are_told_together_of_what_is_in_transfer) {
  const std::vector<NodeIndex> nodes{add_member(members_, announcer_),
                                     add_member(members_, announcer_)};
  for (const NodeIndex node : nodes) announcer_.inform(node);
  run(kStart, true);
  EXPECT_EQ(messages(), 1u);
  run(kStart, true);
  EXPECT_EQ(messages(), 0u);
  announcer_.inform(nodes[0]);
  run(kStart, false);
  EXPECT_EQ(messages(), 0u);
}

TEST_F(AnnouncerTest, files_are_told_again_in_one_list_and_with_pauses) {
  const NodeIndex node = add_member(members_, announcer_);
  announcer_.tell_again(node, 0);
  announcer_.tell_again(node, 1);
  run(kStart);
  EXPECT_EQ(messages(), 1u);
  const Announcer::Arrived arrived = acknowledge(node);
  EXPECT_EQ(arrived.what, What::kFiles);
  EXPECT_EQ(arrived.files, (std::vector<uint32_t>{0, 1}));
  announcer_.tell_again(node, 1);
  run(kStart + kMillisecond);
  EXPECT_EQ(messages(), 0u);
  run(announcer_.next_deadline(kStart));
  EXPECT_EQ(messages(), 1u);
}

TEST_F(AnnouncerTest, a_list_that_is_not_acknowledged_is_unheeded_since_it_was_sent) {
  const NodeIndex node = add_member(members_, announcer_);
  EXPECT_EQ(announcer_.unheeded(node, kStart), 0u);
  announcer_.ready(0, kStart);
  EXPECT_EQ(announcer_.unheeded(node, kStart + kSecond), kSecond);
  announcer_.excuse(node, kStart + kSecond);
  EXPECT_EQ(announcer_.unheeded(node, kStart + 3 * kSecond), 2 * kSecond);
  acknowledge(node, kStart + 3 * kSecond);
  EXPECT_EQ(announcer_.unheeded(node, kStart + 9 * kSecond), 0u);
  EXPECT_TRUE(announcer_.reached(node));
}

TEST_F(AnnouncerTest, who_is_dismissed_is_told_so_and_its_lists_are_not_repeated) {
  const NodeIndex node = add_member(members_, announcer_);
  announcer_.ready(0, kStart);
  ASSERT_TRUE(control_.lists_outstanding());
  messages();
  announcer_.dismiss(node, kStart);
  EXPECT_EQ(messages(), 1u);
  EXPECT_FALSE(control_.lists_outstanding());
  EXPECT_EQ(announcer_.unheeded(node, kStart + kSecond), 0u);
}

class AnnouncerOfDirectories : public AnnouncerTest {
 protected:
  AnnouncerOfDirectories() : AnnouncerTest(with_directory()) {}
  static PushRequest with_directory() {
    PushRequest request = request_of({"d/a"});
    request.directories = {"d"};
    return request;
  }
};

TEST_F(AnnouncerOfDirectories, room_is_made_before_a_file_is_told_of) {
  const NodeIndex node = add_member(members_, announcer_);
  run(kStart);
  EXPECT_EQ(messages(), 1u);
  EXPECT_TRUE(announcer_.places_pending(kStart));
  EXPECT_FALSE(announcer_.places_pending(kStart + kListWait));
  EXPECT_TRUE(announcer_.ready(0, kStart));  // for nobody
  EXPECT_EQ(messages(), 0u);
  EXPECT_EQ(acknowledge(node).what, What::kPlaces);
  EXPECT_FALSE(announcer_.places_pending(kStart));
  EXPECT_FALSE(announcer_.ready(0, kStart));
  EXPECT_EQ(messages(), 1u);
}

TEST_F(AnnouncerOfDirectories, a_restarted_process_makes_room_again_unless_it_has) {
  const NodeIndex node = add_member(members_, announcer_);
  run(kStart);
  announcer_.forget(node);
  messages();
  run(kStart);
  EXPECT_EQ(messages(), 1u);
  acknowledge(node);
  announcer_.forget(node);
  messages();
  run(kStart);
  EXPECT_EQ(messages(), 0u);
}

}  // namespace
}  // namespace pkgdist::lead
