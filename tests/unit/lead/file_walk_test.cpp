#include "push/file_walk.h"

#include "memory_store.h"
#include "push_fixture.h"
#include "recording_sink.h"

namespace pkgdist::lead {
namespace {

class NoObserver : public TransferObserver {
 public:
  void transfer_ended(const Transfer&, NodeIndex, uint64_t, bool) override {}
  void transfer_overheard(const Transfer&, NodeIndex) override {}
  bool transfer_unlisted(const Transfer&, NodeIndex) override { return false; }
  bool transfer_ends_unknown(const Transfer&, uint64_t) override { return true; }
  void transfer_closed(const Transfer&) override {}
};

class FileWalkTest : public PushFixture {
 protected:
  explicit FileWalkTest(PushRequest request = request_of({"a", "b"})) : plan_(request, kXact) {
    for (const PushFile& file : request.files)
      store_.add(file.name, test::Bytes(static_cast<size_t>(file.size)));
    walk_.begin(kStart);
  }

  void acknowledge(NodeIndex node, Time now = kStart) {
    const Announcer::Arrived arrived =
        announcer_.on_acknowledged(control_.last_sequence(), node, true, now);
    walk_.go_round_for(arrived.piece);
    walk_.join_piece(arrived.piece, node, now);
  }
  // What has a transfer, by name.
  bool in_transfer(const std::string& name) { return data_.find({1, name}) != kNoTransfer; }
  bool receives(NodeIndex node, const std::string& name) {
    const Transfer* transfer = data_.get(data_.find({1, name}));
    return transfer != nullptr && node < transfer->nodes.size() &&
           transfer->nodes[node].state == TransferNode::State::kOpen;
  }

  test::RecordingSink data_sink_;
  test::MemoryStore store_;
  NoObserver observer_;
  PushPlan plan_;
  Members members_{plan_};
  Announcer announcer_{plan_, members_, nodes_, control_};
  DataSender data_{settings_, nodes_, data_sink_, store_, counters_, observer_};
  FileWalk walk_{plan_, members_, announcer_, data_};
};

TEST_F(FileWalkTest, files_go_out_when_their_list_has_been_acknowledged) {
  const NodeIndex node = add_member(members_, announcer_);
  walk_.feed(kStart);
  EXPECT_FALSE(in_transfer("a"));
  EXPECT_FALSE(walk_.in_transfer(0));
  acknowledge(node);
  walk_.feed(kStart);
  EXPECT_TRUE(receives(node, "a"));
  EXPECT_TRUE(receives(node, "b"));
  EXPECT_TRUE(walk_.in_transfer(0));
}

TEST_F(FileWalkTest, who_acknowledges_late_joins_what_is_in_transfer) {
  const NodeIndex early = add_member(members_, announcer_);
  const NodeIndex late = add_member(members_, announcer_);
  walk_.feed(kStart);
  acknowledge(early);
  walk_.feed(kStart + 2 * kSecond);
  EXPECT_TRUE(receives(early, "a"));
  EXPECT_FALSE(receives(late, "a"));
  acknowledge(late, kStart + 3 * kSecond);
  EXPECT_TRUE(receives(late, "a"));
}

TEST_F(FileWalkTest, a_file_that_ends_while_somebody_lacks_it_comes_again) {
  const NodeIndex node = add_member(members_, announcer_);
  walk_.feed(kStart);
  acknowledge(node);
  walk_.feed(kStart);
  data_.displace(data_.find({1, "a"}));
  walk_.on_closed(0);
  EXPECT_FALSE(in_transfer("a"));
  walk_.feed(kStart);
  EXPECT_TRUE(receives(node, "a"));
}

TEST_F(FileWalkTest, what_everybody_has_is_not_sent) {
  const NodeIndex node = add_member(members_, announcer_);
  members_.end(members_[node], 0, 0, kStart);
  walk_.feed(kStart);
  acknowledge(node);
  walk_.feed(kStart);
  EXPECT_FALSE(in_transfer("a"));
  EXPECT_TRUE(in_transfer("b"));
}

TEST_F(FileWalkTest, what_nobody_of_the_push_needs_any_more_takes_no_place_of_it) {
  const NodeIndex node = add_member(members_, announcer_);
  walk_.feed(kStart);
  acknowledge(node);
  walk_.feed(kStart);
  for (const uint32_t file : {0, 1}) members_.end(members_[node], file, 0, kStart);
  walk_.run(kStart);
  EXPECT_TRUE(walk_.in_transfer(0));
  walk_.look_for_unneeded();
  walk_.run(kStart);
  EXPECT_FALSE(walk_.in_transfer(0));
}

TEST_F(FileWalkTest, a_transfer_that_a_stranger_asked_for_is_taken_over_when_it_is_fresh) {
  const NodeIndex node = add_member(members_, announcer_);
  const NodeIndex stranger = add_node();
  const TransferId id = data_.start_requested({1, "a"}, 2, stranger, kStart);
  walk_.feed(kStart);
  acknowledge(node);
  walk_.feed(kStart);
  EXPECT_EQ(data_.find({1, "a"}), id);
  EXPECT_TRUE(receives(node, "a"));
  EXPECT_TRUE(receives(stranger, "a"));
}

TEST_F(FileWalkTest, a_transfer_from_before_the_push_is_ended_after_a_second) {
  const NodeIndex node = add_member(members_, announcer_);
  const NodeIndex stranger = add_node();
  const Time before = kStart - kMillisecond;
  const TransferId id = data_.start_requested({1, "a"}, 2, stranger, before);
  walk_.feed(kStart);
  acknowledge(node);
  walk_.feed(kStart);
  EXPECT_EQ(data_.find({1, "a"}), id);
  EXPECT_EQ(walk_.next_deadline(), before + kSecond);
  walk_.run(before + kSecond);
  walk_.feed(before + kSecond);
  EXPECT_NE(data_.find({1, "a"}), id);
  EXPECT_TRUE(receives(node, "a"));
}

class LeveledWalk : public FileWalkTest {
 protected:
  LeveledWalk() : FileWalkTest(request_of({"a", "a.tmp"})) {}
};

TEST_F(LeveledWalk, the_next_level_waits_for_the_end_of_this_one) {
  const NodeIndex node = add_member(members_, announcer_);
  walk_.feed(kStart);
  acknowledge(node);
  walk_.feed(kStart);
  EXPECT_TRUE(in_transfer("a"));
  EXPECT_FALSE(announcer_.announced(1));
  members_.end(members_[node], 0, 0, kStart);
  data_.displace(data_.find({1, "a"}));
  walk_.on_closed(0);
  walk_.go_round();
  walk_.feed(kStart);
  acknowledge(node);
  walk_.feed(kStart);
  EXPECT_TRUE(in_transfer("a.tmp"));
}

}  // namespace
}  // namespace pkgdist::lead
