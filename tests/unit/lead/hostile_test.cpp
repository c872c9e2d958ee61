// Datagrams that no node would send: counted, dropped, without effect on what goes on.
#include <gtest/gtest.h>

#include "lead_cluster.h"
#include "pkgdist/status.h"

namespace pkgdist::test {
namespace {

using lead::Channel;
using lead::kMillisecond;
using lead::kSecond;

constexpr uint32_t kStranger = 0x0A0000FE;

pkgdist_data_msg_hdr data_header(uint32_t msg_id, uint32_t address = kStranger) {
  pkgdist_data_msg_hdr header{};
  qidl::set<&pkgdist_data_msg_hdr::msg_id>(header, msg_id);
  qidl::set<&pkgdist_data_msg_hdr::node_ip>(header, address);
  return header;
}

Bytes segment_request(uint32_t id, uint32_t segment, uint32_t num, uint32_t address = kStranger) {
  using B = struct pkgdist_data_send_req_single;
  B body{};
  qidl::set<&B::file_id>(body, id);
  qidl::set<&B::segment>(body, segment);
  qidl::set<&B::num>(body, num);
  return framed(data_header(PKGDIST_DATA_MSG_REQ_SINGLE, address), body);
}

Bytes report(uint32_t id, uint64_t status, std::string name, uint32_t address) {
  using B = pkgdist_data_send_req_done;
  B body{};
  qidl::set<&B::file_id>(body, id);
  qidl::set<&B::status>(body, status);
  qidl::set<&B::name>(body, name.data());
  qidl::set<&B::location>(body, 1u);
  return framed(data_header(PKGDIST_DATA_MSG_REQ_DONE, address), body);
}

class Hostile : public testing::Test {
 protected:
  void SetUp() override {
    cluster_.store.add("file", pattern(3'000'000, 1));
    cluster_.add_hosts(2);
    cluster_.on_sent = [this](Channel channel, uint32_t, std::span<const uint8_t> bytes) {
      if (channel == Channel::kData) note_id(bytes);
    };
    ASSERT_EQ(cluster_.lead().start_push(cluster_.push_all(), cluster_.now()), nullptr);
    cluster_.run_for(30 * kMillisecond);
    ASSERT_NE(file_id_, 0u);
    ASSERT_TRUE(cluster_.lead().push_running());
  }
  void note_id(std::span<const uint8_t> bytes) {
    const Parts parts = parts_of(bytes);
    const Message<pkgdist_data_msg_hdr> header(parts.header);
    if (!header.ok() || header->msg_id != PKGDIST_DATA_MSG_FILE_INFO) return;
    const Message<pkgdist_data_send_file_info> info(parts.body);
    if (info.ok()) file_id_ = info->file_id;
  }
  void attack(Channel channel, const Bytes& bytes, uint32_t from = kStranger) {
    cluster_.lead().on_datagram(channel, bytes, from, cluster_.now());
  }
  void expect_push_completes() {
    EXPECT_TRUE(cluster_.run_until([&] { return !cluster_.lead().push_running(); }, 30 * kSecond));
    EXPECT_TRUE(cluster_.identical());
  }
  uint64_t bad() const { return cluster_.lead().counters().bad_datagrams; }

  mutable LeadCluster cluster_;
  uint32_t file_id_ = 0;
};

TEST_F(Hostile, every_truncation_of_a_valid_datagram_is_dropped) {
  const Bytes whole = report(file_id_, 0, "file", kStranger);
  for (size_t length = 0; length < whole.size(); ++length) {
    const Bytes cut(whole.begin(), whole.begin() + static_cast<ptrdiff_t>(length));
    const uint64_t before = bad() + cluster_.lead().counters().foreign_datagrams;
    attack(Channel::kData, cut);
    attack(Channel::kControl, cut);
    EXPECT_GE(bad() + cluster_.lead().counters().foreign_datagrams, before + 2) << length;
  }
  expect_push_completes();
}

TEST_F(Hostile, random_bytes_are_dropped) {
  std::mt19937_64 random(1);
  for (int i = 0; i < 20'000; ++i) {
    Bytes bytes = pattern(random() % 100, random());
    if (bytes.size() > 8 && i % 2 == 0) {  // a plausible header length
      bytes[0] = bytes[1] = bytes[2] = 0;
      bytes[3] = static_cast<uint8_t>(random() % bytes.size());
    }
    attack(i % 3 == 0 ? Channel::kControl : Channel::kData, bytes);
  }
  EXPECT_GT(bad(), 15'000u);
  expect_push_completes();
}

TEST_F(Hostile, bit_errors_in_valid_datagrams_do_no_harm) {
  const Bytes whole = segment_request(file_id_, 0, 5);
  for (size_t bit = 0; bit < whole.size() * 8; ++bit) {
    Bytes bytes = whole;
    bytes[bit / 8] = static_cast<uint8_t>(bytes[bit / 8] ^ (1u << bit % 8));
    attack(Channel::kData, bytes);
    attack(Channel::kControl, bytes);
  }
  expect_push_completes();
}

TEST_F(Hostile, runs_beyond_the_file_are_clipped) {
  const uint64_t segments = (3'000'000 + 1399) / 1400;
  for (int i = 0; i < 1000; ++i) attack(Channel::kData, segment_request(file_id_, 0, UINT32_MAX));
  cluster_.lead().run(cluster_.now());
  // Everything that was sent so far, once: not what the stream still comes to, and not a thousand
  // times.
  EXPECT_LE(cluster_.lead().counters().repairs_sent, segments);
  expect_push_completes();
}

TEST_F(Hostile, segments_outside_of_the_file_are_bad) {
  const uint64_t before = bad();
  attack(Channel::kData, segment_request(file_id_, (3'000'000 + 1399) / 1400, 1));
  attack(Channel::kData, segment_request(file_id_, UINT32_MAX, UINT32_MAX));
  attack(Channel::kData, segment_request(file_id_, 0, 0));
  EXPECT_EQ(bad(), before + 3);
  expect_push_completes();
}

TEST_F(Hostile, requests_for_unknown_transfers_are_foreign) {
  const uint64_t before = cluster_.lead().counters().foreign_datagrams;
  attack(Channel::kData, segment_request(file_id_ + 1, 0, 1));
  attack(Channel::kData, segment_request(0, 0, 1));
  EXPECT_EQ(cluster_.lead().counters().foreign_datagrams, before + 2);
}

TEST_F(Hostile, a_report_of_another_file_or_transfer_ends_nothing) {
  const uint32_t address = cluster_.host(0).address;
  attack(Channel::kData, report(file_id_, 0, "other", address), address);
  attack(Channel::kData, report(file_id_ + 7, 0, "file", address), address);
  attack(Channel::kData, report(0, 0, "file", address), address);
  EXPECT_EQ(cluster_.lead().push_report().nodes[0].files_done, 0u);
  expect_push_completes();
}

TEST_F(Hostile, messages_that_only_a_lead_sends_are_foreign) {
  using H = pkgdist_ctrl_msg_hdr;
  H header{};
  qidl::set<&H::msg_id>(header, PKGDIST_CTRL_MSG_PING);
  qidl::set<&H::node_ip>(header, kStranger);
  qidl::set<&H::pid>(header, 1u);
  qidl::set<&H::sequence>(header, UINT32_MAX);
  const uint64_t before = cluster_.lead().counters().foreign_datagrams;
  attack(Channel::kControl, framed(header));
  attack(Channel::kData, framed(data_header(PKGDIST_DATA_MSG_SEGMENT)));
  EXPECT_EQ(cluster_.lead().counters().foreign_datagrams, before + 2);
  expect_push_completes();
}

TEST_F(Hostile, thousands_of_forged_nodes_do_not_stop_the_push) {
  using H = pkgdist_ctrl_msg_hdr;
  for (uint32_t i = 0; i < 10'000; ++i) {
    Bytes request = segment_request(file_id_ + 1, 0, 1, 0x0B000000 + i);
    attack(Channel::kData, request, 0x0B000000 + i);
  }
  for (uint32_t i = 0; i < 100; ++i) {
    H header{};
    qidl::set<&H::msg_id>(header, PKGDIST_CTRL_MSG_NACK);
    qidl::set<&H::node_ip>(header, 0x0C000000 + i);
    qidl::set<&H::sequence>(header, UINT32_MAX);
    qidl::set<&H::segment>(header, UINT32_MAX);
    attack(Channel::kControl, framed(header), header.node_ip);
  }
  expect_push_completes();
}

TEST_F(Hostile, acknowledgements_of_what_was_never_sent_change_nothing) {
  using H = pkgdist_ctrl_msg_hdr;
  for (uint32_t sequence : {0u, 1u, 1000u, UINT32_MAX}) {
    H header{};
    qidl::set<&H::msg_id>(header, PKGDIST_CTRL_MSG_ACK);
    qidl::set<&H::node_ip>(header, cluster_.host(0).address);
    qidl::set<&H::pid>(header, cluster_.host(0).pid);
    qidl::set<&H::sequence>(header, sequence);
    qidl::set<&H::ack_sequence>(header, sequence);
    attack(Channel::kControl, framed(header), header.node_ip);
  }
  expect_push_completes();
}

}  // namespace
}  // namespace pkgdist::test
