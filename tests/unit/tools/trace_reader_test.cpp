// Traces read from outside: records of the platform come back as text, while it writes and
// afterwards.
#include "trace_reader.h"

#include <fcntl.h>

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstring>
#include <thread>

#include "platform/fts.h"
#include "trace_files.h"

using namespace pkgdist;
using namespace pkgdist::trace;

namespace {

std::vector<std::string> texts_of(const TraceReader& reader, const std::vector<Record>& records,
                                  const std::string& ring) {
  std::vector<std::string> texts;
  for (const Record& record : records)
    if (reader.rings()[record.ring].name == ring)
      texts.push_back(render(reader.catalogue(record.ring)->points.at(record.point), record));
  return texts;
}

size_t index_of(const TraceReader& reader, const std::string& name) {
  for (size_t i = 0; i < reader.rings().size(); ++i)
    if (reader.rings()[i].name == name) return i;
  ADD_FAILURE() << "no ring " << name;
  return 0;
}

using Texts = std::vector<std::string>;

TEST(TraceReader, gives_records_as_the_text_that_was_logged) {
  const qtrace_handle_t handle = open_test_ring("texts", 8);
  qtrace_internal(handle, 0, 1, 0, "sd", "", "function", -5);
  qtrace_internal(handle, 1, 2, 1, "sD", "", "file", uint64_t{1} << 40);
  TraceReader reader(own_trace_path());
  const auto records = reader.next(0);
  EXPECT_EQ((Texts{"ERR:function: number -5", "name file size 1099511627776"}),
            texts_of(reader, records, "texts"));
  EXPECT_EQ(getpid(), reader.pid());
  const Record& last = records.back();
  EXPECT_EQ(static_cast<uint32_t>(gettid()), last.thread);
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  EXPECT_NEAR(static_cast<double>(now.tv_sec), static_cast<double>(last.realtime_ns) / 1e9, 60);
  const Point point = reader.catalogue(index_of(reader, "texts"))->points.at(1);
  EXPECT_EQ("src/two.cpp", point.file);
  EXPECT_EQ("second_function", point.function);
  EXPECT_EQ(22, point.line);
}

TEST(TraceReader, gives_each_record_once_and_tells_what_was_overwritten) {
  const qtrace_handle_t handle = open_test_ring("once", 4);
  TraceReader reader(own_trace_path());
  reader.next(0);
  const uint64_t missed = reader.missed();
  const auto write = [&](int number) { qtrace_internal(handle, 0, 1, 0, "sd", "", "f", number); };
  write(1);
  write(2);
  EXPECT_EQ((Texts{"ERR:f: number 1", "ERR:f: number 2"}),
            texts_of(reader, reader.next(0), "once"));
  EXPECT_TRUE(texts_of(reader, reader.next(0), "once").empty());
  for (int i = 3; i <= 12; ++i) write(i);
  EXPECT_EQ((Texts{"ERR:f: number 9", "ERR:f: number 10", "ERR:f: number 11", "ERR:f: number 12"}),
            texts_of(reader, reader.next(0), "once"));
  EXPECT_EQ(missed + 6, reader.missed());
}

TEST(TraceReader, waits_for_a_record_that_is_being_written_and_gives_up_at_last) {
  const qtrace_handle_t handle = open_test_ring("waits", 8);
  for (int i = 0; i < 3; ++i) qtrace_internal(handle, 0, 1, 0, "sd", "", "f", i);
  TraceReader reader(own_trace_path());
  const size_t ring = index_of(reader, "waits");
  const int fd = open(own_trace_path().c_str(), O_RDWR | O_CLOEXEC);
  const auto commit = [&](uint64_t word) {  // of the record in the middle
    const auto offset =
        static_cast<off_t>(reader.rings()[ring].records_offset + sizeof(qtrace_layout_record));
    EXPECT_EQ(8, pwrite(fd, &word, sizeof word, offset));
  };
  commit(QTRACE_LAYOUT_BUSY | 2);
  EXPECT_EQ((Texts{"ERR:f: number 0"}), texts_of(reader, reader.next(2), "waits"));
  EXPECT_TRUE(texts_of(reader, reader.next(2), "waits").empty());
  commit(2);
  EXPECT_EQ((Texts{"ERR:f: number 1", "ERR:f: number 2"}),
            texts_of(reader, reader.next(2), "waits"));

  commit(QTRACE_LAYOUT_BUSY | 2);
  TraceReader again(own_trace_path());
  EXPECT_EQ((Texts{"ERR:f: number 0"}), texts_of(again, again.next(2), "waits"));
  EXPECT_TRUE(texts_of(again, again.next(2), "waits").empty());
  EXPECT_EQ((Texts{"ERR:f: number 2"}), texts_of(again, again.next(2), "waits"));
  close(fd);
}

// Every record says the same number three times, in arguments that lie far apart.
TEST(TraceReader, no_record_that_is_overwritten_while_it_is_read_comes_out_mixed) {
  const qtrace_handle_t handle = open_test_ring("mixed", 16);
  std::atomic<bool> done{false};
  std::thread writer([&] {
    for (int i = 0; !done.load(); ++i)
      qtrace_internal(handle, 2, 1, 1, "dds", "", i, i, std::to_string(i).c_str());
  });
  TraceReader reader(own_trace_path());
  const size_t ring = index_of(reader, "mixed");
  size_t seen = 0, wrong = 0;
  // How much of what it reads is whole depends on who runs when: as long as it takes.
  for (int round = 0; round < 5'000'000 && (round < 2'000 || seen < 500); ++round) {
    for (const Record& record : reader.next(0)) {
      if (record.ring != ring) continue;
      ++seen;
      const bool whole = record.arguments.size() == 3 &&
                         record.arguments[0].value == record.number % (uint64_t{1} << 32) &&
                         record.arguments[1].value == record.arguments[0].value &&
                         record.arguments[2].text == std::to_string(record.number);
      if (!whole) ++wrong;
    }
  }
  done = true;
  writer.join();
  EXPECT_EQ(0u, wrong) << "of " << seen;
  EXPECT_GE(seen, 500u);
}

class BrokenTrace : public testing::Test {
 protected:
  BrokenTrace() : whole_(bytes_of(own_trace_path())) {}

  static void SetUpTestSuite() {
    const qtrace_handle_t handle = open_test_ring("broken", 4);
    qtrace_internal(handle, 0, 1, 0, "sd", "", "function", 5);
    qtrace_internal(handle, 2, 1, 1, "dds", "", 1, 2, "three");
  }

  // Reads all there is. The reason for which that is refused; empty when it is not.
  std::string refusal(const std::string& bytes) const {
    write_bytes(directory_ / "trace", bytes);
    return refusal_of_file();
  }

  std::string refusal_of_file() const {
    try {
      TraceReader reader(directory_ / "trace");
      for (const Record& record : reader.next(0)) {
        const auto catalogue = reader.catalogue(record.ring);
        if (!catalogue || record.point >= catalogue->points.size()) continue;
        (void)render(catalogue->points[record.point], record);
      }
      return "";
    } catch (const tools::BadObject& bad) {
      return bad.what();
    }
  }

  template <class Value>
  std::string with(size_t offset, Value value) const {
    std::string bytes = whole_;
    std::memcpy(bytes.data() + offset, &value, sizeof value);
    return bytes;
  }

  void expect_refusal(const std::string& bytes, const char* words) const {
    EXPECT_NE(std::string::npos, refusal(bytes).find(words)) << refusal(bytes);
  }

  // The directory entry of the ring that the suite made.
  size_t entry() const {
    const TraceReader reader(own_trace_path());
    return sizeof(qtrace_layout_header) + index_of(reader, "broken") * sizeof(qtrace_layout_ring);
  }

  TempDir directory_;
  std::string whole_;
};

TEST_F(BrokenTrace, is_refused_with_a_reason) {
  EXPECT_EQ("", refusal(whole_));
  expect_refusal("", "truncated");
  expect_refusal(std::string(5000, '\0'), "not ready");
  expect_refusal(std::string(5000, 'x'), "not a trace file");
  expect_refusal(with(offsetof(qtrace_layout_header, version), 1), "version 1");
  expect_refusal(with(offsetof(qtrace_layout_header, record_size), 128), "directory");
  expect_refusal(with(offsetof(qtrace_layout_header, ring_count), 0x7FFFFFFF), "directory");
  expect_refusal(with(offsetof(qtrace_layout_header, ring_offset), UINT64_MAX / 2), "corrupt");
  expect_refusal(with(entry() + offsetof(qtrace_layout_ring, records), 0), "does not lie");
  expect_refusal(with(entry() + offsetof(qtrace_layout_ring, records), 0xFFFFFFFF), "does not lie");
  expect_refusal(with(entry() + offsetof(qtrace_layout_ring, records_offset), UINT64_MAX - 9),
                 "does not lie");
  expect_refusal(with(entry() + offsetof(qtrace_layout_ring, catalogue_size), UINT64_MAX), "size");
  expect_refusal(with(entry() + offsetof(qtrace_layout_ring, catalogue_offset), whole_.size()),
                 "truncated");
}

TEST_F(BrokenTrace, cut_short_is_refused) {
  // What a ring has taken in advance behind its last record may be missing.
  uint64_t used = 0;
  const TraceReader reader(own_trace_path());
  for (const Ring& ring : reader.rings()) {
    used =
        std::max(used, ring.records_offset + uint64_t{ring.slots} * sizeof(qtrace_layout_record));
    used = std::max(used, ring.catalogue_offset + ring.catalogue_size);
  }
  for (size_t length = 0; length < used; length += length < 512 ? 1 : 4099)
    EXPECT_NE("", refusal(whole_.substr(0, length))) << length;
}

TEST_F(BrokenTrace, a_catalogue_of_another_build_is_refused) {
  std::string bytes = whole_;
  bytes[entry() + offsetof(qtrace_layout_ring, catalogue_id)] = 'B';
  expect_refusal(bytes, "made by build Build 1, but the catalogue is that of build build 1");
}

TEST_F(BrokenTrace, a_ring_without_catalogue_says_so) {
  open_test_ring("bare", 4, "build 2", false);
  const TraceReader reader(own_trace_path());
  EXPECT_FALSE(reader.catalogue(index_of(reader, "bare")));
  EXPECT_EQ("build 1", reader.any_catalogue()->id);
}

TEST_F(BrokenTrace, no_changed_byte_brings_the_reader_down) {
  qtrace_layout_ring ring{};
  std::memcpy(&ring, whole_.data() + entry(), sizeof ring);
  write_bytes(directory_ / "trace", whole_);
  const int fd = open((directory_ / "trace").c_str(), O_RDWR | O_CLOEXEC);
  size_t refused = 0, taken = 0;
  const auto change = [&](size_t from, size_t size) {
    for (size_t at = from; at < from + size; ++at)
      for (const int value : {0x00, 0xFF}) {
        const ChangedByte changed(fd, at, value);
        ++(refusal_of_file().empty() ? taken : refused);
      }
  };
  change(0, sizeof(qtrace_layout_header));
  change(entry(), sizeof(qtrace_layout_ring));
  change(ring.catalogue_offset, ring.catalogue_size);
  change(ring.records_offset, 2 * sizeof(qtrace_layout_record));
  close(fd);
  EXPECT_GT(refused, 100u);
  EXPECT_GT(taken, 100u) << "texts may be anything";
}

}  // namespace
