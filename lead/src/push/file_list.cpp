#include "push/file_list.h"

#include <algorithm>
#include <unordered_map>

#include "pkgdist/wire_fields.hpp"
#include "pkgdist_lead/names.h"

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

std::vector<uint32_t> levels_of(const std::vector<PushFile>& files) {
  std::vector<uint32_t> levels(files.size());
  std::vector<std::pair<std::string, uint32_t>> taken;  // those that may have a level above 0
  for (uint32_t i = 0; i < files.size(); ++i) {
    std::string plain = plain_name(files[i].name);
    if (!owners_of_partial(plain).empty()) taken.emplace_back(std::move(plain), i);
  }
  if (taken.empty()) return levels;
  std::unordered_map<std::string, uint32_t> by_name;
  for (uint32_t i = 0; i < files.size(); ++i) by_name.emplace(plain_name(files[i].name), i);
  // An owner's name is shorter, so its level is known by then.
  std::sort(taken.begin(), taken.end(),
            [](const auto& a, const auto& b) { return a.first.size() < b.first.size(); });
  for (const auto& [plain, file] : taken)
    for (const std::string_view owner : owners_of_partial(plain))
      if (const auto found = by_name.find(std::string(owner)); found != by_name.end())
        levels[file] = std::max(levels[file], levels[found->second] + 1);
  return levels;
}

std::vector<FileRange> cut_file_list(const std::vector<PushFile>& files,
                                     const std::vector<uint32_t>& levels) {
  std::vector<FileRange> ranges;
  Piece piece;
  for (uint32_t i = 0; i < files.size(); ++i) {
    const uint32_t level = levels.empty() ? 0 : levels[i];
    if (ranges.empty() || ranges.back().level != level || !piece.takes(files[i])) {
      ranges.push_back({i, i, level});
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

std::vector<std::vector<uint8_t>> encode_deletes(uint32_t location,
                                                 const std::vector<std::string>& names) {
  std::vector<std::vector<uint8_t>> messages;
  std::vector<std::string> some;
  size_t bytes = 0;
  for (const std::string& name : names) {
    if (!some.empty() && (some.size() >= kMaxNames || bytes + name.size() > kMaxNameBytes)) {
      messages.push_back(encode_delete(location, some));
      some.clear();
      bytes = 0;
    }
    some.push_back(name);
    bytes += name.size() + kBytesPerName;
  }
  if (!some.empty()) messages.push_back(encode_delete(location, some));
  return messages;
}

}  // namespace pkgdist::lead
