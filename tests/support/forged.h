// Datagrams of nodes as anybody may make them, for tests that send them to a lead's core.
#pragma once

#include <string>

#include "pkgdist/wire_ctrl.h"
#include "pkgdist/wire_data.h"
#include "wire_frame.h"

namespace pkgdist::test {

// A message to the lead, which acknowledges it to its sender.
inline Bytes message_of(uint32_t address, uint32_t pid) {
  using H = pkgdist_ctrl_msg_hdr;
  H header{};
  qidl::set<&H::msg_id>(header, PKGDIST_CTRL_MSG_CTRL);
  qidl::set<&H::node_ip>(header, address);
  qidl::set<&H::pid>(header, pid);
  qidl::set<&H::sequence>(header, 1u);
  qidl::set<&H::segment>(header, 0u);
  const Bytes content(100, 'x');
  pkgdist_ctrl_msg body{};
  qidl::set<&pkgdist_ctrl_msg::msg_class>(body, 2u);
  qidl::set<&pkgdist_ctrl_msg::total_size>(body, static_cast<uint32_t>(content.size()));
  qidl::set<&pkgdist_ctrl_msg::segment_size>(body, uint32_t{PKGDIST_CTRL_SEGMENT_SIZE});
  body.data = content.data();
  body.data_size = content.size();
  qidl::mark<&pkgdist_ctrl_msg::data>(body);
  return framed(header, body);
}

inline Bytes ping_reply(uint32_t address, uint32_t pid, uint32_t point, uint64_t echo) {
  using H = pkgdist_ctrl_msg_hdr;
  H header{};
  qidl::set<&H::msg_id>(header, PKGDIST_CTRL_MSG_PING_REPLY);
  qidl::set<&H::node_ip>(header, address);
  qidl::set<&H::pid>(header, pid);
  qidl::set<&H::sequence>(header, point);
  qidl::set<&H::status>(header, echo);
  return framed(header);
}

inline Bytes file_request(uint32_t address, std::string name, uint32_t priority = 2) {
  pkgdist_data_msg_hdr header{};
  qidl::set<&pkgdist_data_msg_hdr::msg_id>(header, uint32_t{PKGDIST_DATA_MSG_FILE_REQ});
  qidl::set<&pkgdist_data_msg_hdr::node_ip>(header, address);
  using B = pkgdist_data_send_req;
  B body{};
  qidl::set<&B::type>(body, 1u);
  qidl::set<&B::location>(body, 1u);
  qidl::set<&B::priority>(body, priority);
  qidl::set<&B::name>(body, name.data());
  return framed(header, body);
}

}  // namespace pkgdist::test
