#include "push/file_list.h"

#include "pkgdist/wire_fields.hpp"

namespace pkgdist::lead {

namespace {

// One piece: about 30 datagrams, at most. A loss then costs little and nodes start early.
constexpr size_t kMaxNames = 1000;
constexpr size_t kMaxNameBytes = 40 * 1024;
// What is streamed well within a second at the rates the lead starts with.
constexpr uint64_t kMaxContentBytes = 64 * 1024 * 1024;
constexpr size_t kBytesPerName = 2;  // of overhead

class Piece {
 public:
  bool takes(const PushFile& file) const {
    return names_ == 0 || (names_ < kMaxNames && name_bytes_ + file.name.size() <= kMaxNameBytes &&
                           content_ + file.size <= kMaxContentBytes);
  }
  void add(const PushFile& file) {
    ++names_;
    name_bytes_ += file.name.size() + kBytesPerName;
    content_ += file.size;
  }

 private:
  size_t names_ = 0;
  size_t name_bytes_ = 0;
  uint64_t content_ = 0;
};

std::vector<uint8_t> encode_body(const pkgdist_file_send_ctrl& body) {
  std::vector<uint8_t> bytes(static_cast<size_t>(qidl::encode(body, nullptr, 0)));
  qidl::encode(body, bytes.data(), bytes.size());
  return bytes;
}

std::vector<uint8_t> encode_list(const PushRequest& push, uint32_t xact,
                                 std::vector<char*>& names) {
  using B = pkgdist_file_send_ctrl;
  B body{};
  qidl::set<&B::operation>(body, PKGDIST_FILE_SEND_LIST);
  qidl::set<&B::xact_id>(body, xact);
  qidl::set<&B::type>(body, push.type);
  qidl::set<&B::location>(body, push.location);
  qidl::set<&B::priority>(body, push.priority);
  body.names = names.data();
  body.names_count = static_cast<uint32_t>(names.size());
  qidl::mark<&B::names>(body);
  return encode_body(body);
}

}  // namespace

std::vector<FileRange> cut_file_list(const std::vector<PushFile>& files) {
  std::vector<FileRange> ranges;
  Piece piece;
  for (uint32_t i = 0; i < files.size(); ++i) {
    if (ranges.empty() || !piece.takes(files[i])) {
      ranges.push_back({i, i});
      piece = {};
    }
    piece.add(files[i]);
    ranges.back().end = i + 1;
  }
  return ranges;
}

std::vector<std::vector<uint8_t>> encode_file_lists(const PushRequest& push, uint32_t xact,
                                                    const std::vector<uint32_t>& files) {
  std::vector<std::vector<uint8_t>> messages;
  std::vector<char*> names;
  size_t bytes = 0;
  for (uint32_t file : files) {
    const std::string& name = push.files[file].name;
    if (!names.empty() && (names.size() >= kMaxNames || bytes + name.size() > kMaxNameBytes)) {
      messages.push_back(encode_list(push, xact, names));
      names.clear();
      bytes = 0;
    }
    names.push_back(const_cast<char*>(name.c_str()));
    bytes += name.size() + kBytesPerName;
  }
  if (!names.empty()) messages.push_back(encode_list(push, xact, names));
  return messages;
}

std::vector<uint8_t> encode_cancel(uint32_t xact) {
  using B = pkgdist_file_send_ctrl;
  B body{};
  qidl::set<&B::operation>(body, PKGDIST_FILE_SEND_CANCEL);
  qidl::set<&B::xact_id>(body, xact);
  return encode_body(body);
}

std::vector<uint8_t> encode_delete(uint32_t location, const std::vector<std::string>& names) {
  using B = pkgdist_file_send_ctrl;
  std::vector<char*> texts;
  texts.reserve(names.size());
  for (const std::string& name : names) texts.push_back(const_cast<char*>(name.c_str()));
  B body{};
  qidl::set<&B::operation>(body, PKGDIST_FILE_SEND_DELETE);
  qidl::set<&B::location>(body, location);
  body.names = texts.data();
  body.names_count = static_cast<uint32_t>(texts.size());
  qidl::mark<&B::names>(body);
  return encode_body(body);
}

}  // namespace pkgdist::lead
