// Recording into trace rings and reading them back from the file.
#include "platform/qtrace.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <string>
#include <thread>
#include <vector>

#include "platform/fts.h"
#include "platform/qtrace_catalogue.h"
#include "temp_dir.h"
#include "trace_reader.h"

namespace {

using Texts = std::vector<std::string>;

class Qtrace : public testing::Test {
 protected:
  // One file serves all tests of a program run: the directory is chosen once.
  static const std::string& directory() {
    static const TempDir dir;
    return dir.path();
  }

  Qtrace() { setenv("PKGDIST_TRACE_DIR", directory().c_str(), 1); }

  static qtrace_handle_t open_ring(const char* name, uint32_t records) {
    qtrace_handle_t handle = 0;
    EXPECT_EQ(0,
              qtrace_open_internal(name, records, 361, "tree/lib", "0123456789abcdef", 0, &handle));
    EXPECT_NE(0u, handle);
    return handle;
  }

  static TraceReader reader() { return TraceReader(directory(), getpid()); }
};

TEST_F(Qtrace, file_describes_itself_and_its_rings) {
  open_ring("described", 10);
  const TraceReader trace = reader();
  ASSERT_TRUE(trace);
  EXPECT_EQ(QTRACE_LAYOUT_MAGIC, trace.header().magic);
  EXPECT_EQ(0, std::memcmp(&trace.header().magic, "PKGDTRAC", 8)) << "as it looks in a dump";
  EXPECT_EQ(QTRACE_LAYOUT_VERSION, trace.header().version);
  EXPECT_EQ(static_cast<uint32_t>(getpid()), trace.header().pid);
  EXPECT_EQ(256u, trace.header().record_size);
  EXPECT_GT(trace.header().created_realtime_ns, 0u);
  EXPECT_LE(trace.header().created_monotonic_ns, fts_get_stamp_fast());
  const qtrace_layout_ring* ring = trace.ring("described");
  ASSERT_NE(nullptr, ring);
  EXPECT_STREQ("tree/lib", ring->path);
  EXPECT_STREQ("0123456789abcdef", ring->catalogue_id);
  EXPECT_EQ(10u, ring->records);
  EXPECT_EQ(361u, ring->points);
  EXPECT_EQ(0u, ring->next);
}

TEST_F(Qtrace, a_record_reads_back_whole) {
  const qtrace_handle_t handle = open_ring("readback", 10);
  const uint64_t before = fts_get_stamp_fast();
  qtrace_internal(handle, 77, -1, 2, "sdDs", "unused", "name", 5, uint64_t{1} << 40, "");
  const uint64_t after = fts_get_stamp_fast();

  const TraceReader trace = reader();
  const qtrace_layout_ring* ring = trace.ring("readback");
  ASSERT_NE(nullptr, ring);
  EXPECT_EQ(1u, ring->next);
  const auto record = trace.record(*ring, 0);
  ASSERT_TRUE(record);
  EXPECT_EQ(77u, record->point);
  EXPECT_EQ(-1, record->first);
  EXPECT_EQ(2, record->second);
  EXPECT_EQ(static_cast<uint32_t>(gettid()), record->thread);
  EXPECT_LE(before, record->stamp_ns);
  EXPECT_LE(record->stamp_ns, after);
  EXPECT_EQ(0u, record->flags);
  EXPECT_EQ((Texts{"s:name", "d:5", "D:1099511627776", "s:"}), arguments_of(*record));
  EXPECT_FALSE(trace.record(*ring, 1)) << "never written";
}

// What the catalogue says of a point: "file:line function format signature first second".
Texts points_of(const TraceReader& trace, const qtrace_layout_ring& ring) {
  Texts texts;
  const auto& header = *trace.file().at<qtrace_layout_catalogue>(ring.catalogue_offset);
  EXPECT_STREQ(ring.catalogue_id, header.id);
  uint64_t at = ring.catalogue_offset + sizeof header;
  for (uint32_t i = 0; i < header.points; ++i) {
    const auto& point = *trace.file().at<qtrace_layout_point>(at);
    const char* file = trace.file().at<char>(at + sizeof point);
    const char* function = file + strlen(file) + 1;
    const char* format = function + strlen(function) + 1;
    const char* signature = format + strlen(format) + 1;
    texts.push_back(std::string(file) + ":" + std::to_string(point.line) + " " + function + " " +
                    format + " " + signature + " " + std::to_string(point.first) + " " +
                    std::to_string(point.second));
    at += point.size;
  }
  EXPECT_EQ(ring.catalogue_offset + ring.catalogue_size, at);
  return texts;
}

TEST_F(Qtrace, a_described_ring_has_its_catalogue_in_the_file) {
  qtrace_handle_t handle = 0;
  ASSERT_EQ(0, qtrace_open_internal("catalogued", 4, 2, "tree/lib", "cata", 0, &handle));
  EXPECT_EQ(0u, reader().ring("catalogued")->catalogue_size);
  const qtrace_point points[] = {{"a.cpp", "f", "text %d\n", "d", 7, 1, 0},
                                 {"long name.cpp", "g", "", "", 8, 2, 1}};
  ASSERT_EQ(0, qtrace_describe(handle, points, 2));
  const TraceReader trace = reader();
  EXPECT_EQ((Texts{"a.cpp:7 f text %d\n d 1 0", "long name.cpp:8 g   2 1"}),
            points_of(trace, *trace.ring("catalogued")));
}

TEST_F(Qtrace, rings_of_one_catalogue_share_it_and_others_do_not) {
  qtrace_handle_t one = 0, two = 0, other = 0;
  ASSERT_EQ(0, qtrace_open_internal("share 1", 4, 2, "tree/lib", "shared", 0, &one));
  ASSERT_EQ(0, qtrace_open_internal("share 2", 4, 2, "tree/lib", "shared", 0, &two));
  ASSERT_EQ(0, qtrace_open_internal("share 3", 4, 2, "tree/lib", "not shared", 0, &other));
  const qtrace_point point{"a.cpp", "f", "text", "", 7, 1, 0};
  for (const qtrace_handle_t handle : {one, two, other, one})
    EXPECT_EQ(0, qtrace_describe(handle, &point, 1));
  const TraceReader trace = reader();
  EXPECT_EQ(trace.ring("share 1")->catalogue_offset, trace.ring("share 2")->catalogue_offset);
  EXPECT_EQ(trace.ring("share 1")->catalogue_size, trace.ring("share 2")->catalogue_size);
  EXPECT_NE(trace.ring("share 1")->catalogue_offset, trace.ring("share 3")->catalogue_offset);
  EXPECT_EQ(1u, points_of(trace, *trace.ring("share 3")).size());
}

TEST_F(Qtrace, describing_reports_misuse) {
  qtrace_handle_t handle = 0;
  ASSERT_EQ(0, qtrace_open_internal("misused", 4, 1, "tree/lib", "misused", 0, &handle));
  const qtrace_point good[] = {{"a", "f", "t", "", 7, 1, 0}, {"a", "f", "t", "", 8, 1, 0}};
  const qtrace_point bad{"a", "f", nullptr, "", 7, 1, 0};
  EXPECT_EQ(EINVAL, qtrace_describe(handle, nullptr, 1));
  EXPECT_EQ(EINVAL, qtrace_describe(handle, good, 0));
  EXPECT_EQ(EINVAL, qtrace_describe(handle, good, 2)) << "more than the ring has";
  EXPECT_EQ(EINVAL, qtrace_describe(handle, &bad, 1));
  EXPECT_EQ(EINVAL, qtrace_describe(0, good, 1));
  EXPECT_EQ(EINVAL, qtrace_describe(handle + 1, good, 1));
  EXPECT_EQ(0u, reader().ring("misused")->catalogue_size);
}

TEST_F(Qtrace, null_strings_are_recorded_as_text) {
  const qtrace_handle_t handle = open_ring("nullstring", 4);
  qtrace_internal(handle, 1, 0, 0, "sd", "unused", static_cast<const char*>(nullptr), 3);
  const TraceReader trace = reader();
  const auto record = trace.record(*trace.ring("nullstring"), 0);
  ASSERT_TRUE(record);
  EXPECT_EQ((Texts{"s:(null)", "d:3"}), arguments_of(*record));
}

TEST_F(Qtrace, records_without_arguments_have_no_payload) {
  const qtrace_handle_t handle = open_ring("bare", 4);
  qtrace_internal(handle, 9, 0, 0, "", "unused");
  const TraceReader trace = reader();
  const auto record = trace.record(*trace.ring("bare"), 0);
  ASSERT_TRUE(record);
  EXPECT_EQ(9u, record->point);
  EXPECT_EQ(0u, record->payload_size);
}

TEST_F(Qtrace, strings_are_cut_and_the_integers_behind_them_kept) {
  const qtrace_handle_t handle = open_ring("cut", 8);
  const std::string text(500, 'x');
  qtrace_internal(handle, 1, 0, 0, "sdsD", "unused", text.c_str(), 5, text.c_str(), uint64_t{6});
  const TraceReader trace = reader();
  const auto record = trace.record(*trace.ring("cut"), 0);
  ASSERT_TRUE(record);
  // 220 bytes less 5 and 9 for the integers and 3 for the head of each string.
  EXPECT_EQ((Texts{"s:" + std::string(200, 'x'), "d:5", "s:", "D:6"}), arguments_of(*record));
  EXPECT_EQ(QTRACE_LAYOUT_STRING_CUT, record->flags);
  EXPECT_EQ(220u, record->payload_size);
}

TEST_F(Qtrace, a_string_that_fills_the_record_exactly_is_not_cut) {
  const qtrace_handle_t handle = open_ring("exact", 8);
  const std::string fits(217, 'x');
  qtrace_internal(handle, 1, 0, 0, "s", "unused", fits.c_str());
  qtrace_internal(handle, 1, 0, 0, "s", "unused", (fits + "y").c_str());
  const TraceReader trace = reader();
  const auto whole = trace.record(*trace.ring("exact"), 0);
  const auto cut = trace.record(*trace.ring("exact"), 1);
  ASSERT_TRUE(whole && cut);
  EXPECT_EQ((Texts{"s:" + fits}), arguments_of(*whole));
  EXPECT_EQ(0u, whole->flags);
  EXPECT_EQ((Texts{"s:" + fits}), arguments_of(*cut));
  EXPECT_EQ(QTRACE_LAYOUT_STRING_CUT, cut->flags);
}

TEST_F(Qtrace, arguments_that_cannot_fit_are_left_out_from_the_end) {
  const qtrace_handle_t handle = open_ring("overfull", 4);
  const std::string signature(30, 'D');  // 24 of them fill 216 bytes
  const uint64_t v = 8;
  qtrace_internal(handle, 1, 0, 0, signature.c_str(), "unused", v, v, v, v, v, v, v, v, v, v, v, v,
                  v, v, v, v, v, v, v, v, v, v, v, v, v, v, v, v, v, v);
  const TraceReader trace = reader();
  const auto record = trace.record(*trace.ring("overfull"), 0);
  ASSERT_TRUE(record);
  EXPECT_EQ(Texts(24, "D:8"), arguments_of(*record));
  EXPECT_EQ(QTRACE_LAYOUT_ARGUMENTS_CUT, record->flags);
}

TEST_F(Qtrace, an_unknown_letter_ends_the_arguments) {
  const qtrace_handle_t handle = open_ring("letter", 4);
  qtrace_internal(handle, 1, 0, 0, "dxd", "unused", 1, 2, 3);
  const TraceReader trace = reader();
  const auto record = trace.record(*trace.ring("letter"), 0);
  ASSERT_TRUE(record);
  EXPECT_EQ(Texts{"d:1"}, arguments_of(*record));
  EXPECT_EQ(QTRACE_LAYOUT_ARGUMENTS_CUT, record->flags);
}

TEST_F(Qtrace, a_full_ring_overwrites_the_oldest) {
  const qtrace_handle_t handle = open_ring("wrap", 5);
  for (uint32_t i = 0; i < 12; ++i) qtrace_internal(handle, i, 0, 0, "d", "unused", i * 10);
  const TraceReader trace = reader();
  const qtrace_layout_ring* ring = trace.ring("wrap");
  ASSERT_NE(nullptr, ring);
  EXPECT_EQ(12u, ring->next);
  EXPECT_EQ(0u, ring->lost);
  for (uint32_t i = 0; i < 7; ++i) EXPECT_FALSE(trace.record(*ring, i)) << i;
  for (uint32_t i = 7; i < 12; ++i) {
    const auto record = trace.record(*ring, i);
    ASSERT_TRUE(record) << i;
    EXPECT_EQ(i, record->point);
    EXPECT_EQ(Texts{"d:" + std::to_string(i * 10)}, arguments_of(*record));
  }
}

TEST_F(Qtrace, rings_do_not_touch_each_other) {
  const qtrace_handle_t one = open_ring("neighbour1", 300);
  const qtrace_handle_t two = open_ring("neighbour2", 300);
  for (uint32_t i = 0; i < 700; ++i) {
    qtrace_internal(one, 1, 0, 0, "d", "unused", i);
    qtrace_internal(two, 2, 0, 0, "d", "unused", i);
  }
  const TraceReader trace = reader();
  for (const uint32_t point : {1u, 2u}) {
    const qtrace_layout_ring* ring = trace.ring("neighbour" + std::to_string(point));
    ASSERT_NE(nullptr, ring);
    for (uint32_t i = 400; i < 700; ++i) {
      const auto record = trace.record(*ring, i);
      ASSERT_TRUE(record) << i;
      ASSERT_EQ(point, record->point);
      ASSERT_EQ(Texts{"d:" + std::to_string(i)}, arguments_of(*record));
    }
  }
}

TEST_F(Qtrace, opening_a_name_again_gives_the_same_ring) {
  const qtrace_handle_t first = open_ring("again", 5);
  EXPECT_EQ(first, open_ring("again", 5));
  EXPECT_EQ(first, open_ring("again", 9));
  EXPECT_NE(first, open_ring("other", 5));
  EXPECT_EQ(5u, reader().ring("again")->records);
}

TEST_F(Qtrace, configuration_bit_0_switches_a_ring_off) {
  const qtrace_handle_t handle = open_ring("switched", 10);
  const auto recorded = [&] {
    qtrace_internal(handle, 1, 0, 0, "", "unused");
    return reader().ring("switched")->next;
  };
  EXPECT_EQ(1u, recorded());
  EXPECT_EQ(0, qtrace_enable_configuration(handle, 1));
  EXPECT_EQ(1u, recorded());
  EXPECT_EQ(0, qtrace_enable_configuration(handle, 2));
  EXPECT_EQ(2u, recorded());
  EXPECT_EQ(0, qtrace_enable_configuration(handle, 3));
  EXPECT_EQ(2u, recorded());
  EXPECT_EQ(3u, reader().ring("switched")->configuration);
  EXPECT_EQ(0, qtrace_enable_configuration(handle, 0));
  EXPECT_EQ(3u, recorded());
}

TEST_F(Qtrace, handles_that_were_never_opened_do_nothing) {
  open_ring("any", 4);
  for (const qtrace_handle_t handle : {uint64_t{0}, uint64_t{65}, UINT64_MAX}) {
    EXPECT_EQ(EINVAL, qtrace_enable_configuration(handle, 0));
    qtrace_internal(handle, 1, 0, 0, "s", "unused", "text");
  }
  EXPECT_EQ(0u, reader().ring("any")->next);
}

TEST_F(Qtrace, open_refuses_bad_arguments_and_leaves_the_result_alone) {
  qtrace_handle_t handle = 7;
  const std::string too_long(32, 'n');
  EXPECT_EQ(EINVAL, qtrace_open_internal(nullptr, 1, 1, "p", "c", 0, &handle));
  EXPECT_EQ(EINVAL, qtrace_open_internal("", 1, 1, "p", "c", 0, &handle));
  EXPECT_EQ(EINVAL, qtrace_open_internal(too_long.c_str(), 1, 1, "p", "c", 0, &handle));
  EXPECT_EQ(EINVAL, qtrace_open_internal("n", 0, 1, "p", "c", 0, &handle));
  EXPECT_EQ(EINVAL, qtrace_open_internal("n", 1, 1, nullptr, "c", 0, &handle));
  EXPECT_EQ(EINVAL, qtrace_open_internal("n", 1, 1, "p", nullptr, 0, &handle));
  EXPECT_EQ(EINVAL, qtrace_open_internal("n", 1, 1, "p", "c", 0, nullptr));
  EXPECT_EQ(7u, handle);
}

TEST_F(Qtrace, recording_leaves_errno_alone) {
  const qtrace_handle_t handle = open_ring("errno", 4);
  errno = ENOENT;
  qtrace_internal(handle, 1, 0, 0, "s", "unused", "text");
  EXPECT_EQ(ENOENT, errno);
}

TEST_F(Qtrace, only_written_records_take_space) {
  const qtrace_handle_t handle = open_ring("sparse", 80000);
  const uint64_t before = reader().file().disk_bytes();
  qtrace_internal(handle, 1, 0, 0, "", "unused");
  const TraceReader trace = reader();
  EXPECT_GE(trace.file().size(), 80000u * 256u);
  EXPECT_LE(trace.file().disk_bytes() - before, 128u * 1024u);
}

// Stands in for a writer that was stopped in the middle of a record, or for one that was overtaken.
void overwrite_commit_word(const std::string& path, uint64_t offset, uint64_t word) {
  const int fd = open(path.c_str(), O_WRONLY | O_CLOEXEC);
  EXPECT_EQ(static_cast<ssize_t>(sizeof word),
            pwrite(fd, &word, sizeof word, static_cast<off_t>(offset)));
  close(fd);
}

TEST_F(Qtrace, slots_that_are_busy_or_hold_a_younger_record_are_left_alone) {
  const qtrace_handle_t handle = open_ring("taken", 3);
  const TraceReader trace = reader();
  const qtrace_layout_ring* ring = trace.ring("taken");
  ASSERT_NE(nullptr, ring);
  const std::string path = directory() + "/" QTRACE_LAYOUT_FILE_PREFIX + std::to_string(getpid());
  overwrite_commit_word(path, ring->records_offset, QTRACE_LAYOUT_BUSY | 1);
  overwrite_commit_word(path, ring->records_offset + 256, 1 + 3 + 1);
  for (uint32_t i = 0; i < 3; ++i) qtrace_internal(handle, 50 + i, 0, 0, "", "unused");
  EXPECT_EQ(2u, ring->lost);
  EXPECT_EQ(QTRACE_LAYOUT_BUSY | 1, trace.slot(*ring, 0)->commit);
  EXPECT_EQ(0u, trace.slot(*ring, 0)->point);
  EXPECT_EQ(5u, trace.slot(*ring, 1)->commit);
  EXPECT_EQ(0u, trace.slot(*ring, 1)->point);
  const auto third = trace.record(*ring, 2);
  ASSERT_TRUE(third);
  EXPECT_EQ(52u, third->point);
}

// Every thread records its number and a running count, with a text that belongs to both. A record
// mixed from two writers cannot pass.
bool is_consistent(const qtrace_layout_record& record) {
  const std::string count = std::to_string(record.second);
  const std::string text(static_cast<size_t>(100 + record.first),
                         static_cast<char>('a' + record.first));
  return arguments_of(record) == Texts{"s:" + text, "d:" + count};
}

TEST_F(Qtrace, concurrent_writers_and_a_reader_see_only_whole_records) {
  constexpr int kWriters = 3;
  constexpr int kEach = 4000;
  const qtrace_handle_t handle = open_ring("crowd", 7);  // small: writers lap each other
  std::atomic<int> writing{kWriters};
  std::vector<std::thread> writers;
  writers.reserve(kWriters);
  for (int w = 0; w < kWriters; ++w) {
    writers.emplace_back([&, w] {
      const std::string text(static_cast<size_t>(100 + w), static_cast<char>('a' + w));
      for (int i = 0; i < kEach; ++i) {
        qtrace_internal(handle, 1, w, i, "sd", "unused", text.c_str(), i);
      }
      --writing;
    });
  }
  const TraceReader trace = reader();
  const qtrace_layout_ring* ring = trace.ring("crowd");
  uint64_t inconsistent = 0;
  for (uint64_t number = 0; writing > 0; ++number) {
    const uint64_t commit =
        *static_cast<const volatile uint64_t*>(&trace.slot(*ring, number)->commit);
    if (commit == 0 || (commit & QTRACE_LAYOUT_BUSY) != 0) continue;
    const auto record = trace.record(*ring, commit - 1);
    if (record && !is_consistent(*record)) ++inconsistent;
  }
  for (std::thread& writer : writers) writer.join();
  EXPECT_EQ(0u, inconsistent);
  EXPECT_EQ(uint64_t{kWriters} * kEach, ring->next);

  uint64_t there = 0;
  for (uint64_t number = ring->next - ring->records; number < ring->next; ++number) {
    const auto record = trace.record(*ring, number);
    if (!record) continue;
    ++there;
    EXPECT_TRUE(is_consistent(*record));
  }
  EXPECT_GE(there + ring->lost, ring->records);
}

TEST_F(Qtrace, concurrent_writers_lose_nothing_in_a_ring_with_room) {
  constexpr int kWriters = 3;
  constexpr int kEach = 1000;
  const qtrace_handle_t handle = open_ring("roomy", kWriters * kEach);
  std::vector<std::thread> writers;
  writers.reserve(kWriters);
  for (int w = 0; w < kWriters; ++w) {
    writers.emplace_back([&, w] {
      for (int i = 0; i < kEach; ++i) qtrace_internal(handle, 1, w, i, "d", "unused", i);
    });
  }
  for (std::thread& writer : writers) writer.join();
  const TraceReader trace = reader();
  const qtrace_layout_ring* ring = trace.ring("roomy");
  EXPECT_EQ(0u, ring->lost);
  int next_of[kWriters] = {};
  for (uint64_t number = 0; number < ring->next; ++number) {
    const auto record = trace.record(*ring, number);
    ASSERT_TRUE(record) << number;
    ASSERT_EQ(next_of[record->first]++, record->second) << "each writer's records in its order";
  }
  for (const int next : next_of) EXPECT_EQ(kEach, next);
}

}  // namespace
