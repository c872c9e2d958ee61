#include "stream/data_message.h"

namespace pkgdist::lead {

namespace {

// Offsets inside an encoded segment body whose fields are all present.
constexpr size_t kFileIdAt = 4;
constexpr size_t kSegmentAt = 8;
constexpr size_t kRepairAt = 12;
constexpr size_t kLengthAt = 13;

pkgdist_data_msg_hdr header_of(uint32_t self, uint32_t msg_id) {
  pkgdist_data_msg_hdr header{};
  qidl::set<&pkgdist_data_msg_hdr::msg_id>(header, msg_id);
  qidl::set<&pkgdist_data_msg_hdr::node_ip>(header, self);
  return header;
}

}  // namespace

size_t build_info(std::span<uint8_t> out, uint32_t self, const Transfer& transfer,
                  uint32_t segment_size, std::span<uint32_t> nodes) {
  using B = pkgdist_data_send_file_info;
  B body{};
  qidl::set<&B::file_id>(body, transfer.id);
  qidl::set<&B::name>(body, const_cast<char*>(transfer.key.name.c_str()));
  qidl::set<&B::size>(body, transfer.attributes.size);
  qidl::set<&B::segment_size>(body, segment_size);
  qidl::set<&B::status>(body, transfer.status);
  qidl::set<&B::mode>(body, transfer.attributes.mode);
  // A node sets the times of what a link points to, so a link travels without a time of its own.
  qidl::set<&B::mtime>(body, transfer.attributes.symlink ? 0 : transfer.attributes.mtime);
  if (!nodes.empty()) {
    body.node_list = nodes.data();
    body.node_list_count = static_cast<uint32_t>(nodes.size());
    qidl::mark<&B::node_list>(body);
  }
  qidl::set<&B::symlink>(body, transfer.attributes.symlink ? 1u : 0u);
  qidl::set<&B::location>(body, transfer.key.location);
  return frame(out, header_of(self, PKGDIST_DATA_MSG_FILE_INFO), body);
}

size_t build_poll(std::span<uint8_t> out, uint32_t self, const FileKey& key, TransferId number,
                  std::span<uint32_t> nodes) {
  using B = pkgdist_data_send_miss_done;
  B body{};
  qidl::set<&B::file_id>(body, number);
  qidl::set<&B::name>(body, const_cast<char*>(key.name.c_str()));
  if (!nodes.empty()) {
    body.node_list = nodes.data();
    body.node_list_count = static_cast<uint32_t>(nodes.size());
    qidl::mark<&B::node_list>(body);
  }
  qidl::set<&B::location>(body, key.location);
  return frame(out, header_of(self, PKGDIST_DATA_MSG_MISS_DONE), body);
}

SegmentBuilder::SegmentBuilder(uint32_t self) {
  using B = pkgdist_data_send_segment;
  const pkgdist_data_msg_hdr header = header_of(self, PKGDIST_DATA_MSG_SEGMENT);
  B body{};
  qidl::set<&B::file_id>(body, 0u);
  qidl::set<&B::segment>(body, 0u);
  qidl::set<&B::repair>(body, 0u);
  qidl::mark<&B::data>(body);
  body_ = frame(prefix_, header);
  size_ = frame(prefix_, header, body);
}

size_t SegmentBuilder::finish(std::span<uint8_t> out, TransferId id, uint32_t segment, bool repair,
                              size_t length) const {
  std::memcpy(out.data(), prefix_.data(), size_);
  uint8_t* body = out.data() + body_;
  store_u32(body + kFileIdAt, id);
  store_u32(body + kSegmentAt, segment);
  body[kRepairAt] = repair ? 1 : 0;
  store_u32(body + kLengthAt, static_cast<uint32_t>(length));
  return size_ + length;
}

}  // namespace pkgdist::lead
