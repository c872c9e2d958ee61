#include "stream/read_ahead.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <numeric>

namespace pkgdist::lead {
namespace {

// Counts how often it is read, and fails from an offset on.
class Source : public Content {
 public:
  explicit Source(size_t size, uint8_t first) : bytes_(size) {
    std::iota(bytes_.begin(), bytes_.end(), first);
  }
  int read(uint64_t offset, std::span<uint8_t> out) override {
    ++reads;
    if (offset + out.size() > fails_from) return EIO;
    std::copy_n(bytes_.begin() + static_cast<ptrdiff_t>(offset), out.size(), out.begin());
    return 0;
  }
  uint8_t at(uint64_t offset) const { return bytes_[offset]; }
  uint64_t size() const { return bytes_.size(); }

  int reads = 0;
  uint64_t fails_from = UINT64_MAX;

 private:
  std::vector<uint8_t> bytes_;
};

constexpr size_t kSegment = 1400;

// The first byte of each segment, and the errors.
void read_all(ReadAhead& window, uint32_t owner, Source& source) {
  std::vector<uint8_t> out(kSegment);
  for (uint64_t offset = 0; offset < source.size(); offset += kSegment) {
    const size_t length = std::min<uint64_t>(kSegment, source.size() - offset);
    ASSERT_EQ(window.read(owner, source, source.size(), offset, std::span(out).first(length)), 0);
    ASSERT_EQ(out[0], source.at(offset));
    ASSERT_EQ(out[length - 1], source.at(offset + length - 1));
  }
}

TEST(ReadAhead, a_file_is_read_in_few_pieces) {
  ReadAhead window;
  Source source(1'000'001, 3);
  read_all(window, 1, source);
  EXPECT_LE(source.reads, 8);
}

TEST(ReadAhead, files_in_turn_get_their_own_bytes) {
  ReadAhead window;
  Source one(200'000, 1), other(200'000, 101);
  std::vector<uint8_t> out(kSegment);
  for (uint64_t offset = 0; offset + kSegment < one.size(); offset += 50 * kSegment) {
    ASSERT_EQ(window.read(1, one, one.size(), offset, out), 0);
    ASSERT_EQ(out[7], one.at(offset + 7));
    ASSERT_EQ(window.read(2, other, other.size(), offset, out), 0);
    ASSERT_EQ(out[7], other.at(offset + 7));
  }
}

TEST(ReadAhead, a_failed_read_leaves_nothing_to_be_sent) {
  ReadAhead window;
  Source source(400'000, 9);
  std::vector<uint8_t> out(kSegment);
  ASSERT_EQ(window.read(1, source, source.size(), 0, out), 0);
  source.fails_from = 300'000;
  EXPECT_EQ(window.read(1, source, source.size(), 250'000, out), EIO);
  source.fails_from = UINT64_MAX;
  ASSERT_EQ(window.read(1, source, source.size(), 250'000, out), 0);
  EXPECT_EQ(out[0], source.at(250'000));
}

}  // namespace
}  // namespace pkgdist::lead
