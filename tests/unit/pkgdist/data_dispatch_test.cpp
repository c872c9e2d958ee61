// Dispatch of data datagrams: framing, sender, kind, and bodies that do not decode.
#include <array>

#include "data_support.h"
#include "pkgdist_data_recv_process.h"

using namespace support;

namespace {

class DataDispatch : public DataTest {
 protected:
  static void receive(const Bytes& datagram) {
    pkgdist_data_rx_process_msg(datagram.data(), static_cast<ssize_t>(datagram.size()));
  }
  static uint32_t bad_packets() { return value(DrtCounter::kMcBadPktRecv); }
};

TEST_F(DataDispatch, less_than_a_header_length_is_too_small) {
  for (size_t size = 0; size < 4; ++size) {
    receive(Bytes(size, 0));
    EXPECT_TRUE(logs::contains("ERR:pkgdist_data_rx_process_msg: data rx received " +
                               std::to_string(size) + " bytes, hdr msg too small\n"));
    EXPECT_EQ(bad_packets(), size + 1);
  }
}

TEST_F(DataDispatch, a_negative_length_is_too_small) {
  const std::array<uint8_t, 8> bytes{};
  pkgdist_data_rx_process_msg(bytes.data(), -1);
  EXPECT_TRUE(logs::contains(
      "ERR:pkgdist_data_rx_process_msg: data rx received -1 bytes, hdr msg too small\n"));
  EXPECT_EQ(bad_packets(), 1u);
}

TEST_F(DataDispatch, four_zero_bytes_fail_at_the_header_decode) {
  receive({0, 0, 0, 0});
  EXPECT_TRUE(logs::contains("ERR:pkgdist_data_rx_process_msg: data rx hdr decode failed: -1\n"));
  EXPECT_EQ(bad_packets(), 1u);
}

TEST_F(DataDispatch, a_header_length_beyond_the_datagram_is_too_small) {
  receive({0, 0, 0, 2, 0});
  EXPECT_TRUE(
      logs::contains("ERR:pkgdist_data_rx_process_msg: data rx received 5 bytes, msg too small\n"));
  EXPECT_EQ(bad_packets(), 1u);
}

TEST_F(DataDispatch, header_lengths_near_the_32_bit_limit_do_not_wrap) {
  for (const uint8_t last : Bytes{0xFB, 0xFC, 0xFE, 0xFF}) receive({0xFF, 0xFF, 0xFF, last, 0, 0});
  EXPECT_EQ(logs::count("data rx received 6 bytes, msg too small\n"), 4u);
  EXPECT_EQ(bad_packets(), 4u);
}

TEST_F(DataDispatch, data_of_another_node_is_dropped_without_a_word) {
  receive(data_datagram(PKGDIST_DATA_MSG_MISS_DONE, encoded_miss_done(1, "x"), kOtherAddress));
  EXPECT_EQ(bad_packets(), 1u);
  EXPECT_TRUE(logs::records().empty());
  EXPECT_TRUE(wire::sent().empty());
}

TEST_F(DataDispatch, data_of_the_lead_is_taken) {
  receive(data_datagram(PKGDIST_DATA_MSG_MISS_DONE, encoded_miss_done(1, "x"), kLeadAddress));
  EXPECT_EQ(bad_packets(), 0u);
  EXPECT_EQ(value(DrtCounter::kMcMissDone), 1u);
}

TEST_F(DataDispatch, data_without_a_node_address_is_taken_from_anybody) {
  receive(data_datagram(PKGDIST_DATA_MSG_MISS_DONE, encoded_miss_done(1, "x"), 0));
  EXPECT_EQ(bad_packets(), 0u);
  EXPECT_EQ(value(DrtCounter::kMcMissDone), 1u);
}

TEST_F(DataDispatch, requests_and_unknown_kinds_are_invalid) {
  unsigned seen = 0;
  for (const uint32_t kind : {0u, 1u, 2u, 3u, 7u, 0xFFFFFFFFu}) {
    receive(data_datagram(kind, encoded_miss_done(1, "x")));
    EXPECT_TRUE(
        logs::contains("ERR:pkgdist_data_rx_process_msg: data rx received has invalid msg id '" +
                       std::to_string(static_cast<int32_t>(kind)) + "'\n"));
    EXPECT_EQ(bad_packets(), ++seen);
  }
}

TEST_F(DataDispatch, bodies_that_do_not_decode_are_counted_and_named) {
  receive(data_datagram(PKGDIST_DATA_MSG_FILE_INFO, {1}));
  EXPECT_TRUE(logs::contains(
      "ERR:pkgdist_data_process_file_info: data send file info msg decode failed: -1\n"));
  receive(data_datagram(PKGDIST_DATA_MSG_SEGMENT, {1}));
  EXPECT_TRUE(logs::contains(
      "ERR:pkgdist_data_process_file_segment: data send segment msg decode failed: -1\n"));
  receive(data_datagram(PKGDIST_DATA_MSG_MISS_DONE, {1}));
  EXPECT_TRUE(logs::contains(
      "ERR:pkgdist_data_process_miss_done: data send miss done msg decode failed: -1\n"));
  EXPECT_EQ(bad_packets(), 3u);
  EXPECT_EQ(value(DrtCounter::kMcFileInfo), 0u);
  EXPECT_EQ(value(DrtCounter::kMcMissDone), 0u);
}

TEST_F(DataDispatch, a_body_that_does_not_decode_has_the_decode_status) {
  const uint8_t body[] = {1};
  EXPECT_EQ(pkgdist_data_process_file_segment(body, sizeof body), PKGDIST_ERR_DECODE);
}

TEST_F(DataDispatch, every_cut_of_every_message_is_survived) {
  begin(4);
  const uint32_t nodes[] = {kOtherAddress, kMyAddress};
  const Bytes whole[] = {
      data_datagram(PKGDIST_DATA_MSG_FILE_INFO,
                    encoded_info({.id = 9, .name = "elsewhere", .nodes = {nodes[0], nodes[1]}})),
      data_datagram(PKGDIST_DATA_MSG_SEGMENT, encoded_segment(9, 1, Bytes(4, 'x'), true)),
      data_datagram(PKGDIST_DATA_MSG_MISS_DONE, encoded_miss_done(9, "elsewhere"))};
  for (const Bytes& datagram : whole) {
    const uint32_t before = bad_packets();
    for (size_t size = 0; size < datagram.size(); ++size)
      receive(Bytes(datagram.begin(), datagram.begin() + static_cast<ptrdiff_t>(size)));
    EXPECT_EQ(bad_packets() - before, datagram.size());
  }
  EXPECT_EQ(find()->received_count, 0u);
}

TEST_F(DataDispatch, a_segment_without_the_repair_field_is_a_first_transmission) {
  begin(4);
  give(0);
  give(1, true);
  EXPECT_EQ(value(DrtCounter::kMcSegment), 1u);
  EXPECT_EQ(value(DrtCounter::kMcSingleSegment), 1u);
}

TEST_F(DataDispatch, an_empty_node_list_means_everybody) {
  const uint32_t nodes[] = {kOtherAddress, kMyAddress};
  EXPECT_TRUE(pkgdist::names_this_node(nullptr, 0));
  EXPECT_TRUE(pkgdist::names_this_node(nodes, 2));
  EXPECT_FALSE(pkgdist::names_this_node(nodes, 1));
}

}  // namespace
