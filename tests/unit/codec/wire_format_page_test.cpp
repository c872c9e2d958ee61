// The golden bytes of docs/wire-format.md: every example of the page is what the codec makes of the
// message that it describes, and decodes to that message again.
#include <fstream>
#include <map>
#include <string>

#include "codec_support.h"

using namespace codec_test;

namespace {

constexpr uint32_t kLead = 0xC0000201;  // 192.0.2.1
constexpr uint32_t kNode = 0xC000020B;  // 192.0.2.11
constexpr uint64_t kPingStatus = uint64_t{1'700'000'000} << 32 | 250'000;

char file_name[] = "a/b";
char second_name[] = "c";
char* file_names[] = {file_name, second_name};
uint32_t one_node[] = {kNode};

const uint8_t* bytes_of(const char* text) {
  return reinterpret_cast<const uint8_t*>(text);
}

// The boxes of the page by their names, without comments.
std::map<std::string, Bytes> examples_of_page() {
  std::ifstream page(WIRE_FORMAT_PAGE);
  EXPECT_TRUE(page.is_open()) << WIRE_FORMAT_PAGE;
  const std::string opening = "```hex ";
  std::map<std::string, Bytes> examples;
  std::string name;
  for (std::string line; std::getline(page, line);) {
    if (line.rfind(opening, 0) == 0) {
      name = line.substr(opening.size());
      EXPECT_EQ(examples.count(name), 0u) << name;
      examples[name] = {};
    } else if (line == "```") {
      name.clear();
    } else if (!name.empty()) {
      const Bytes bytes = hex(std::string_view(line).substr(0, line.find(';')));
      examples[name].insert(examples[name].end(), bytes.begin(), bytes.end());
    }
  }
  return examples;
}

template <class Header>
Bytes framed(const Header& header) {
  const Bytes bytes = encoded(header);
  return joined({mask(static_cast<uint32_t>(bytes.size())), bytes});
}
template <class Header, class Body>
Bytes framed(const Header& header, const Body& body) {
  return joined({framed(header), encoded(body)});
}

pkgdist_ctrl_msg_hdr control_header(uint32_t presence, uint32_t kind, uint32_t from, uint32_t pid,
                                    uint32_t sequence) {
  pkgdist_ctrl_msg_hdr header{};
  header.presence = presence;
  header.msg_id = kind;
  header.node_ip = from;
  header.pid = pid;
  header.sequence = sequence;
  return header;
}

pkgdist_ctrl_msg_hdr node_header(uint32_t further, uint32_t kind, uint32_t sequence) {
  pkgdist_ctrl_msg_hdr header = control_header(0x11F | further, kind, kNode, 815, sequence);
  header.card_class = 3;
  header.node_id = 0x00020B;
  return header;
}

Bytes ping() {
  pkgdist_ctrl_msg_hdr header = control_header(0x8F, PKGDIST_CTRL_MSG_PING, kLead, 4711, 12);
  header.status = kPingStatus;
  return framed(header);
}

Bytes ping_reply() {
  pkgdist_ctrl_msg_hdr header = node_header(0x80, PKGDIST_CTRL_MSG_PING_REPLY, 12);
  header.status = kPingStatus;
  return framed(header);
}

Bytes control_message() {
  pkgdist_ctrl_msg_hdr header = control_header(0x3F, PKGDIST_CTRL_MSG_CTRL, kLead, 4711, 13);
  header.card_class = PKGDIST_CARD_CLASS_NODE_LIST;
  const pkgdist_ctrl_msg body{0x2F, 2, one_node, 1, 6, 1200, 0, bytes_of("reload"), 6};
  return framed(header, body);
}

Bytes ack() {
  pkgdist_ctrl_msg_hdr header = node_header(0x200, PKGDIST_CTRL_MSG_ACK, 13);
  header.ack_sequence = 13;
  return framed(header);
}

Bytes nack() {
  pkgdist_ctrl_msg_hdr header = node_header(0x220, PKGDIST_CTRL_MSG_NACK, 14);
  header.segment = 2;
  header.ack_sequence = 13;
  return framed(header);
}

Bytes file_list() {
  return encoded(pkgdist_file_send_ctrl{0x3F, PKGDIST_FILE_SEND_LIST, 0x80000009, 1, 1, 2,
                                        static_cast<char**>(file_names), 2});
}

template <class Body>
Bytes data_datagram(uint32_t kind, uint32_t from, const Body& body) {
  return framed(pkgdist_data_msg_hdr{3, kind, from}, body);
}

std::map<std::string, Bytes> examples_of_codec() {
  return {
      {"ping", ping()},
      {"ping-reply", ping_reply()},
      {"control-message", control_message()},
      {"ack", ack()},
      {"nack", nack()},
      {"file-list", file_list()},
      {"file-request", data_datagram(PKGDIST_DATA_MSG_FILE_REQ, kNode,
                                     pkgdist_data_send_req{0xF, 1, 1, 2, file_name})},
      {"segment-request",
       data_datagram(PKGDIST_DATA_MSG_REQ_SINGLE, kNode, pkgdist_data_send_req_single{7, 7, 2, 3})},
      {"report", data_datagram(PKGDIST_DATA_MSG_REQ_DONE, kNode,
                               pkgdist_data_send_req_done{0xF, 7, 0, file_name, 1})},
      {"file-info",
       data_datagram(PKGDIST_DATA_MSG_FILE_INFO, kLead,
                     pkgdist_data_send_file_info{0x3FF, 7, file_name, 2803, 1400, 0, 0644,
                                                 1'700'000'000, nullptr, 0, 0, 1})},
      {"segment", data_datagram(PKGDIST_DATA_MSG_SEGMENT, kLead,
                                pkgdist_data_send_segment{0xF, 7, 2, 0, bytes_of("abc"), 3})},
      {"miss-done", data_datagram(PKGDIST_DATA_MSG_MISS_DONE, kLead,
                                  pkgdist_data_send_miss_done{0xF, 7, file_name, one_node, 1, 1})},
  };
}

TEST(WireFormatPage, every_example_is_what_the_codec_makes) {
  const std::map<std::string, Bytes> made = examples_of_codec();
  const std::map<std::string, Bytes> shown = examples_of_page();
  EXPECT_EQ(shown.size(), made.size());
  for (const auto& [name, bytes] : made) {
    ASSERT_EQ(shown.count(name), 1u) << name;
    EXPECT_EQ(shown.at(name), bytes) << name;
  }
}

TEST(WireFormatPage, the_segment_is_read_back_from_the_page) {
  const Bytes shown = examples_of_page()["segment"];
  ASSERT_GT(shown.size(), 16u);
  const Decoded<pkgdist_data_send_segment> segment(Bytes(shown.begin() + 16, shown.end()));
  ASSERT_EQ(segment.result(), 0);
  EXPECT_EQ(segment->file_id, 7u);
  EXPECT_EQ(segment->segment, 2u);
  EXPECT_EQ(std::string(segment->data, segment->data + segment->data_size), "abc");
}

}  // namespace
