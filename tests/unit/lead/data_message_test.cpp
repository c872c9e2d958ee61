#include "stream/data_message.h"

#include <gtest/gtest.h>

#include "pkgdist_lead/lead.h"
#include "wire_frame.h"

namespace pkgdist::lead {
namespace {

constexpr uint32_t kSelf = 0x0A000001;

test::Bytes built_segment(size_t length, bool repair) {
  const SegmentBuilder builder(kSelf);
  test::Bytes out(PKGDIST_DATA_PKT_MAX);
  const auto data = builder.data(out, length);
  for (size_t i = 0; i < length; ++i) data[i] = static_cast<uint8_t>(i);
  out.resize(builder.finish(out, 0x01020304, 77, repair, length));
  return out;
}

// What the codec makes of the same message, field by field.
test::Bytes encoded_segment(const test::Bytes& data, bool repair) {
  pkgdist_data_msg_hdr header{};
  qidl::set<&pkgdist_data_msg_hdr::msg_id>(header, PKGDIST_DATA_MSG_SEGMENT);
  qidl::set<&pkgdist_data_msg_hdr::node_ip>(header, kSelf);
  using B = pkgdist_data_send_segment;
  B body{};
  qidl::set<&B::file_id>(body, 0x01020304u);
  qidl::set<&B::segment>(body, 77u);
  qidl::set<&B::repair>(body, repair ? 1u : 0u);
  body.data = data.data();
  body.data_size = data.size();
  qidl::mark<&B::data>(body);
  return test::framed(header, body);
}

TEST(SegmentBuilder, patches_to_exactly_what_the_codec_encodes) {
  for (size_t length : {size_t{0}, size_t{1}, size_t{1400}, size_t{kMaxSegmentSize}}) {
    test::Bytes data(length);
    for (size_t i = 0; i < length; ++i) data[i] = static_cast<uint8_t>(i);
    for (bool repair : {false, true})
      EXPECT_EQ(built_segment(length, repair), encoded_segment(data, repair)) << length;
  }
}

TEST(SegmentBuilder, the_largest_segment_fits_the_largest_datagram) {
  EXPECT_EQ(built_segment(kMaxSegmentSize, true).size(), PKGDIST_DATA_PKT_MAX);
}

TEST(DataMessage, information_with_the_longest_name_and_list_fits) {
  const Transfer transfer(1, {1, std::string(240, 'n')}, {}, 1);
  std::vector<uint32_t> nodes(kMaxListedNodes, kSelf);
  test::Bytes out(PKGDIST_DATA_PKT_MAX);
  EXPECT_GT(build_info(out, kSelf, transfer, 1400, nodes), 0u);
  EXPECT_GT(build_poll(out, kSelf, transfer.key, transfer.id, nodes), 0u);
}

TEST(DataMessage, a_link_is_announced_as_one_without_its_time) {
  const Transfer transfer(9, {2, "a"}, {.size = 4, .mode = 0777, .mtime = 5, .symlink = true}, 1);
  test::Bytes out(PKGDIST_DATA_PKT_MAX);
  out.resize(build_info(out, kSelf, transfer, 1400, {}));
  const test::Message<pkgdist_data_send_file_info> info(test::parts_of(out).body);
  ASSERT_TRUE(info.ok());
  EXPECT_EQ(info->symlink, 1);
  EXPECT_EQ(info->file_id, 9u);
  EXPECT_EQ(info->location, 2u);
  EXPECT_EQ(info->mtime, 0u);
  EXPECT_EQ(info->node_list_count, 0u);
}

}  // namespace
}  // namespace pkgdist::lead
