// The description of every wire structure, from which the codec makes its operations: the fields in
// their order on the wire, and nothing else.
#pragma once

#include "pkgdist/wire_ctrl.h"
#include "pkgdist/wire_data.h"
#include "platform/qidl_codec.hpp"

namespace qidl {

template <>
struct description<pkgdist_ctrl_msg_hdr> {
  using M = pkgdist_ctrl_msg_hdr;
  static constexpr auto fields = std::tuple{
      field(&M::msg_id),     field(&M::node_ip),     field(&M::pid),     field(&M::sequence),
      field(&M::card_class), field(&M::segment),     field(&M::unicast), field(&M::status),
      field(&M::node_id),    field(&M::ack_sequence)};
};

template <>
struct description<pkgdist_ctrl_msg> {
  using M = pkgdist_ctrl_msg;
  static constexpr auto fields =
      std::tuple{field(&M::msg_class),  field(&M::node_list, &M::node_list_count),
                 field(&M::total_size), field(&M::segment_size),
                 field(&M::rxmt),       field(&M::data, &M::data_size)};
};

template <>
struct description<pkgdist_data_msg_hdr> {
  using M = pkgdist_data_msg_hdr;
  static constexpr auto fields = std::tuple{field(&M::msg_id), field(&M::node_ip)};
};

template <>
struct description<pkgdist_data_send_req> {
  using M = pkgdist_data_send_req;
  static constexpr auto fields =
      std::tuple{field(&M::type), field(&M::location), field(&M::priority), field(&M::name)};
};

template <>
struct description<struct pkgdist_data_send_req_single> {
  using M = struct pkgdist_data_send_req_single;
  static constexpr auto fields = std::tuple{field(&M::file_id), field(&M::segment), field(&M::num)};
};

template <>
struct description<pkgdist_data_send_req_done> {
  using M = pkgdist_data_send_req_done;
  static constexpr auto fields =
      std::tuple{field(&M::file_id), field(&M::status), field(&M::name), field(&M::location)};
};

template <>
struct description<pkgdist_data_send_file_info> {
  using M = pkgdist_data_send_file_info;
  static constexpr auto fields =
      std::tuple{field(&M::file_id), field(&M::name),
                 field(&M::size),    field(&M::segment_size),
                 field(&M::status),  field(&M::mode),
                 field(&M::mtime),   field(&M::node_list, &M::node_list_count),
                 field(&M::symlink), field(&M::location)};
};

template <>
struct description<pkgdist_data_send_segment> {
  using M = pkgdist_data_send_segment;
  static constexpr auto fields = std::tuple{field(&M::file_id), field(&M::segment),
                                            field(&M::repair), field(&M::data, &M::data_size)};
};

template <>
struct description<pkgdist_data_send_miss_done> {
  using M = pkgdist_data_send_miss_done;
  static constexpr auto fields =
      std::tuple{field(&M::file_id), field(&M::name), field(&M::node_list, &M::node_list_count),
                 field(&M::location)};
};

template <>
struct description<pkgdist_file_send_ctrl> {
  using M = pkgdist_file_send_ctrl;
  static constexpr auto fields =
      std::tuple{field(&M::operation), field(&M::xact_id),  field(&M::type),
                 field(&M::location),  field(&M::priority), field(&M::names, &M::names_count)};
};

}  // namespace qidl
