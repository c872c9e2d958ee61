// The file receive database: entries, transactions, bitmaps, lookups and their index.
#include <sys/mman.h>

#include <algorithm>

#include "data_support.h"
#include "pkgdist_bitmap.h"
#include "pkgdist_data_recv_rx_thread.h"

using namespace support;
using namespace pkgdist;

namespace {

class FileDb : public DataTest {};

// --- Adding ---

TEST_F(FileDb, a_new_entry_waits_for_its_file_info) {
  EXPECT_EQ(want("a", 5, 3, 1, 10, 4), 0u);
  const pkgdist_file_recv_entry& entry = *find("a");
  EXPECT_STREQ(entry.path, "a");
  EXPECT_EQ(entry.file_id, 0u);
  ASSERT_EQ(entry.xact_count, 1);
  EXPECT_EQ(entry.xacts[0].xact_id, 5u);
  EXPECT_EQ(entry.xacts[0].kind, 10u);
  EXPECT_EQ(entry.type, 3u);
  EXPECT_EQ(entry.location, 1u);
  EXPECT_EQ(entry.priority, 4u);
  EXPECT_EQ(entry.memory, 0);
  EXPECT_EQ(entry.info_pending, 1);
  EXPECT_EQ(entry.symlink, 0);
  EXPECT_EQ(entry.fd, -1);
  EXPECT_EQ(entry.mapping, MAP_FAILED);
  EXPECT_EQ(entry.start_time, clock::now());
  EXPECT_EQ(entry.segment_count + entry.received_count + entry.missing_count, 0u);
  EXPECT_EQ(entry.timeout_count, 0u);
  EXPECT_EQ(value(DrsCounter::kFileAdd), 1u);
  EXPECT_EQ(value(DrsCounter::kXactAdd), 0u);
}

TEST_F(FileDb, an_entry_of_a_memory_location_is_a_memory_file) {
  EXPECT_EQ(want("a", 5, 1, 2), 0u);
  EXPECT_EQ(find("a", 2)->memory, 1);
}

TEST_F(FileDb, entries_keep_the_order_of_their_adding) {
  for (const char* name : {"a", "b", "c"}) want(name);
  EXPECT_STREQ(G_file_recv_db.head->path, "a");
  EXPECT_STREQ(G_file_recv_db.tail->path, "c");
  EXPECT_EQ(G_file_recv_db.count, 3u);
}

TEST_F(FileDb, threads_that_cannot_start_fail_the_adding) {
  G_data_rx_thread_running = false;
  faults::fail(Call::kBind, 1, EADDRINUSE);
  EXPECT_EQ(want("a"), PKGDIST_ERR_SYSTEM);
  EXPECT_TRUE(G_file_recv_db.empty());
  EXPECT_EQ(value(DrsCounter::kFileAdd), 0u);
}

struct NoMemory {
  Call call;
  const char* words;
};
class FileDbNoMemory : public FileDb, public testing::WithParamInterface<NoMemory> {};

TEST_P(FileDbNoMemory, adding_a_file_leaves_the_database_as_it_was) {
  faults::fail(GetParam().call, 1);
  EXPECT_EQ(want("a"), PKGDIST_ERR_NOMEM);
  EXPECT_TRUE(
      logs::contains(std::string("ERR:pkgdist_file_recv_add_file: ") + GetParam().words + "\n"));
  EXPECT_TRUE(G_file_recv_db.empty());
  EXPECT_EQ(value(DrsCounter::kFileAdd), 0u);
}

const std::string kEntryWords = "malloc() " + std::to_string(sizeof(pkgdist_file_recv_entry)) +
                                " bytes for FILE_RECV_DB failed";
INSTANTIATE_TEST_SUITE_P(
    Allocations, FileDbNoMemory,
    testing::Values(NoMemory{Call::kCalloc, kEntryWords.c_str()},
                    NoMemory{Call::kStrdup, "stddup() for RECV_FILE_DB_FILE_PATH failed"},
                    NoMemory{Call::kMalloc, "malloc() 8 bytes for FILE_RECV_XACT_LIST failed"}));

// --- Transactions ---

TEST_F(FileDb, a_further_transaction_of_the_lead_waits_for_a_new_file_info) {
  begin(2);
  clock::advance(kSecond);
  EXPECT_EQ(want_also("file", 6), 0u);
  const pkgdist_file_recv_entry& entry = *find();
  ASSERT_EQ(entry.xact_count, 2);
  EXPECT_EQ(entry.xacts[1].xact_id, 6u);
  EXPECT_EQ(entry.xacts[1].kind, 2u);
  EXPECT_EQ(entry.info_pending, 1);
  EXPECT_EQ(entry.start_time, clock::now());
  EXPECT_EQ(value(DrsCounter::kXactAdd), 1u);
}

TEST_F(FileDb, a_further_transaction_of_a_caller_does_not) {
  begin(2);
  const uint64_t start = find()->start_time;
  clock::advance(kSecond);
  EXPECT_EQ(want_also("file", 6, 1, 10), 0u);
  EXPECT_EQ(find()->info_pending, 0);
  EXPECT_EQ(find()->start_time, start);
  EXPECT_EQ(value(DrsCounter::kXactAdd), 1u);
}

TEST_F(FileDb, type_six_wins_and_stays) {
  want("a", 5, 1);
  want_also("a", 6, 3);
  EXPECT_EQ(find("a")->type, 1u);
  want_also("a", 7, 6);
  EXPECT_EQ(find("a")->type, 6u);
  want_also("a", 8, 1);
  EXPECT_EQ(find("a")->type, 6u);
}

TEST_F(FileDb, a_link_that_gets_type_six_stays_a_link) {
  want("file");
  announce({.size = 6, .symlink = true});
  EXPECT_EQ(find()->type, 8u);
  want_also("file", 6, 6, 10);
  EXPECT_EQ(find()->type, 6u);
  EXPECT_EQ(find()->symlink, 1);
}

TEST_F(FileDb, the_most_urgent_priority_is_kept) {
  want("a", 5, 1, 1, 2, 3);
  want_also("a", 6, 1, 2, 4);
  EXPECT_EQ(find("a")->priority, 3u);
  want_also("a", 7, 1, 2, 0x80000000);  // compared without sign
  EXPECT_EQ(find("a")->priority, 3u);
  want_also("a", 8, 1, 2, 1);
  EXPECT_EQ(find("a")->priority, 1u);
}

TEST_F(FileDb, a_transaction_that_finds_no_memory_leaves_the_entry_as_it_was) {
  want("a", 5, 1, 1, 2, 3);
  faults::fail(Call::kRealloc, 1);
  EXPECT_EQ(want_also("a", 6, 6, 2, 1), PKGDIST_ERR_NOMEM);
  EXPECT_TRUE(logs::contains(
      "ERR:pkgdist_file_recv_add_xact: realloc() file recv xact list 16 bytes failed\n"));
  EXPECT_EQ(find("a")->xact_count, 1);
  EXPECT_EQ(find("a")->type, 1u);
  EXPECT_EQ(find("a")->priority, 3u);
  EXPECT_EQ(value(DrsCounter::kXactAdd), 0u);
}

// --- Lookups ---

TEST_F(FileDb, a_path_matches_bytewise_and_in_its_location) {
  want("a/b", 5, 1, 2);
  const pkgdist_file_recv_entry& entry = *find("a/b", 2);
  EXPECT_TRUE(pkgdist_file_recv_path_match(entry, {"a/b", 2}));
  EXPECT_TRUE(pkgdist_file_recv_path_match(entry, {"a/b", 0}));
  EXPECT_FALSE(pkgdist_file_recv_path_match(entry, {"a/b", 1}));
  EXPECT_FALSE(pkgdist_file_recv_path_match(entry, {"A/b", 2}));
  EXPECT_FALSE(pkgdist_file_recv_path_match(entry, {"a/", 2}));
  EXPECT_FALSE(pkgdist_file_recv_path_match(entry, {"a/bc", 0}));
}

TEST_F(FileDb, the_entry_that_was_added_first_is_found_first) {
  want("a", 5, 1, 2);
  want("a", 5, 1, 1);
  EXPECT_EQ(find("a", 0)->location, 2u);
  EXPECT_EQ(find("a", 1)->location, 1u);
  const FileRecvDbGuard lock;
  file_recv_set_id(*G_file_recv_db.tail, 9);
  file_recv_set_id(*G_file_recv_db.head, 9);
  EXPECT_EQ(file_recv_find(9), G_file_recv_db.head);
}

TEST_F(FileDb, file_id_zero_names_nothing) {
  want("a");
  EXPECT_EQ(file_recv_find(0), nullptr);
}

TEST_F(FileDb, an_entry_is_found_by_its_current_id_only) {
  want("a");
  pkgdist_file_recv_entry* entry = find("a");
  file_recv_set_id(*entry, 9);
  EXPECT_EQ(file_recv_find(9), entry);
  file_recv_set_id(*entry, 10);
  EXPECT_EQ(file_recv_find(9), nullptr);
  EXPECT_EQ(file_recv_find(10), entry);
  file_recv_set_id(*entry, 0);
  EXPECT_EQ(file_recv_find(10), nullptr);
}

TEST_F(FileDb, lookups_hold_with_many_entries_coming_and_going) {
  constexpr uint32_t kFiles = 500;
  const auto name = [](uint32_t i) { return "dir/" + std::to_string(i); };
  for (uint32_t i = 0; i < kFiles; ++i) {
    ASSERT_EQ(want(name(i)), 0u);
    file_recv_set_id(*find(name(i)), 1000 + i);
  }
  for (uint32_t i = 0; i < kFiles; i += 2) {
    pkgdist_file_recv_entry* entry = find(name(i));
    {
      const FileRecvDbGuard lock;
      file_recv_take(entry);
    }
    pkgdist_file_recv_db_free(entry);
  }
  EXPECT_EQ(G_file_recv_db.count, kFiles / 2);
  for (uint32_t i = 0; i < kFiles; ++i) {
    const bool stays = i % 2 == 1;
    ASSERT_EQ(find(name(i)) != nullptr, stays) << i;
    ASSERT_EQ(file_recv_find(1000 + i) != nullptr, stays) << i;
    if (!stays) continue;
    ASSERT_STREQ(file_recv_find(1000 + i)->path, name(i).c_str());
  }
}

struct Indexed {
  uint32_t key;
  uint64_t serial;
  IndexLink<Indexed> link;
};

TEST_F(FileDb, lookups_hold_when_there_is_no_memory_for_a_larger_index) {
  Index<Indexed, &Indexed::link> index;
  std::vector<Indexed> entries(100);
  faults::fail_always(Call::kCalloc);
  for (uint32_t i = 0; i < entries.size(); ++i) {
    entries[i] = {i / 2, i, {}};  // each key twice
    index.add(&entries[i], hash_number(entries[i].key));
  }
  EXPECT_GT(faults::calls(Call::kCalloc), 0u);
  faults::clear();
  const auto find_key = [&](uint32_t key) {
    return index.find(hash_number(key), [=](const Indexed& entry) { return entry.key == key; });
  };
  for (uint32_t key = 0; key < 50; ++key) ASSERT_EQ(find_key(key), &entries[2 * key]);
  for (uint32_t key = 0; key < 50; ++key) index.remove(&entries[2 * key]);
  for (uint32_t key = 0; key < 50; ++key) ASSERT_EQ(find_key(key), &entries[2 * key + 1]);
  index.remove(&entries[0]);  // not in the index any more: nothing happens
  for (uint32_t key = 0; key < 50; ++key) index.remove(&entries[2 * key + 1]);
  EXPECT_EQ(find_key(0), nullptr);
}

TEST_F(FileDb, a_walk_resumes_behind_an_entry_that_is_gone) {
  for (const char* name : {"a", "b", "c"}) want(name);
  pkgdist_file_recv_entry* middle = find("b");
  const uint64_t place = middle->serial;
  file_recv_take(middle);
  pkgdist_file_recv_db_free(middle);
  EXPECT_STREQ(file_recv_after(place)->path, "c");
  EXPECT_EQ(file_recv_after(G_file_recv_db.tail->serial), nullptr);
}

TEST_F(FileDb, taking_an_entry_out_is_counted) {
  want("a");
  pkgdist_file_recv_entry* entry = find("a");
  file_recv_take(entry);
  EXPECT_EQ(value(DrsCounter::kFileRemove), 1u);
  pkgdist_file_recv_db_free(entry);
}

// --- Bitmaps ---

TEST_F(FileDb, segments_are_counted_once_and_only_inside_the_file) {
  pkgdist_file_recv_entry& entry = *begin(10);
  pkgdist_set_segment(entry, 9);
  pkgdist_set_segment(entry, 9);
  EXPECT_EQ(entry.received_count, 1u);
  EXPECT_EQ(entry.segment_bitmap[1], 1u << 1);  // bit 9: second byte, second bit
  for (const uint32_t beyond : {10u, 15u, 16u, 0xFFFFFFFFu}) {
    pkgdist_set_segment(entry, beyond);
    pkgdist_set_miss(entry, beyond);
    pkgdist_clr_miss(entry, beyond);
    EXPECT_FALSE(pkgdist_is_segment_set(entry, beyond));
    EXPECT_FALSE(pkgdist_is_miss_set(entry, beyond));
  }
  EXPECT_EQ(entry.received_count, 1u);
  EXPECT_EQ(entry.missing_count, 0u);
}

TEST_F(FileDb, missing_marks_are_counted_both_ways) {
  pkgdist_file_recv_entry& entry = *begin(10);
  pkgdist_set_miss(entry, 3);
  pkgdist_set_miss(entry, 3);
  EXPECT_EQ(entry.missing_count, 1u);
  EXPECT_TRUE(pkgdist_is_miss_set(entry, 3));
  EXPECT_FALSE(pkgdist_is_segment_set(entry, 3));
  pkgdist_clr_miss(entry, 4);
  EXPECT_EQ(entry.missing_count, 1u);
  pkgdist_clr_miss(entry, 3);
  pkgdist_clr_miss(entry, 3);
  EXPECT_EQ(entry.missing_count, 0u);
}

TEST_F(FileDb, all_segments_are_set_when_the_count_is_reached) {
  pkgdist_file_recv_entry& entry = *begin(9);
  for (uint32_t i = 0; i < 9; ++i) {
    EXPECT_FALSE(pkgdist_all_segments_set(entry));
    pkgdist_set_segment(entry, i);
  }
  EXPECT_TRUE(pkgdist_all_segments_set(entry));
  EXPECT_EQ(entry.segment_bitmap[0], 0xFF);
  EXPECT_EQ(entry.segment_bitmap[1], 1);
}

TEST_F(FileDb, segment_and_bitmap_sizes_near_the_limit_do_not_overflow) {
  EXPECT_EQ(segments_of(0xFFFFFFFF, 0xFFFFFFFF), 1u);
  EXPECT_EQ(segments_of(0xFFFFFFFF, 0x80000000), 2u);
  EXPECT_EQ(segments_of(0xFFFFFFFF, 1), 0xFFFFFFFFu);
  EXPECT_EQ(segments_of(0, 4), 0u);
  EXPECT_EQ(segments_of(9, 4), 3u);
  EXPECT_EQ(bitmap_bytes(0xFFFFFFFF), size_t{0x20000000});
  EXPECT_EQ(bitmap_bytes(8), 1u);
  EXPECT_EQ(bitmap_bytes(9), 2u);
}

}  // namespace
