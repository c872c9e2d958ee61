// Datagrams of the data channel that the lead sends.
#pragma once

#include <array>

#include "datagram.h"
#include "stream/transfer.h"

namespace pkgdist::lead {

// More addresses than this are not listed; the message then goes to everybody.
inline constexpr size_t kMaxListedNodes = 200;

// Each returns the datagram's length, 0 when it does not fit. `nodes` are addresses, none for all.
size_t build_info(std::span<uint8_t> out, uint32_t self, const Transfer& transfer,
                  uint32_t segment_size, std::span<uint32_t> nodes);
// A poll is a "miss done". `number` is what nodes answer with: the transfer's, or one of its own.
size_t build_poll(std::span<uint8_t> out, uint32_t self, const FileKey& key, TransferId number,
                  std::span<uint32_t> nodes);

// Segment datagrams. All of them have the same layout: it is encoded once, then the three words
// that differ are patched and the data is put behind.
class SegmentBuilder {
 public:
  explicit SegmentBuilder(uint32_t self);

  // Where the data goes.
  std::span<uint8_t> data(std::span<uint8_t> out, size_t length) const {
    return out.subspan(size_, length);
  }
  // Completes a datagram whose data is in place; returns its length.
  size_t finish(std::span<uint8_t> out, TransferId id, uint32_t segment, bool repair,
                size_t length) const;
  size_t overhead() const { return size_; }

 private:
  std::array<uint8_t, 64> prefix_{};
  size_t size_ = 0;
  size_t body_ = 0;  // offset of the encoded body
};

}  // namespace pkgdist::lead
