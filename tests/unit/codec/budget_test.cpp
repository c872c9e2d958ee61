// The largest message of every kind that a node sends fits the buffer it is built in.
#include <string>

#include "codec_support.h"

using namespace codec_test;

namespace {

// Buffers of the senders, without the 4 bytes of the header's length.
constexpr ssize_t kHeaderOnlyRoom = 57;
constexpr ssize_t kControlRoom = 1468;
constexpr ssize_t kRequestSingleRoom = 30;
constexpr ssize_t kFileRequestRoom = 292;
constexpr ssize_t kRequestDoneRoom = 297;
constexpr size_t kLongestName = 255;

pkgdist_ctrl_msg_hdr control_header(uint32_t presence) {
  return {presence,   0xFFFFFFFF, 0xFFFFFFFF,
          0xFFFFFFFF, 0xFFFFFFFF, 0xFFFFFFFF,
          0xFFFFFFFF, -1,         0xFFFFFFFFFFFFFFFFull,
          0xFFFFFFFF, 0xFFFFFFFF};
}

ssize_t data_header_size() {
  return encoded_size(pkgdist_data_msg_hdr{3, 0xFFFFFFFF, 0xFFFFFFFF});
}

TEST(Budget, a_multicast_nack_with_segment_takes_36_bytes) {
  constexpr uint32_t kFields = 0x33F;  // all but unicast and status
  EXPECT_EQ(encoded_size(control_header(kFields)), 36);
  EXPECT_LE(encoded_size(control_header(kFields)), kHeaderOnlyRoom);
}

TEST(Budget, a_ping_reply_with_status_takes_36_bytes) {
  constexpr uint32_t kFields = 0x19F;  // all but segment, unicast and ack_sequence
  EXPECT_EQ(encoded_size(control_header(kFields)), 36);
  EXPECT_LE(encoded_size(control_header(kFields)), kHeaderOnlyRoom);
}

TEST(Budget, a_control_header_with_every_field_fits_a_header_only_datagram) {
  EXPECT_EQ(encoded_size(control_header(0x3FF)), 48);
  EXPECT_LE(encoded_size(control_header(0x3FF)), kHeaderOnlyRoom);
}

TEST(Budget, a_full_retransmitted_segment_to_the_lead_fits_a_control_datagram) {
  const Bytes data(PKGDIST_CTRL_SEGMENT_SIZE, 0xFF);
  constexpr uint32_t kHeaderFields = 0x13F;
  constexpr uint32_t kAllButNodeList = 0x3D;
  pkgdist_ctrl_msg body{kAllButNodeList,           5, nullptr,     0,          0xFFFFFFFF,
                        PKGDIST_CTRL_SEGMENT_SIZE, 1, data.data(), data.size()};
  const ssize_t total = encoded_size(control_header(kHeaderFields)) + encoded_size(body);
  EXPECT_EQ(total, 32 + 24 + 1390);
  EXPECT_LE(total, kControlRoom);
}

TEST(Budget, a_request_for_segments_takes_28_bytes) {
  const struct pkgdist_data_send_req_single request { 7, 0xFFFFFFFF, 0xFFFFFFFF, 0xFFFFFFFF };
  EXPECT_EQ(data_header_size() + encoded_size(request), 28);
  EXPECT_LE(data_header_size() + encoded_size(request), kRequestSingleRoom);
}

TEST(Budget, a_file_request_with_the_longest_name_fits_its_datagram) {
  std::string name(kLongestName, 'n');
  const pkgdist_data_send_req request{0xF, 11, 6, 4, name.data()};
  EXPECT_EQ(data_header_size() + encoded_size(request), 285);
  EXPECT_LE(data_header_size() + encoded_size(request), kFileRequestRoom);
}

TEST(Budget, a_request_done_with_the_longest_name_fits_its_datagram) {
  std::string name(kLongestName, 'n');
  const pkgdist_data_send_req_done done{0xF, 0xFFFFFFFF, ~uint64_t{0}, name.data(), 6};
  EXPECT_EQ(data_header_size() + encoded_size(done), 289);
  EXPECT_LE(data_header_size() + encoded_size(done), kRequestDoneRoom);
}

}  // namespace
