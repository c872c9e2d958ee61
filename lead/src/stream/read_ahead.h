// The stretch of one file that the stream is about to send: read in one piece, because a read for
// every segment costs more than the segment. One stretch serves all files, so that memory does not
// grow with them.
#pragma once

#include <algorithm>
#include <cstring>
#include <span>
#include <vector>

#include "pkgdist_lead/content.h"

namespace pkgdist::lead {

class ReadAhead {
 public:
  // Fills `out` with the bytes from `offset` on of the file `owner`, which has `size` bytes.
  // 0, or the errno value of a read.
  int read(uint32_t owner, Content& content, uint64_t size, uint64_t offset,
           std::span<uint8_t> out) {
    if (!holds(owner, offset, out.size()))
      if (int error = fill(owner, content, size, offset); error != 0) return error;
    std::memcpy(out.data(), bytes_.data() + (offset - offset_), out.size());
    return 0;
  }

 private:
  static constexpr size_t kBytes = 128 * 1024;

  bool holds(uint32_t owner, uint64_t offset, size_t length) const {
    return length_ != 0 && owner == owner_ && offset >= offset_ &&
           offset + length <= offset_ + length_;
  }

  int fill(uint32_t owner, Content& content, uint64_t size, uint64_t offset) {
    bytes_.resize(kBytes);
    length_ = 0;
    const auto length = static_cast<size_t>(std::min<uint64_t>(kBytes, size - offset));
    if (int error = content.read(offset, std::span(bytes_).first(length)); error != 0) return error;
    owner_ = owner;
    offset_ = offset;
    length_ = length;
    return 0;
  }

  std::vector<uint8_t> bytes_;
  uint32_t owner_ = 0;
  uint64_t offset_ = 0;
  size_t length_ = 0;
};

}  // namespace pkgdist::lead
