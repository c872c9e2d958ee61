#include "stream/open_contents.h"

#include <cerrno>

#include "pkgdist/wire_data.h"

namespace pkgdist::lead {

namespace {

constexpr uint64_t kMaxFileSize = UINT32_MAX;

int check_size(const FileAttributes& attributes) {
  if (attributes.size > kMaxFileSize) return EFBIG;
  if (attributes.symlink && attributes.size > PKGDIST_SYMLINK_TARGET_MAX) return ENAMETOOLONG;
  return 0;
}

}  // namespace

int OpenContents::inspect(const FileKey& key, FileAttributes& attributes,
                          std::unique_ptr<Content>& content) {
  const int error = store_.open(key.location, key.name, attributes, content);
  return error != 0 ? error : check_size(attributes);
}

void OpenContents::adopt(TransferId id, std::unique_ptr<Content> content) {
  if (contents_.size() < kMostOpen) insert(id, std::move(content));
}

void OpenContents::insert(TransferId id, std::unique_ptr<Content> content) {
  contents_[id] = std::move(content);
  order_.push_back(id);
  while (contents_.size() > kMostOpen || !contents_.contains(order_.front())) {
    contents_.erase(order_.front());
    order_.pop_front();
  }
}

int OpenContents::read(const Transfer& transfer, uint64_t offset, std::span<uint8_t> out,
                       bool in_order) {
  auto found = contents_.find(transfer.id);
  if (found == contents_.end()) {
    FileAttributes attributes;
    std::unique_ptr<Content> content;
    const int error = inspect(transfer.key, attributes, content);
    if (error != 0) return error;
    if (attributes != transfer.attributes) return ESTALE;
    insert(transfer.id, std::move(content));
    found = contents_.find(transfer.id);
  }
  if (out.empty()) return 0;
  if (!in_order) return found->second->read(offset, out);
  return read_ahead_.read(transfer.id, *found->second, transfer.attributes.size, offset, out);
}

}  // namespace pkgdist::lead
