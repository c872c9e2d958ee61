// One filled message of every wire structure, and the bytes of each of its fields, written by hand.
#pragma once

#include <cstring>

#include "codec_support.h"

namespace codec_test {

// Example<T>: message() has every field filled and marked present; fields() are their bytes in
// order; same(message, presence) compares a decoded message, whose absent fields must be empty.
template <class T>
struct Example;

// --- Comparisons of one field: the example's value when present, nothing when absent. ---

inline bool same_words(const uint32_t* got, uint32_t count, std::initializer_list<uint32_t> want,
                       bool present) {
  if (!present) return got == nullptr && count == 0;
  return std::vector(got, got + count) == std::vector(want);
}
inline bool same_bytes(const uint8_t* got, uint64_t size, std::string_view want, bool present) {
  if (!present) return got == nullptr && size == 0;
  return size == want.size() && std::memcmp(got, want.data(), size) == 0;
}
inline bool same_text(const char* got, const char* want, bool present) {
  return got != nullptr && std::strcmp(got, present ? want : "") == 0;
}
template <class V>
bool same_value(V got, V want, bool present) {
  return got == (present ? want : V{});
}

// The memory that examples point to.
inline uint32_t example_nodes[] = {0x0A000001, 0x0A0000FF};
inline char example_name[] = "pkg/a.bin";
inline char example_second_name[] = "b";
inline char example_empty_name[] = "";
inline char* example_names[] = {example_name, example_empty_name, example_second_name};
inline const auto* const example_data = reinterpret_cast<const uint8_t*>("\x00\xff\x7f");

template <>
struct Example<pkgdist_ctrl_msg_hdr> {
  static pkgdist_ctrl_msg_hdr message() {
    return {0x3FF, 3,  0x0A010203,         0x00010203, 0xFFFFFFFE, 12,
            7,     -2, 0x40101278CA100BF1, 0x010203,   0x80000000};
  }
  static std::vector<Bytes> fields() {
    return {
        hex("00 00 00 03"), hex("0a 01 02 03"), hex("00 01 02 03"), hex("ff ff ff fe"),
        hex("00 00 00 0c"), hex("00 00 00 07"), hex("ff ff ff fe"), hex("40 10 12 78 ca 10 0b f1"),
        hex("00 01 02 03"), hex("80 00 00 00")};
  }
  static bool same(const pkgdist_ctrl_msg_hdr& m, uint32_t p) {
    return same_value(m.msg_id, 3u, p & 1) && same_value(m.node_ip, 0x0A010203u, p & 2) &&
           same_value(m.pid, 0x10203u, p & 4) && same_value(m.sequence, 0xFFFFFFFEu, p & 8) &&
           same_value(m.card_class, 12u, p & 0x10) && same_value(m.segment, 7u, p & 0x20) &&
           same_value(m.unicast, int32_t{-2}, p & 0x40) &&
           same_value(m.status, uint64_t{0x40101278CA100BF1}, p & 0x80) &&
           same_value(m.node_id, 0x10203u, p & 0x100) &&
           same_value(m.ack_sequence, 0x80000000u, p & 0x200);
  }
};

template <>
struct Example<pkgdist_ctrl_msg> {
  static pkgdist_ctrl_msg message() {
    return {0x3F, 5, example_nodes, 2, 100'000, 1390, 1, example_data, 3};
  }
  static std::vector<Bytes> fields() {
    return {hex("00 00 00 05"), hex("00 02 0a 00 00 01 0a 00 00 ff"),
            hex("00 01 86 a0"), hex("00 00 05 6e"),
            hex("00 00 00 01"), hex("00 00 00 03 00 ff 7f")};
  }
  static bool same(const pkgdist_ctrl_msg& m, uint32_t p) {
    return same_value(m.msg_class, 5u, p & 1) &&
           same_words(m.node_list, m.node_list_count, {0x0A000001, 0x0A0000FF}, p & 2) &&
           same_value(m.total_size, 100'000u, p & 4) && same_value(m.segment_size, 1390u, p & 8) &&
           same_value(m.rxmt, 1u, p & 0x10) &&
           same_bytes(m.data, m.data_size, {"\x00\xff\x7f", 3}, p & 0x20);
  }
};

template <>
struct Example<pkgdist_data_msg_hdr> {
  static pkgdist_data_msg_hdr message() { return {3, 6, 0xC0000201}; }
  static std::vector<Bytes> fields() { return {hex("00 00 00 06"), hex("c0 00 02 01")}; }
  static bool same(const pkgdist_data_msg_hdr& m, uint32_t p) {
    return same_value(m.msg_id, 6u, p & 1) && same_value(m.node_ip, 0xC0000201u, p & 2);
  }
};

template <>
struct Example<pkgdist_data_send_req> {
  static pkgdist_data_send_req message() { return {0xF, 11, 6, 4, example_name}; }
  static std::vector<Bytes> fields() {
    return {hex("00 00 00 0b"), hex("00 00 00 06"), hex("00 00 00 04"),
            hex("00 09 70 6b 67 2f 61 2e 62 69 6e")};
  }
  static bool same(const pkgdist_data_send_req& m, uint32_t p) {
    return same_value(m.type, 11u, p & 1) && same_value(m.location, 6u, p & 2) &&
           same_value(m.priority, 4u, p & 4) && same_text(m.name, "pkg/a.bin", p & 8);
  }
};

template <>
struct Example<struct pkgdist_data_send_req_single> {
  static struct pkgdist_data_send_req_single message() { return {7, 0x01020304, 8, 9}; }
  static std::vector<Bytes> fields() {
    return {hex("01 02 03 04"), hex("00 00 00 08"), hex("00 00 00 09")};
  }
  static bool same(const struct pkgdist_data_send_req_single& m, uint32_t p) {
    return same_value(m.file_id, 0x01020304u, p & 1) && same_value(m.segment, 8u, p & 2) &&
           same_value(m.num, 9u, p & 4);
  }
};

template <>
struct Example<pkgdist_data_send_req_done> {
  static pkgdist_data_send_req_done message() {
    return {0xF, 1, 0x30101278CA100BF9, example_second_name, 2};
  }
  static std::vector<Bytes> fields() {
    return {hex("00 00 00 01"), hex("30 10 12 78 ca 10 0b f9"), hex("00 01 62"),
            hex("00 00 00 02")};
  }
  static bool same(const pkgdist_data_send_req_done& m, uint32_t p) {
    return same_value(m.file_id, 1u, p & 1) &&
           same_value(m.status, uint64_t{0x30101278CA100BF9}, p & 2) &&
           same_text(m.name, "b", p & 4) && same_value(m.location, 2u, p & 8);
  }
};

template <>
struct Example<pkgdist_data_send_file_info> {
  static pkgdist_data_send_file_info message() {
    return {0x3FF, 0xFFFFFFFF, example_name,  0x7FFFFFFF, 1400, 0x40001278CA100002,
            0755,  0x5F5E1000, example_nodes, 1,          1,    3};
  }
  static std::vector<Bytes> fields() {
    return {hex("ff ff ff ff"),
            hex("00 09 70 6b 67 2f 61 2e 62 69 6e"),
            hex("7f ff ff ff"),
            hex("00 00 05 78"),
            hex("40 00 12 78 ca 10 00 02"),
            hex("00 00 01 ed"),
            hex("5f 5e 10 00"),
            hex("00 01 0a 00 00 01"),
            hex("01"),
            hex("00 00 00 03")};
  }
  static bool same(const pkgdist_data_send_file_info& m, uint32_t p) {
    return same_value(m.file_id, 0xFFFFFFFFu, p & 1) && same_text(m.name, "pkg/a.bin", p & 2) &&
           same_value(m.size, 0x7FFFFFFFu, p & 4) && same_value(m.segment_size, 1400u, p & 8) &&
           same_value(m.status, uint64_t{0x40001278CA100002}, p & 0x10) &&
           same_value(m.mode, 0755u, p & 0x20) && same_value(m.mtime, 0x5F5E1000u, p & 0x40) &&
           same_words(m.node_list, m.node_list_count, {0x0A000001}, p & 0x80) &&
           same_value(m.symlink, uint8_t{1}, p & 0x100) && same_value(m.location, 3u, p & 0x200);
  }
};

template <>
struct Example<pkgdist_data_send_segment> {
  static pkgdist_data_send_segment message() { return {0xF, 9, 0x00ABCDEF, 1, example_data, 2}; }
  static std::vector<Bytes> fields() {
    return {hex("00 00 00 09"), hex("00 ab cd ef"), hex("01"), hex("00 00 00 02 00 ff")};
  }
  static bool same(const pkgdist_data_send_segment& m, uint32_t p) {
    return same_value(m.file_id, 9u, p & 1) && same_value(m.segment, 0x00ABCDEFu, p & 2) &&
           same_value(m.repair, uint8_t{1}, p & 4) &&
           same_bytes(m.data, m.data_size, {"\x00\xff", 2}, p & 8);
  }
};

template <>
struct Example<pkgdist_data_send_miss_done> {
  static pkgdist_data_send_miss_done message() {
    return {0xF, 0x10, example_second_name, example_nodes, 2, 4};
  }
  static std::vector<Bytes> fields() {
    return {hex("00 00 00 10"), hex("00 01 62"), hex("00 02 0a 00 00 01 0a 00 00 ff"),
            hex("00 00 00 04")};
  }
  static bool same(const pkgdist_data_send_miss_done& m, uint32_t p) {
    return same_value(m.file_id, 0x10u, p & 1) && same_text(m.name, "b", p & 2) &&
           same_words(m.node_list, m.node_list_count, {0x0A000001, 0x0A0000FF}, p & 4) &&
           same_value(m.location, 4u, p & 8);
  }
};

template <>
struct Example<pkgdist_file_send_ctrl> {
  static pkgdist_file_send_ctrl message() { return {0x3F, 1, 0xABCD, 6, 2, 3, example_names, 3}; }
  static std::vector<Bytes> fields() {
    return {hex("00 00 00 01"), hex("00 00 ab cd"),
            hex("00 00 00 06"), hex("00 00 00 02"),
            hex("00 00 00 03"), hex("00 03 00 09 70 6b 67 2f 61 2e 62 69 6e 00 00 00 01 62")};
  }
  static bool same(const pkgdist_file_send_ctrl& m, uint32_t p) {
    const bool names =
        (p & 0x20) == 0 ? m.names == nullptr && m.names_count == 0
                        : m.names_count == 3 && same_text(m.names[0], "pkg/a.bin", true) &&
                              same_text(m.names[1], "", true) && same_text(m.names[2], "b", true);
    return names && same_value(m.operation, 1u, p & 1) && same_value(m.xact_id, 0xABCDu, p & 2) &&
           same_value(m.type, 6u, p & 4) && same_value(m.location, 2u, p & 8) &&
           same_value(m.priority, 3u, p & 0x10);
  }
};

// The bytes of an example of which only the fields in `presence` are there.
template <class T>
Bytes example_bytes(uint32_t presence) {
  Bytes bytes = mask(presence);
  const std::vector<Bytes> fields = Example<T>::fields();
  for (size_t i = 0; i < fields.size(); ++i)
    if ((presence >> i & 1) != 0) bytes.insert(bytes.end(), fields[i].begin(), fields[i].end());
  return bytes;
}

// The mask of all fields.
template <class T>
uint32_t all_fields() {
  return (1u << Example<T>::fields().size()) - 1;
}

using AllStructures =
    testing::Types<pkgdist_ctrl_msg_hdr, pkgdist_ctrl_msg, pkgdist_data_msg_hdr,
                   pkgdist_data_send_req, struct pkgdist_data_send_req_single,
                   pkgdist_data_send_req_done, pkgdist_data_send_file_info,
                   pkgdist_data_send_segment, pkgdist_data_send_miss_done, pkgdist_file_send_ctrl>;

}  // namespace codec_test
