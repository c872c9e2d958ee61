// A push as lines of JSON, and back.
#include "push_wire.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

namespace pkgdist::lead_program {
namespace {

QueuedPush example() {
  QueuedPush push;
  push.name = "release 7";
  push.root = "/srv/p\xff";
  push.own_root = true;
  push.request.location = 3;
  push.request.type = 6;
  push.request.priority = 1;
  push.request.nodes = {0x0A000002, 0x0A000003};
  push.request.node_timeout = 7 * lead::kSecond;
  push.request.max_time = 9 * lead::kSecond;
  push.request.slow_nodes = lead::SlowNodes::kAfter;
  push.durable_seconds = 2.5;
  for (int i = 0; i < 4500; ++i)
    push.request.files.push_back({"f\xfe" + std::to_string(i), static_cast<uint64_t>(i)});
  push.request.directories = {"d", "d/\xff"};
  push.tree.directories = {{".", 0755, 1}, {"d/\xff", 02750, -7}};
  push.tree.mirror = push.tree.only_list = true;
  push.tree.others = {"d/\xfd"};
  push.tree.filter = {{"*.o"}, {"keep.o"}};
  push.tree.checksums = {{"manifest \xff", "signature", 1ull << 33}, {"another", "", 7}};
  return push;
}

TEST(PushWire, a_request_arrives_as_it_was_sent) {
  const QueuedPush sent = example();
  PushReader reader;
  const std::vector<Json> lines = encode_push(sent);
  for (size_t i = 0; i < lines.size(); ++i) {
    const Json line = Json::parse(lines[i].dump());  // what is no text would throw here
    EXPECT_EQ(reader.add(line), i + 1 == lines.size());
  }
  const QueuedPush got = reader.take();
  EXPECT_EQ(got.name, sent.name);
  EXPECT_EQ(got.root, sent.root);
  EXPECT_TRUE(got.own_root);
  EXPECT_EQ(got.durable_seconds, sent.durable_seconds);
  EXPECT_EQ(got.request.location, 3u);
  EXPECT_EQ(got.request.type, 6u);
  EXPECT_EQ(got.request.priority, 1u);
  EXPECT_EQ(got.request.nodes, sent.request.nodes);
  EXPECT_EQ(got.request.node_timeout, sent.request.node_timeout);
  EXPECT_EQ(got.request.max_time, sent.request.max_time);
  EXPECT_EQ(got.request.slow_nodes, sent.request.slow_nodes);
  EXPECT_EQ(got.request.directories, sent.request.directories);
  ASSERT_EQ(got.request.files.size(), sent.request.files.size());
  EXPECT_EQ(got.request.files[4321].name, sent.request.files[4321].name);
  EXPECT_EQ(got.request.files[4321].size, 4321u);
  EXPECT_EQ(got.tree.directories, sent.tree.directories);
  EXPECT_TRUE(got.tree.mirror);
  EXPECT_TRUE(got.tree.only_list);
  EXPECT_EQ(got.tree.others, sent.tree.others);
  EXPECT_EQ(got.tree.filter.exclude, sent.tree.filter.exclude);
  EXPECT_EQ(got.tree.filter.include, sent.tree.filter.include);
  EXPECT_EQ(got.tree.checksums, sent.tree.checksums);
}

TEST(PushWire, a_request_that_makes_no_sense_is_refused) {
  Json head = encode_push(example())[0];
  head["slow_nodes"] = 3;
  EXPECT_THROW((void)PushReader().add(head), std::exception);
  head.erase("slow_nodes");
  EXPECT_THROW((void)PushReader().add(head), std::exception);
  PushReader begun;
  (void)begun.add(encode_push(example())[0]);
  EXPECT_THROW((void)begun.add({{"files", {{"not base64", 1}}}}), std::exception);
}

TEST(PushWire, a_report_arrives_as_it_was_sent) {
  lead::PushReport sent;
  sent.started = true;
  sent.started_at = 5 * lead::kSecond;
  sent.waits_since = 4 * lead::kSecond;
  sent.files = 7;
  sent.bytes = 1ull << 40;
  sent.expected_nodes = 2;
  lead::PushNodeReport& node = sent.nodes.emplace_back();
  node.address = 0x0A000002;
  node.heard = node.deferred = true;
  node.files_failed = 1;
  node.bytes_left = 77;
  node.repairs = 12;
  node.finished_at = 6 * lead::kSecond;
  node.last_heard = 7 * lead::kSecond;
  node.bytes_sent = 4321;
  node.failed = {{3, 0xDEAD'BEEF'0000'0001}};
  node.open = {1, 6};
  const lead::PushReport got = decode_report(Json::parse(encode_report(sent).dump()));
  EXPECT_EQ(got.started_at, sent.started_at);
  EXPECT_EQ(got.waits_since, sent.waits_since);
  EXPECT_FALSE(got.finished);
  EXPECT_EQ(got.bytes, sent.bytes);
  EXPECT_EQ(got.expected_nodes, 2u);
  ASSERT_EQ(got.nodes.size(), 1u);
  EXPECT_EQ(got.nodes[0].address, node.address);
  EXPECT_TRUE(got.nodes[0].heard);
  EXPECT_FALSE(got.nodes[0].silent);
  EXPECT_TRUE(got.nodes[0].deferred);
  EXPECT_EQ(got.nodes[0].files_failed, 1u);
  EXPECT_EQ(got.nodes[0].bytes_left, 77u);
  EXPECT_EQ(got.nodes[0].repairs, 12u);
  EXPECT_EQ(got.nodes[0].finished_at, node.finished_at);
  EXPECT_EQ(got.nodes[0].last_heard, node.last_heard);
  EXPECT_EQ(got.nodes[0].bytes_sent, node.bytes_sent);
  EXPECT_EQ(got.nodes[0].failed, node.failed);
  EXPECT_EQ(got.nodes[0].open, node.open);
}

TEST(PushWire, a_report_names_a_bounded_number_of_files) {
  lead::PushReport sent;
  for (int i = 0; i < 3; ++i) sent.nodes.emplace_back().open.resize(60'000);
  const lead::PushReport got = decode_report(encode_report(sent));
  EXPECT_EQ(got.nodes[0].open.size() + got.nodes[1].open.size() + got.nodes[2].open.size(),
            100'000u);
}

TEST(PushWire, counters_are_those_since_the_push_began) {
  lead::Counters before, now;
  before.segments_sent = 10;
  before.misaddressed = 1;
  now.segments_sent = 25;
  now.misaddressed = 4;
  const lead::Counters got = decode_counters(encode_counters(difference(now, before)));
  EXPECT_EQ(got.segments_sent, 15u);
  EXPECT_EQ(got.misaddressed, 3u);
  EXPECT_EQ(got.bad_datagrams, 0u);
}

}  // namespace
}  // namespace pkgdist::lead_program
