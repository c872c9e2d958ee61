#include "platform/ship.h"

#include <gtest/gtest.h>
#include <sys/mman.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "child.h"
#include "mapping.h"
#include "platform/ship_layout.h"
#include "small_filesystem.h"

namespace {

const uint32_t kParameter = 2;

std::string object_name(pid_t pid) {
  return SHIP_LAYOUT_OBJECT_PREFIX + std::to_string(pid);
}

Mapping attach_to(pid_t pid) {
  return Mapping::of_object(object_name(pid));
}

std::vector<ship_entry> entries_named(const std::vector<const char*>& names, uint64_t word = 0) {
  std::vector<ship_entry> entries;
  for (const char* name : names) {
    ship_entry entry = {{}, word};
    std::string padded = name;
    padded.resize(15, ' ');
    std::memcpy(entry.name, padded.c_str(), sizeof entry.name);
    entries.push_back(entry);
  }
  return entries;
}

// Registers a table and returns its value block.
uint32_t* add(const char* table, uint32_t kind, std::vector<ship_entry> entries) {
  void* block = nullptr;
  EXPECT_EQ(0, ship_register("APP", table, "tests", kind, &kParameter, entries.data(),
                             static_cast<uint32_t>(entries.size()), &block));
  return static_cast<uint32_t*>(block);
}

const ship_layout_table* find_table(const Mapping& object, const std::string& name) {
  const auto& header = *object.at<ship_layout_header>(0);
  for (uint32_t i = 0; i < header.table_count; ++i) {
    const auto* table =
        object.at<ship_layout_table>(header.table_offset + uint64_t{i} * header.table_stride);
    if (name == table->table) return table;
  }
  return nullptr;
}

TEST(Ship, header_describes_the_object) {
  add("header", SHIP_KIND_TRANSPORT_COUNTERS, entries_named({"A"}));
  const Mapping object = attach_to(getpid());
  ASSERT_TRUE(object);
  const auto& header = *object.at<ship_layout_header>(0);
  EXPECT_EQ(SHIP_LAYOUT_MAGIC, header.magic);
  EXPECT_EQ(0, std::memcmp(&header.magic, "PKGDSTAT", 8)) << "as it looks in a dump";
  EXPECT_EQ(SHIP_LAYOUT_VERSION, header.version);
  EXPECT_EQ(static_cast<uint32_t>(getpid()), header.pid);
  EXPECT_EQ(object.size(), header.object_size);
  EXPECT_EQ(sizeof(ship_layout_table), header.table_stride);
  EXPECT_GE(header.table_capacity, 64u);
  EXPECT_GE(header.table_count, 1u);
  EXPECT_GT(header.created_ns, 0u);
}

TEST(Ship, a_table_reads_back_as_registered) {
  std::vector<ship_entry> entries = entries_named({"MC PING RECV", "SELECT FAIL"});
  entries[1].word = 77;
  uint32_t* block = add("readback", SHIP_KIND_SERVER_COUNTERS, entries);
  ASSERT_NE(nullptr, block);
  block[0] = 11;
  block[5] = 22;

  const Mapping object = attach_to(getpid());
  ASSERT_TRUE(object);
  const ship_layout_table* table = find_table(object, "readback");
  ASSERT_NE(nullptr, table);
  EXPECT_STREQ("APP", table->application);
  EXPECT_STREQ("tests", table->process);
  EXPECT_EQ(1u, table->kind);
  EXPECT_EQ(kParameter, table->parameter);
  EXPECT_EQ(2u, table->count);
  EXPECT_EQ(20u, table->value_stride);
  EXPECT_EQ(40u, table->values_size);
  const auto* labels = object.at<ship_layout_entry>(table->entries_offset);
  EXPECT_STREQ("MC PING RECV   ", labels[0].name);
  EXPECT_STREQ("SELECT FAIL    ", labels[1].name);
  EXPECT_EQ(0u, labels[0].word);
  EXPECT_EQ(77u, labels[1].word);
  EXPECT_EQ(11u, *object.at<uint32_t>(table->values_offset));
  EXPECT_EQ(22u, *object.at<uint32_t>(table->values_offset + 20));
}

TEST(Ship, blocks_are_zeroed_aligned_and_apart) {
  struct Kind {
    const char* table;
    uint32_t kind;
    uint32_t stride;
  };
  const Kind kinds[] = {{"kind0", SHIP_KIND_TRANSPORT_COUNTERS, 20},
                        {"kind1", SHIP_KIND_SERVER_COUNTERS, 20},
                        {"kind31", SHIP_KIND_HISTOGRAMS, 32},
                        {"kind32", SHIP_KIND_WATERMARKS, 24}};
  std::vector<std::pair<char*, size_t>> blocks;
  for (const Kind& kind : kinds) {
    auto* block =
        reinterpret_cast<char*>(add(kind.table, kind.kind, entries_named({"A", "B", "C"})));
    ASSERT_NE(nullptr, block);
    EXPECT_EQ(0u, reinterpret_cast<uintptr_t>(block) % 8) << kind.table;
    EXPECT_TRUE(std::all_of(block, block + 3 * kind.stride, [](char c) { return c == 0; }));
    blocks.emplace_back(block, 3 * kind.stride);
  }
  // A pattern that fills each block to its end shows any overlap, also with labels.
  for (size_t i = 0; i < blocks.size(); ++i) {
    std::memset(blocks[i].first, static_cast<int>('a' + i), blocks[i].second);
  }
  const Mapping object = attach_to(getpid());
  ASSERT_TRUE(object);
  for (size_t i = 0; i < blocks.size(); ++i) {
    const ship_layout_table* table = find_table(object, kinds[i].table);
    ASSERT_NE(nullptr, table);
    EXPECT_EQ(0u, table->values_offset % 8);
    EXPECT_EQ(blocks[i].second, table->values_size);
    const std::string expected(blocks[i].second, static_cast<char>('a' + i));
    EXPECT_EQ(expected, std::string(object.at<char>(table->values_offset), table->values_size));
    EXPECT_STREQ("C              ", object.at<ship_layout_entry>(table->entries_offset)[2].name);
  }
}

TEST(Ship, a_watermark_with_word_1_starts_as_a_high_watermark) {
  std::vector<ship_entry> entries = entries_named({"HIGH", "NONE"});
  entries[0].word = 1;
  const uint32_t* block = add("marks", SHIP_KIND_WATERMARKS, entries);
  ASSERT_NE(nullptr, block);
  const uint32_t expected[12] = {0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0};
  EXPECT_EQ(0, std::memcmp(expected, block, sizeof expected));
}

TEST(Ship, word_1_means_nothing_to_other_kinds) {
  const uint32_t* block = add("nomark", SHIP_KIND_HISTOGRAMS, entries_named({"H"}, 1));
  ASSERT_NE(nullptr, block);
  EXPECT_TRUE(std::all_of(block, block + 8, [](uint32_t word) { return word == 0; }));
}

TEST(Ship, labels_are_copied_and_always_terminated) {
  std::vector<ship_entry> entries = entries_named({"GOOD"});
  std::memset(entries[0].name, 'x', sizeof entries[0].name);
  add("labels", SHIP_KIND_TRANSPORT_COUNTERS, entries);
  std::memset(entries[0].name, 'y', sizeof entries[0].name);
  const Mapping object = attach_to(getpid());
  const ship_layout_table* table = find_table(object, "labels");
  ASSERT_NE(nullptr, table);
  EXPECT_STREQ("xxxxxxxxxxxxxxx", object.at<ship_layout_entry>(table->entries_offset)->name);
}

TEST(Ship, registering_again_gives_the_same_block_with_its_values) {
  const std::vector<ship_entry> entries = entries_named({"A", "B"});
  uint32_t* first = add("again", SHIP_KIND_TRANSPORT_COUNTERS, entries);
  first[0] = 42;
  EXPECT_EQ(first, add("again", SHIP_KIND_TRANSPORT_COUNTERS, entries));
  EXPECT_EQ(42u, first[0]);
}

TEST(Ship, the_same_table_name_of_another_application_is_another_table) {
  std::vector<ship_entry> entries = entries_named({"A"});
  void* one = nullptr;
  void* two = nullptr;
  EXPECT_EQ(0, ship_register("ONE", "shared", "tests", 0, &kParameter, entries.data(), 1, &one));
  EXPECT_EQ(0, ship_register("TWO", "shared", "tests", 0, &kParameter, entries.data(), 1, &two));
  EXPECT_NE(one, two);
}

TEST(Ship, registering_again_with_another_shape_is_refused) {
  const std::vector<ship_entry> entries = entries_named({"A", "B"});
  add("shape", SHIP_KIND_TRANSPORT_COUNTERS, entries);
  std::vector<ship_entry> same = entries;
  void* block = &same;
  EXPECT_EQ(EINVAL,
            ship_register("APP", "shape", "tests", 31, &kParameter, same.data(), 2, &block));
  EXPECT_EQ(nullptr, block);
  EXPECT_EQ(EINVAL, ship_register("APP", "shape", "tests", 0, &kParameter, same.data(), 1, &block));
}

TEST(Ship, bad_arguments_are_refused_with_a_null_handle) {
  ship_entry entry = entries_named({"A"})[0];
  void* block = nullptr;
  const auto refused = [&](const char* application, const char* table, const char* process,
                           uint32_t kind, const uint32_t* parameter, ship_entry* entries,
                           uint32_t count) {
    block = &entry;
    const int error =
        ship_register(application, table, process, kind, parameter, entries, count, &block);
    return error == EINVAL && block == nullptr;
  };
  EXPECT_TRUE(refused(nullptr, "T", "p", 0, &kParameter, &entry, 1));
  EXPECT_TRUE(refused("", "T", "p", 0, &kParameter, &entry, 1));
  EXPECT_TRUE(refused("A", nullptr, "p", 0, &kParameter, &entry, 1));
  EXPECT_TRUE(refused("A", std::string(32, 't').c_str(), "p", 0, &kParameter, &entry, 1));
  EXPECT_TRUE(refused("A", "T", nullptr, 0, &kParameter, &entry, 1));
  EXPECT_TRUE(refused("A", "T", "p", 2, &kParameter, &entry, 1));
  EXPECT_TRUE(refused("A", "T", "p", 0, nullptr, &entry, 1));
  EXPECT_TRUE(refused("A", "T", "p", 0, &kParameter, nullptr, 1));
  EXPECT_TRUE(refused("A", "T", "p", 0, &kParameter, &entry, 0));
  EXPECT_EQ(EINVAL, ship_register("A", "T", "p", 0, &kParameter, &entry, 1, nullptr));
}

TEST(Ship, a_long_process_name_is_cut) {
  ship_entry entry = entries_named({"A"})[0];
  void* block = nullptr;
  const std::string process(200, 'p');
  EXPECT_EQ(0, ship_register("A", "longproc", process.c_str(), 0, &kParameter, &entry, 1, &block));
  const Mapping object = attach_to(getpid());
  const ship_layout_table* table = find_table(object, "longproc");
  ASSERT_NE(nullptr, table);
  EXPECT_EQ(std::string(63, 'p'), table->process);
}

// Runs in a child, whose object is its own: registers tables until one is refused.
int fill_object(uint32_t entries_per_table, uint32_t at_least) {
  std::vector<ship_entry> entries(entries_per_table, ship_entry{});
  void* block = nullptr;
  uint32_t made = 0;
  int error = 0;
  for (; error == 0; made += error == 0) {
    const std::string name = "t" + std::to_string(made);
    error = ship_register("FULL", name.c_str(), "p", SHIP_KIND_HISTOGRAMS, &kParameter,
                          entries.data(), entries_per_table, &block);
  }
  if (error != ENOSPC || block != nullptr) return 1;
  if (made < at_least) return 2;
  // What is there still works.
  return ship_register("FULL", "t0", "p", SHIP_KIND_HISTOGRAMS, &kParameter, entries.data(),
                       entries_per_table, &block);
}

TEST(Ship, has_room_for_64_tables_of_64_histograms_and_then_reports_enospc) {
  Child large([] { return fill_object(64, 64); }, true);
  EXPECT_EQ(0, large.wait());
  Child small([] { return fill_object(1, 128); }, true);
  EXPECT_EQ(0, small.wait());
  Child huge(
      [] {
        ship_entry entry = {};
        void* block = nullptr;
        const int error = ship_register("A", "T", "p", 0, &kParameter, &entry, UINT32_MAX, &block);
        return error == ENOSPC ? 0 : 1;
      },
      true);
  EXPECT_EQ(0, huge.wait());
}

TEST(Ship, threads_may_register_the_same_tables) {
  std::vector<uint32_t*> blocks[3];
  std::vector<std::thread> threads;
  for (auto& mine : blocks) {
    threads.emplace_back([&mine] {
      for (const char* table : {"thr0", "thr1", "thr2", "thr3"}) {
        mine.push_back(add(table, SHIP_KIND_HISTOGRAMS, entries_named({"A", "B"})));
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(blocks[0], blocks[1]);
  EXPECT_EQ(blocks[0], blocks[2]);
  std::sort(blocks[0].begin(), blocks[0].end());
  EXPECT_EQ(blocks[0].end(), std::adjacent_find(blocks[0].begin(), blocks[0].end()));
}

TEST(ShipProcesses, a_reader_sees_counts_while_the_process_runs) {
  const Gate written;
  const Gate read;
  Child child(
      [&] {
        uint32_t* block = add("live", SHIP_KIND_TRANSPORT_COUNTERS, entries_named({"A", "B"}));
        block[5] = 4711;
        written.open();
        return read.pass() ? 0 : 1;
      },
      true);
  ASSERT_TRUE(written.pass());
  {
    const Mapping object = attach_to(child.pid());
    ASSERT_TRUE(object);
    EXPECT_EQ(static_cast<uint32_t>(child.pid()), object.at<ship_layout_header>(0)->pid);
    const ship_layout_table* table = find_table(object, "live");
    ASSERT_NE(nullptr, table);
    EXPECT_EQ(4711u, *object.at<uint32_t>(table->values_offset + 20));
  }
  read.open();
  EXPECT_EQ(0, child.wait());
  EXPECT_FALSE(attach_to(child.pid())) << "removed on orderly exit";
}

TEST(ShipProcesses, counts_survive_a_kill) {
  Child child([] {
    add("dead", SHIP_KIND_TRANSPORT_COUNTERS, entries_named({"A"}))[0] = 99;
    return kill(getpid(), SIGKILL);
  });
  EXPECT_EQ(-SIGKILL, child.wait());
  const Mapping object = attach_to(child.pid());
  shm_unlink(object_name(child.pid()).c_str());
  ASSERT_TRUE(object);
  const ship_layout_table* table = find_table(object, "dead");
  ASSERT_NE(nullptr, table);
  EXPECT_EQ(99u, *object.at<uint32_t>(table->values_offset));
}

TEST(ShipProcesses, the_environment_can_keep_the_object) {
  Child child(
      [] {
        setenv("PKGDIST_KEEP_STATS", "1", 1);
        add("kept", SHIP_KIND_TRANSPORT_COUNTERS, entries_named({"A"}));
        return 0;
      },
      true);
  EXPECT_EQ(0, child.wait());
  EXPECT_TRUE(attach_to(child.pid()));
  shm_unlink(object_name(child.pid()).c_str());
}

TEST(ShipProcesses, a_forked_child_registers_in_an_object_of_its_own) {
  uint32_t* parents = add("forked", SHIP_KIND_TRANSPORT_COUNTERS, entries_named({"A"}));
  parents[0] = 5;
  const uint32_t tables = attach_to(getpid()).at<ship_layout_header>(0)->table_count;
  const Gate written;
  const Gate read;
  Child child(
      [&] {
        uint32_t* mine = add("forked", SHIP_KIND_TRANSPORT_COUNTERS, entries_named({"A"}));
        add("childs", SHIP_KIND_TRANSPORT_COUNTERS, entries_named({"A"}));
        if (mine == parents || mine[0] != 0) return 1;
        mine[0] = 6;
        written.open();
        return read.pass() ? 0 : 2;
      },
      true);
  ASSERT_TRUE(written.pass());
  {
    const Mapping object = attach_to(child.pid());
    ASSERT_TRUE(object);
    EXPECT_NE(nullptr, find_table(object, "childs"));
  }
  read.open();
  EXPECT_EQ(0, child.wait());
  EXPECT_EQ(5u, parents[0]);
  const Mapping mine = attach_to(getpid());
  ASSERT_TRUE(mine) << "the child's exit leaves the parent's object";
  EXPECT_EQ(tables, mine.at<ship_layout_header>(0)->table_count);
}

TEST(ShipProcesses, a_forked_child_that_registers_nothing_leaves_the_object_alone) {
  add("spared", SHIP_KIND_TRANSPORT_COUNTERS, entries_named({"A"}));
  Child child([] { return 0; }, true);
  EXPECT_EQ(0, child.wait());
  EXPECT_TRUE(attach_to(getpid()));
}

TEST(ShipProcesses, a_leftover_of_a_recycled_pid_is_replaced) {
  Child child(
      [] {
        const std::string name = object_name(getpid());
        const int fd = shm_open(name.c_str(), O_RDWR | O_CREAT | O_EXCL, 0600);
        if (fd < 0 || write(fd, "old bytes", 9) != 9) return 1;
        add("fresh", SHIP_KIND_TRANSPORT_COUNTERS, entries_named({"A"}));
        const Mapping object = attach_to(getpid());
        if (!object || object.at<ship_layout_header>(0)->magic != SHIP_LAYOUT_MAGIC) return 2;
        return object.at<ship_layout_header>(0)->table_count == 1 ? 0 : 3;
      },
      true);
  EXPECT_EQ(0, child.wait());
}

TEST(ShipProcesses, without_shared_memory_registration_fails_and_a_later_one_succeeds) {
  Child child([] {
    if (!mount_small_filesystem("/dev/shm", "64k")) return kNoSmallFilesystem;
    ship_entry entry = {};
    void* block = &entry;
    if (ship_register("A", "T", "p", 0, &kParameter, &entry, 1, &block) != ENOSPC) return 1;
    if (block != nullptr || attach_to(getpid())) return 2;
    if (!resize_small_filesystem("/dev/shm", "1m")) return 3;
    return ship_register("A", "T", "p", 0, &kParameter, &entry, 1, &block);
  });
  if (child.wait() == kNoSmallFilesystem) GTEST_SKIP() << "no mount namespaces here";
  EXPECT_EQ(0, child.wait());
}

}  // namespace
