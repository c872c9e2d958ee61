// What every database is made of: the queue with its identifiers, the hash index beside it, and the
// segment bitmap.
#include <memory>

#include "pkgdist_bitmap.h"
#include "pkgdist_db.h"
#include "pkgdist_index.h"
#include "recv_support.h"

using namespace pkgdist;
using namespace support;

namespace {

// --- The queue ---

struct Item {
  Item* next = nullptr;
  Item* previous = nullptr;
  int number = 0;
};

class Queue : public testing::Test {
 protected:
  std::string order() const {
    std::string numbers;
    const Item* last = nullptr;
    for (const Item* at = db_.head; at != nullptr; last = at, at = at->next) {
      EXPECT_EQ(at->previous, last);
      numbers += std::to_string(at->number);
    }
    EXPECT_EQ(db_.tail, last);
    EXPECT_EQ(db_.count, numbers.size());
    return numbers;
  }
  void append_all() {
    for (int i = 0; i < 4; ++i) {
      items_[i].number = i;
      db_.append(&items_[i]);
    }
  }

  ModuleDb<Item> db_;
  Item items_[4];
};

TEST_F(Queue, starts_empty_with_identifier_10) {
  EXPECT_TRUE(db_.empty());
  EXPECT_EQ(order(), "");
  EXPECT_EQ(db_.next_id, 10u);
}

TEST_F(Queue, appends_at_the_tail) {
  append_all();
  EXPECT_EQ(order(), "0123");
  EXPECT_FALSE(db_.empty());
}

TEST_F(Queue, removes_from_the_head_the_middle_and_the_tail) {
  append_all();
  db_.remove(&items_[1]);
  EXPECT_EQ(order(), "023");
  db_.remove(&items_[0]);
  EXPECT_EQ(order(), "23");
  db_.remove(&items_[3]);
  EXPECT_EQ(order(), "2");
  db_.remove(&items_[2]);
  EXPECT_EQ(order(), "");
  db_.append(&items_[3]);
  EXPECT_EQ(order(), "3");
}

TEST_F(Queue, finds_the_first_that_matches) {
  append_all();
  EXPECT_EQ(db_.find([](const Item& item) { return item.number >= 2; }), &items_[2]);
  EXPECT_EQ(db_.find([](const Item&) { return false; }), nullptr);
}

TEST_F(Queue, identifiers_grow_by_one_and_wrap_to_10) {
  EXPECT_EQ(db_.allocate_id(), 10u);
  EXPECT_EQ(db_.allocate_id(), 11u);
  db_.next_id = 0xFFFFFFFF;
  EXPECT_EQ(db_.allocate_id(), 0xFFFFFFFFu);
  EXPECT_EQ(db_.allocate_id(), 10u);
}

TEST_F(Queue, an_allocator_that_stands_below_10_goes_on_from_10) {
  db_.next_id = 3;
  EXPECT_EQ(db_.allocate_id(), 3u);
  EXPECT_EQ(db_.allocate_id(), 10u);
}

// --- The index ---

struct Keyed {
  IndexLink<Keyed> link;
  uint64_t serial = 0;
  uint32_t key = 0;
};

class HashIndex : public RecvTest {
 protected:
  Keyed* add(uint32_t key) {
    owned_.push_back(std::make_unique<Keyed>());
    owned_.back()->serial = owned_.size();
    owned_.back()->key = key;
    index_.add(owned_.back().get(), hash_number(key));
    return owned_.back().get();
  }
  Keyed* find(uint32_t key) const {
    return index_.find(hash_number(key), [=](const Keyed& item) { return item.key == key; });
  }

  std::vector<std::unique_ptr<Keyed>> owned_;
  // Never destroyed: an index lives as long as the process.
  Index<Keyed, &Keyed::link>& index_ = *new_index();

 private:
  static Index<Keyed, &Keyed::link>* new_index() {
    static auto* const all = new std::vector<Index<Keyed, &Keyed::link>*>;
    all->push_back(new Index<Keyed, &Keyed::link>);
    return all->back();
  }
};

TEST_F(HashIndex, finds_every_one_of_many_and_nothing_else) {
  std::vector<Keyed*> added;
  for (uint32_t key = 0; key < 5000; ++key) added.push_back(add(key * 16));
  for (uint32_t key = 0; key < 5000; ++key) ASSERT_EQ(find(key * 16), added[key]);
  EXPECT_EQ(find(1), nullptr);
}

TEST_F(HashIndex, forgets_what_is_removed_and_only_that) {
  std::vector<Keyed*> added;
  for (uint32_t key = 0; key < 200; ++key) added.push_back(add(key));
  for (uint32_t key = 0; key < 200; key += 2) index_.remove(added[key]);
  for (uint32_t key = 0; key < 200; ++key)
    ASSERT_EQ(find(key), key % 2 == 0 ? nullptr : added[key]);
}

TEST_F(HashIndex, removing_twice_is_harmless) {
  Keyed* item = add(3);
  Keyed* other = add(4);
  index_.remove(item);
  index_.remove(item);
  EXPECT_EQ(find(3), nullptr);
  EXPECT_EQ(find(4), other);
}

TEST_F(HashIndex, among_equal_keys_the_oldest_is_found) {
  Keyed* first = add(9);
  Keyed* second = add(9);
  Keyed* third = add(9);
  EXPECT_EQ(find(9), first);
  index_.remove(first);
  EXPECT_EQ(find(9), second);
  index_.add(first, hash_number(9));
  EXPECT_EQ(find(9), first);
  index_.remove(first);
  index_.remove(second);
  EXPECT_EQ(find(9), third);
}

TEST_F(HashIndex, without_memory_to_grow_it_still_finds_everything) {
  faults::fail_always(Call::kCalloc, ENOMEM);
  std::vector<Keyed*> added;
  for (uint32_t key = 0; key < 100; ++key) added.push_back(add(key));
  EXPECT_GT(faults::calls(Call::kCalloc), 0u);
  for (uint32_t key = 0; key < 100; ++key) ASSERT_EQ(find(key), added[key]);
}

TEST(HashOfText, equal_texts_are_equal_and_others_differ) {
  EXPECT_EQ(hash_text("a/b"), hash_text(std::string("a/b").c_str()));
  EXPECT_NE(hash_text("a/b"), hash_text("a/c"));
  EXPECT_NE(hash_text(""), hash_text("a"));
}

// --- The bitmap ---

TEST(Bitmap, bytes_are_rounded_up_for_any_count) {
  EXPECT_EQ(bitmap_bytes(0), 0u);
  EXPECT_EQ(bitmap_bytes(1), 1u);
  EXPECT_EQ(bitmap_bytes(8), 1u);
  EXPECT_EQ(bitmap_bytes(9), 2u);
  EXPECT_EQ(bitmap_bytes(0xFFFFFFFF), 0x20000000u);
}

TEST(Bitmap, segments_are_rounded_up_without_overflow) {
  EXPECT_EQ(segments_of(0, 1390), 0u);
  EXPECT_EQ(segments_of(1, 1390), 1u);
  EXPECT_EQ(segments_of(1390, 1390), 1u);
  EXPECT_EQ(segments_of(1391, 1390), 2u);
  EXPECT_EQ(segments_of(0xFFFFFFFF, 1), 0xFFFFFFFFu);
  EXPECT_EQ(segments_of(0xFFFFFFFF, 1390), 3089905u);
  EXPECT_EQ(segments_of(0xFFFFFFFF, 0xFFFFFFFF), 1u);
}

TEST(Bitmap, bit_n_is_in_byte_n_by_8_least_significant_first) {
  uint8_t bits[2] = {};
  uint32_t count = 0;
  bit_set(bits, 16, 0, count);
  bit_set(bits, 16, 10, count);
  bit_set(bits, 16, 15, count);
  EXPECT_EQ(bits[0], 0x01);
  EXPECT_EQ(bits[1], 0x84);
  EXPECT_EQ(count, 3u);
  EXPECT_TRUE(bit_is_set(bits, 16, 10));
  EXPECT_FALSE(bit_is_set(bits, 16, 9));
}

TEST(Bitmap, a_bit_is_counted_once) {
  uint8_t bits[1] = {};
  uint32_t count = 0;
  bit_set(bits, 3, 1, count);
  bit_set(bits, 3, 1, count);
  EXPECT_EQ(count, 1u);
  bit_clear(bits, 3, 1, count);
  bit_clear(bits, 3, 1, count);
  EXPECT_EQ(count, 0u);
  EXPECT_EQ(bits[0], 0);
}

TEST(Bitmap, bits_out_of_range_are_clear_and_stay_so) {
  uint8_t bits[1] = {};
  uint32_t count = 0;
  for (const uint32_t beyond : {3u, 7u, 8u, 0xFFFFFFFFu}) {
    bit_set(bits, 3, beyond, count);
    EXPECT_FALSE(bit_is_set(bits, 3, beyond));
    bit_clear(bits, 3, beyond, count);
  }
  EXPECT_EQ(bits[0], 0);
  EXPECT_EQ(count, 0u);
}

}  // namespace
