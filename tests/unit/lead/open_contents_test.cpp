#include "stream/open_contents.h"

#include <gtest/gtest.h>

#include <cerrno>

#include "lead_cluster.h"

namespace pkgdist::lead {
namespace {

constexpr size_t kMostOpen = 256;
constexpr size_t kSize = 5000;

// Counts what is open at a time.
class CountingStore : public test::MemoryStore {
 public:
  int open(uint32_t location, const std::string& name, FileAttributes& attributes,
           std::unique_ptr<Content>& content) override {
    std::unique_ptr<Content> inner;
    const int error = MemoryStore::open(location, name, attributes, inner);
    if (error != 0) return error;
    content = std::make_unique<Counted>(std::move(inner), *this);
    if (huge) attributes.size = uint64_t{UINT32_MAX} + 1;
    return 0;
  }
  size_t open_now = 0;
  size_t most_open = 0;
  size_t reads = 0;
  bool huge = false;

 private:
  class Counted : public Content {
   public:
    Counted(std::unique_ptr<Content> inner, CountingStore& store)
        : inner_(std::move(inner)), store_(store) {
      store_.most_open = std::max(store_.most_open, ++store_.open_now);
    }
    ~Counted() override { --store_.open_now; }
    int read(uint64_t offset, std::span<uint8_t> out) override {
      ++store_.reads;
      return inner_->read(offset, out);
    }

   private:
    std::unique_ptr<Content> inner_;
    CountingStore& store_;
  };
};

class OpenContentsTest : public testing::Test {
 protected:
  static std::string name_of(size_t index) { return "file" + std::to_string(index); }
  // A file that is looked at as for a transfer; what inspect() said about it is in error_.
  Transfer& start(const std::string& name) {
    FileAttributes attributes;
    std::unique_ptr<Content> content;
    error_ = contents_.inspect({1, name}, attributes, content);
    const auto id = static_cast<TransferId>(transfers_.size() + 1);
    transfers_.push_back(std::make_unique<Transfer>(id, FileKey{1, name}, attributes, 1));
    if (error_ == 0) contents_.adopt(id, std::move(content));
    return *transfers_.back();
  }
  Transfer& start(size_t index) {
    store_.add(name_of(index), test::pattern(kSize, index));
    return start(name_of(index));
  }
  int read(const Transfer& transfer, uint64_t offset, size_t length, bool in_order = false) {
    out_.assign(length, 0);
    return contents_.read(transfer, offset, out_, in_order);
  }
  bool right(size_t index, uint64_t offset) const {
    const test::Bytes all = test::pattern(kSize, index);
    return std::equal(out_.begin(), out_.end(), all.begin() + static_cast<ptrdiff_t>(offset));
  }

  CountingStore store_;
  OpenContents contents_{store_};
  std::vector<std::unique_ptr<Transfer>> transfers_;
  test::Bytes out_;
  int error_ = 0;
};

TEST_F(OpenContentsTest, reads_what_was_opened_for_the_announcement) {
  const Transfer& file = start(3);
  EXPECT_EQ(read(file, 1000, 100), 0);
  EXPECT_TRUE(right(3, 1000));
  EXPECT_EQ(read(file, 2000, 100, true), 0);
  EXPECT_TRUE(right(3, 2000));
  EXPECT_EQ(store_.opened(), 1u);
}

TEST_F(OpenContentsTest, no_more_than_256_are_open_and_all_can_be_read) {
  for (size_t i = 0; i < 2 * kMostOpen; ++i) start(i);
  EXPECT_EQ(store_.open_now, kMostOpen);
  for (int round = 0; round < 2; ++round) {
    for (size_t i = 0; i < transfers_.size(); ++i) {
      ASSERT_EQ(read(*transfers_[i], 77, 1000), 0);
      ASSERT_TRUE(right(i, 77));
    }
  }
  EXPECT_EQ(store_.open_now, kMostOpen);
  // While one is opened in place of another, both are, beside the one that is looked at.
  EXPECT_LE(store_.most_open, kMostOpen + 1);
}

TEST_F(OpenContentsTest, what_is_before_in_the_stream_keeps_its_place) {
  for (size_t i = 0; i < kMostOpen + 10; ++i) start(i);
  const size_t opened = store_.opened();
  for (size_t i = 0; i < kMostOpen; ++i) ASSERT_EQ(read(*transfers_[i], 0, 10), 0);
  EXPECT_EQ(store_.opened(), opened);
  ASSERT_EQ(read(*transfers_[kMostOpen], 0, 10), 0);
  EXPECT_EQ(store_.opened(), opened + 1);
}

TEST_F(OpenContentsTest, the_one_that_was_opened_first_makes_room) {
  for (size_t i = 0; i < kMostOpen + 1; ++i) start(i);
  ASSERT_EQ(read(*transfers_[kMostOpen], 0, 10), 0);
  const size_t opened = store_.opened();
  ASSERT_EQ(read(*transfers_[1], 0, 10), 0);
  EXPECT_EQ(store_.opened(), opened);
  ASSERT_EQ(read(*transfers_[0], 0, 10), 0);
  EXPECT_EQ(store_.opened(), opened + 1);
}

TEST_F(OpenContentsTest, a_file_that_was_closed_is_opened_again) {
  const Transfer& file = start(1);
  contents_.close(file.id);
  EXPECT_EQ(store_.open_now, 0u);
  EXPECT_EQ(read(file, 10, 10), 0);
  EXPECT_TRUE(right(1, 10));
  EXPECT_EQ(store_.opened(), 2u);
}

TEST_F(OpenContentsTest, places_of_closed_files_are_free) {
  for (size_t i = 0; i < kMostOpen; ++i) start(i);
  for (size_t i = 0; i < kMostOpen; ++i) contents_.close(transfers_[i]->id);
  const Transfer& file = start(kMostOpen);
  EXPECT_EQ(store_.open_now, 1u);
  const size_t opened = store_.opened();
  ASSERT_EQ(read(file, 0, 10), 0);
  EXPECT_EQ(store_.opened(), opened);
}

TEST_F(OpenContentsTest, a_file_that_changed_while_it_was_closed_is_not_mixed_with_the_old_one) {
  const Transfer& file = start(1);
  contents_.close(file.id);
  store_.add(name_of(1), test::pattern(kSize, 99), 0644, 1'700'000'000);
  EXPECT_EQ(read(file, 0, 10), ESTALE);
  EXPECT_EQ(out_, test::Bytes(10, 0));
  EXPECT_EQ(store_.open_now, 0u);
}

TEST_F(OpenContentsTest, a_file_that_is_gone_tells_so_only_once_it_has_to_be_opened_again) {
  const Transfer& file = start(1);
  store_.remove(name_of(1));
  EXPECT_EQ(read(file, 0, 10), 0);
  contents_.close(file.id);
  EXPECT_EQ(read(file, 0, 10), ENOENT);
}

TEST_F(OpenContentsTest, an_empty_file_is_checked_like_any_other) {
  store_.add("empty", {});
  const Transfer& file = start("empty");
  EXPECT_EQ(read(file, 0, 0), 0);
  EXPECT_EQ(store_.reads, 0u);
  contents_.close(file.id);
  store_.remove("empty");
  EXPECT_EQ(read(file, 0, 0), ENOENT);
}

TEST_F(OpenContentsTest, a_read_error_is_told) {
  store_.add("broken", test::pattern(kSize, 1));
  store_.break_read("broken", 2000);
  const Transfer& file = start("broken");
  EXPECT_EQ(read(file, 0, 1000), 0);
  EXPECT_EQ(read(file, 2000, 1000), EIO);
}

TEST_F(OpenContentsTest, refuses_what_cannot_travel) {
  start("nothing");
  EXPECT_EQ(error_, ENOENT);
  store_.add_link("link", std::string(PKGDIST_SYMLINK_TARGET_MAX, 'x'));
  start("link");
  EXPECT_EQ(error_, 0);
  store_.add_link("long link", std::string(PKGDIST_SYMLINK_TARGET_MAX + 1, 'x'));
  start("long link");
  EXPECT_EQ(error_, ENAMETOOLONG);
  store_.huge = true;
  start(1);
  EXPECT_EQ(error_, EFBIG);
}

TEST_F(OpenContentsTest, segments_in_order_are_read_in_one_piece_and_repairs_alone) {
  const Transfer& file = start(1);
  for (uint64_t offset = 0; offset < kSize; offset += 1000)
    ASSERT_EQ(read(file, offset, 1000, true), 0);
  EXPECT_EQ(store_.reads, 1u);
  ASSERT_EQ(read(file, 1000, 1000, false), 0);
  EXPECT_EQ(store_.reads, 2u);
}

}  // namespace
}  // namespace pkgdist::lead
