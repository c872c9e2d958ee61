// How the lead scales with nodes and files. Bytes and virtual times are the same on every machine;
// processor time is for bench/scale.
#include <gtest/gtest.h>

#include <random>

#include "pkgdist/status.h"
#include "pkgdist/wire_ctrl.h"
#include "pkgdist/wire_data.h"
#include "push/file_list.h"
#include "scale_case.h"
#include "stream/data_message.h"

namespace pkgdist::test {
namespace {

using lead::kMillisecond;
using lead::kSecond;

// --- The crowd's nodes are the modelled ones ---

constexpr uint32_t kLead = 0x0A000001;
constexpr uint32_t kNode = 0x0A000002;

// The same datagrams for a ModelNode and for a crowd of one; what both say must be the same.
class Twins {
 public:
  Twins()
      : crowd_(
            1, kNode, NodeTimeouts::of_the_library(),
            [this](uint32_t, Bytes bytes) { of_crowd_.push_back(std::move(bytes)); },
            [](const std::string&, uint64_t, std::span<const uint8_t>) { return true; }),
        model_({kNode, 1, 0, 7, {}}, disk_, [this](ModelNode::To to, Bytes bytes) {
          if (to == ModelNode::To::kData) of_model_.push_back(std::move(bytes));
        }) {
    using H = pkgdist_ctrl_msg_hdr;
    H ping{};
    qidl::set<&H::msg_id>(ping, PKGDIST_CTRL_MSG_PING);
    qidl::set<&H::node_ip>(ping, kLead);
    qidl::set<&H::pid>(ping, 1);
    qidl::set<&H::sequence>(ping, 0);
    model_.on_control(framed(ping), now_);
  }

  void list(const std::vector<std::string>& names) {
    lead::PushRequest push;
    push.type = PKGDIST_FILE_TYPE_ALWAYS;  // a crowd does not skip what it has
    std::vector<uint32_t> all;
    for (const std::string& name : names) {
      all.push_back(static_cast<uint32_t>(push.files.size()));
      push.files.push_back({name, 0});
    }
    const Bytes bytes = lead::encode_file_lists(push, 1, all).front();
    crowd_.on_list(0, bytes, now_);
    using H = pkgdist_ctrl_msg_hdr;
    using B = pkgdist_ctrl_msg;
    H header{};
    qidl::set<&H::msg_id>(header, PKGDIST_CTRL_MSG_CTRL);
    qidl::set<&H::node_ip>(header, kLead);
    qidl::set<&H::pid>(header, 1);
    qidl::set<&H::sequence>(header, ++sequence_);
    B body{};
    qidl::set<&B::msg_class>(body, PKGDIST_CTRL_CLASS_FILE_SEND);
    qidl::set<&B::total_size>(body, bytes.size());
    qidl::set<&B::segment_size>(body, static_cast<uint32_t>(bytes.size()));
    body.data = bytes.data();
    body.data_size = bytes.size();
    qidl::mark<&B::data>(body);
    model_.on_control(framed(header, body), now_);
  }
  void data(const Bytes& bytes) {
    const std::array<uint8_t, 1> got{1};
    crowd_.on_data(bytes, got, now_);
    model_.on_data(bytes, now_);
  }
  void half_a_second() {
    now_ += 500 * kMillisecond;
    model_.run(now_);
    crowd_.scan(0, now_);
  }
  void wait(uint64_t time) { now_ += time; }
  // What was said since the last call; the order of files within a time-out pass is free.
  std::pair<std::vector<Bytes>, std::vector<Bytes>> said() {
    std::pair<std::vector<Bytes>, std::vector<Bytes>> both;
    both.first = std::exchange(of_crowd_, {});
    both.second = std::exchange(of_model_, {});
    std::sort(both.first.begin(), both.first.end());
    std::sort(both.second.begin(), both.second.end());
    return both;
  }
  const CrowdFiles::Counters& counters() const { return crowd_.counters(); }

 private:
  uint64_t now_ = kSecond;
  uint32_t sequence_ = 0;
  Disk disk_;
  std::vector<Bytes> of_crowd_, of_model_;
  CrowdFiles crowd_;
  ModelNode model_;
};

// A lead's datagrams about one file of so many segments.
class Announced {
 public:
  Announced(lead::TransferId id, const std::string& name, uint32_t segments)
      : transfer_(id, {1, name}, {uint64_t{segments} * kSize, 0644, 1, false}, segments) {}

  Bytes info() {
    return built(
        [&](std::span<uint8_t> out) { return lead::build_info(out, kLead, transfer_, kSize, {}); });
  }
  Bytes question() {
    pkgdist_data_msg_hdr header{};
    qidl::set<&pkgdist_data_msg_hdr::msg_id>(header, PKGDIST_DATA_MSG_MISS_DONE);
    qidl::set<&pkgdist_data_msg_hdr::node_ip>(header, kLead);
    using B = pkgdist_data_send_miss_done;
    B body{};
    qidl::set<&B::file_id>(body, transfer_.id);
    qidl::set<&B::name>(body, const_cast<char*>(transfer_.key.name.c_str()));
    qidl::set<&B::location>(body, transfer_.key.location);
    return framed(header, body);
  }
  Bytes segment(uint32_t segment, bool repair) {
    return built([&](std::span<uint8_t> out) {
      return lead::SegmentBuilder(kLead).finish(out, transfer_.id, segment, repair, kSize);
    });
  }
  uint32_t segments() const { return transfer_.segments; }

 private:
  static constexpr uint32_t kSize = 8;  // bytes of a segment
  template <class Build>
  static Bytes built(Build&& build) {
    Bytes bytes(1500);
    bytes.resize(build(std::span<uint8_t>(bytes)));
    return bytes;
  }
  lead::Transfer transfer_;
};

TEST(Crowd, says_what_a_modelled_node_says) {
  uint64_t requests = 0, complete = 0, time_outs = 0;
  for (uint64_t run = 1; run <= 30; ++run) {
    std::mt19937_64 random(run);
    const auto chance = [&](unsigned percent) { return random() % 100 < percent; };
    Twins twins;
    std::vector<Announced> files;
    const uint32_t sizes[] = {1, 7, 64, 65, 300, 1000};
    std::vector<std::string> names;
    for (uint32_t i = 0; i < 6; ++i) {
      names.push_back("f" + std::to_string(i));
      files.emplace_back(i + 1, names.back(), sizes[i]);
    }
    twins.list(names);
    const unsigned loss = static_cast<unsigned>(run % 4) * 10;
    for (int round = 0; round < 12; ++round) {
      for (Announced& file : files) {
        if (!chance(loss)) twins.data(file.info());
        const auto first = static_cast<uint32_t>(random() % file.segments());
        for (uint32_t i = 0; i < file.segments() && round % 4 == 0; ++i)
          if (!chance(loss + 10)) twins.data(file.segment((first + i) % file.segments(), false));
        for (uint32_t i = 0; i < 20; ++i)
          twins.data(file.segment(static_cast<uint32_t>(random() % file.segments()), chance(80)));
        if (chance(50)) twins.data(file.question());
        twins.wait(random() % (50 * kMillisecond));
        const auto said = twins.said();
        ASSERT_EQ(said.first, said.second) << "run " << run << " round " << round;
      }
      for (uint64_t i = random() % 8; i > 0; --i) {
        twins.half_a_second();
        const auto said = twins.said();
        ASSERT_EQ(said.first, said.second) << "run " << run << " round " << round;
      }
      if (chance(10)) twins.list(names);
    }
    requests += twins.counters().requests;
    complete += twins.counters().complete;
    time_outs += twins.counters().time_outs;
  }
  EXPECT_GT(requests, 1000u);
  EXPECT_GT(complete, 50u);
  EXPECT_GT(time_outs, 50u);
}

TEST(Crowd, loses_the_share_that_was_set) {
  CrowdLoss loss(2);
  loss.set(1, 0.1, 1);
  std::array<int, 2> lost{};
  for (int i = 0; i < 100'000; ++i)
    for (size_t receiver = 0; receiver < 2; ++receiver) lost[receiver] += loss.next(receiver);
  EXPECT_EQ(lost[0], 0);
  EXPECT_NEAR(lost[1], 10'000, 400);
}

// --- What a push costs ---

TEST(Scale, necessary_sends_follow_from_the_losses) {
  ScaleCase scale;
  scale.worst_loss = 0.2;  // one node: 10 %
  EXPECT_NEAR(necessary_sends(scale), 1 / 0.9, 1e-9);
  scale.nodes = 2;  // 5 % and 15 %
  EXPECT_NEAR(necessary_sends(scale), 1 / 0.95 + 1 / 0.85 - 1 / (1 - 0.05 * 0.15), 1e-9);
}

struct Bound {
  uint32_t nodes;
  double bytes;  // over what is necessary
  double time;   // over the time that the necessary bytes take

  friend void PrintTo(const Bound& bound, std::ostream* out) { *out << bound.nodes << " nodes"; }
};

std::string name_of(const testing::TestParamInfo<Bound>& info) {
  return std::to_string(info.param.nodes);
}

// One file of 100 MB: nodes that lack something ask again after 100 ms, a few times. Many that do
// so one after the other do it in the same round.
class LargeFile : public testing::TestWithParam<Bound> {};

TEST_P(LargeFile, costs_little_more_than_the_losses_make_necessary) {
  ScaleCase scale;
  scale.nodes = GetParam().nodes;
  scale.file_bytes = 100'000'000;
  scale.up_share = 0.1;
  const ScaleResult result = run_scale(scale);
  EXPECT_TRUE(result.complete);
  EXPECT_LT(result.over_necessary(), GetParam().bytes);
  EXPECT_LT(result.over_ideal(scale), GetParam().time);
}

INSTANTIATE_TEST_SUITE_P(Nodes, LargeFile,
                         testing::Values(Bound{1, 1.05, 2}, Bound{10, 1.05, 2.5},
                                         Bound{100, 1.05, 2.5}),
                         name_of);

// 1 Gbit/s over a round trip of 40 ms: 5 MB on the way, forty times what the stream begins with.
// A stream that never had more on the way than that would need forty times as long.
class LongWay : public testing::TestWithParam<double> {
 protected:
  static ScaleResult push(ScaleCase& scale) {
    scale.nodes = 8;
    scale.file_bytes = 200'000'000;
    scale.rate_bits = 1'000'000'000;
    scale.round_trip = 40 * kMillisecond;
    scale.up_share = 0.1;
    return run_scale(scale);
  }
};

TEST_P(LongWay, is_filled_whether_datagrams_are_lost_or_not) {
  ScaleCase scale;
  scale.worst_loss = GetParam();
  const ScaleResult result = push(scale);
  EXPECT_TRUE(result.complete);
  EXPECT_LT(result.over_necessary(), 1.05);
  EXPECT_LT(result.over_ideal(scale), 2.3);
}

INSTANTIATE_TEST_SUITE_P(Loss, LongWay, testing::Values(0.0, 0.02, 0.1));

class SmallFiles : public testing::TestWithParam<Bound> {};

TEST_P(SmallFiles, cost_little_more_than_the_losses_make_necessary) {
  ScaleCase scale;
  scale.nodes = GetParam().nodes;
  scale.files = 1000;
  scale.file_bytes = 16384;
  scale.up_share = 0.1;
  const ScaleResult result = run_scale(scale);
  EXPECT_TRUE(result.complete);
  EXPECT_LT(result.over_necessary(), GetParam().bytes);
  EXPECT_LT(result.over_ideal(scale), GetParam().time);
}

INSTANTIATE_TEST_SUITE_P(Nodes, SmallFiles,
                         testing::Values(Bound{1, 1.2, 2}, Bound{10, 1.6, 4}, Bound{100, 1.75, 4}),
                         name_of);

// --- Many nodes ---

// A crowd that a test makes itself: a file for each of `files`, of so many bytes.
struct Scene {
  Scene(uint32_t nodes, uint32_t files, uint64_t size)
      : store(files, size),
        crowd(Crowd::default_settings(kRate), store, nodes, nullptr),
        content(files * size) {}

  void push(uint32_t nodes) {
    lead::PushRequest request = store.push_all();
    request.node_count = nodes;
    ASSERT_EQ(crowd.start_push(std::move(request)), nullptr);
  }
  bool finish(uint64_t limit) {
    return crowd.run_until([&] { return !crowd.lead().push_running(); }, limit) &&
           crowd.lead().push_report().complete();
  }
  double ideal() const { return static_cast<double>(content) * 8 / kRate; }

  static constexpr uint64_t kRate = 1'000'000'000;
  FormulaStore store;
  Crowd crowd;
  const uint64_t content;
};

TEST(Scale, a_node_far_behind_does_not_hold_the_others) {
  constexpr uint32_t kNodes = 20;
  Scene scene(kNodes, 1, 100'000'000);
  scene.crowd.set_loss(7, 0.1, 0.1, 1);
  scene.crowd.start_all();
  scene.push(kNodes);
  ASSERT_TRUE(scene.finish(60 * kSecond));
  const lead::PushReport report = scene.crowd.lead().push_report();
  for (uint32_t i = 0; i < kNodes; ++i) {
    const double seconds =
        static_cast<double>(report.nodes[i].finished_at - report.started_at) / kSecond;
    // The one behind waits for its time-outs, several times two seconds and more.
    EXPECT_LT(seconds, i == 7 ? 15 : scene.ideal() * 1.25) << i;
  }
}

TEST(Scale, a_node_that_comes_late_gets_one_whole_turn) {
  constexpr uint32_t kNodes = 50;
  constexpr uint64_t kSize = 50'000'000;
  Scene scene(kNodes + 1, 1, kSize);
  for (uint32_t i = 0; i < kNodes; ++i) scene.crowd.start_node(i);
  scene.push(kNodes);
  const uint64_t segments = kSize / lead::kDefaultSegmentSize + 1;
  const auto sent = [&] { return scene.crowd.lead().counters().segments_sent; };
  ASSERT_TRUE(scene.crowd.run_until([&] { return sent() > segments / 2; }, 10 * kSecond));
  const uint64_t before = sent();
  scene.crowd.start_node(kNodes);
  ASSERT_TRUE(scene.finish(60 * kSecond));
  EXPECT_EQ(scene.crowd.files().complete_of(kNodes), 1u);
  // It is noticed by its answer to the next ping, within a fifth of a second.
  const uint64_t noticed = before + Scene::kRate / 8 / 5 / lead::kDefaultSegmentSize;
  EXPECT_GT(sent(), before + segments);
  EXPECT_LT(sent(), noticed + segments + segments / 50);
  const lead::PushReport report = scene.crowd.lead().push_report();
  for (uint32_t i = 0; i < kNodes; ++i)
    EXPECT_LT(static_cast<double>(report.nodes[i].finished_at - report.started_at) / kSecond,
              scene.ideal() * 1.1);
}

TEST(Scale, nothing_is_asked_or_told_twice_when_nothing_is_lost) {
  constexpr uint32_t kNodes = 1000;
  constexpr uint32_t kFiles = 100;
  Scene scene(kNodes, kFiles, 4000);
  scene.crowd.start_all();
  scene.push(kNodes);
  ASSERT_TRUE(scene.finish(30 * kSecond));
  const lead::Counters& counters = scene.crowd.lead().counters();
  EXPECT_EQ(counters.miss_done_sent, 0u);
  EXPECT_EQ(counters.segments_sent, 3 * kFiles);
  EXPECT_EQ(counters.control_resent, 0u);
  // A report for each file, an acknowledgement, and the answers to pings.
  EXPECT_LE(scene.crowd.traffic().datagrams_in, kNodes * (kFiles + 1 + counters.control_sent));
}

TEST(Scale, nodes_that_appear_together_share_the_list) {
  constexpr uint32_t kEarly = 5;
  constexpr uint32_t kLate = 200;
  Scene scene(kEarly + kLate, 100, 1'000'000);
  for (uint32_t i = 0; i < kEarly; ++i) scene.crowd.start_node(i);
  scene.push(kEarly);
  ASSERT_FALSE(scene.crowd.run_until([] { return false; }, 300 * kMillisecond));
  const uint64_t before = scene.crowd.lead().counters().control_sent;
  for (uint32_t i = kEarly; i < kEarly + kLate; ++i) scene.crowd.start_node(i);
  ASSERT_TRUE(scene.finish(60 * kSecond));
  EXPECT_EQ(scene.crowd.files().counters().complete, uint64_t{kEarly + kLate} * 100);
  EXPECT_LT(scene.crowd.lead().counters().control_sent - before, 150u);
}

}  // namespace
}  // namespace pkgdist::test
