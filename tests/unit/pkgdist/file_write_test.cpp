// The destination of a file: opening it, writing it, and what a full disk or a broken one does.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>

#include "data_support.h"
#include "pkgdist_data_recv_file_write.h"

using namespace support;

namespace {

class FileWrite : public DataTest {
 protected:
  void SetUp() override {
    DataTest::SetUp();
    client.attach_all();
  }
  uint64_t outcome() {
    EXPECT_EQ(find("file", 0), nullptr);
    client.deliver();
    return client.files.size() == 1 ? client.files[0].status : ~0ull;
  }
  static PkgdistStatus system_error(int error) { return PKGDIST_STATUS_FROM_ERRNO(error); }
  std::string partial() const { return path("file.tmp"); }
  void put_object(const std::string& name, const std::string& text) const {
    std::ofstream(memory_path(name)) << text;
  }
};

// --- Opening on disk ---

TEST_F(FileWrite, the_partial_file_has_the_announced_mode_under_the_umask) {
  const mode_t mask = umask(027);
  want("file");
  announce({.size = 8, .mode = 0775});
  give(0);
  struct stat status {};
  ASSERT_EQ(stat(partial().c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0750u);
  EXPECT_EQ(samples(DrsHistogram::kFileOpenTime), 1u);
  EXPECT_EQ(fcntl(find()->fd, F_GETFD), FD_CLOEXEC);
  umask(mask);
}

TEST_F(FileWrite, bits_that_the_process_does_not_allow_are_left_out) {
  G_data_recv_mode_mask = 0777;
  want("file");
  announce({.size = 8, .mode = 06755});
  give(0);
  struct stat status {};
  ASSERT_EQ(stat(partial().c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0755u);
  EXPECT_EQ(faults::calls(Call::kOpen), 1u);
  G_data_recv_mode_mask = 07777;
}

TEST_F(FileWrite, an_old_partial_file_is_cut) {
  put_file("file.tmp", std::string(100, 'x'));
  begin(2);
  give_all();
  EXPECT_EQ(bytes_of(path("file")), content(8));
}

TEST_F(FileWrite, missing_directories_are_made) {
  begin(2, "new/deep/file");
  give_all();
  EXPECT_EQ(bytes_of(path("new/deep/file")), content(8));
}

TEST_F(FileWrite, a_failed_open_is_tried_three_times_in_all) {
  begin(2);
  faults::fail(Call::kOpen, 1, EINTR);
  give(0);
  EXPECT_EQ(faults::calls(Call::kOpen), 2u);
  EXPECT_EQ(faults::calls(Call::kCreateDirs), 0u);  // no directory was missing
  EXPECT_EQ(find()->received_count, 1u);
  EXPECT_EQ(value(DrsCounter::kFileError), 0u);
}

TEST_F(FileWrite, an_open_that_keeps_failing_ends_the_file) {
  begin(2);
  faults::fail_always(Call::kOpen, EACCES);
  give(0);
  EXPECT_EQ(faults::calls(Call::kOpen), 3u);
  faults::clear();
  EXPECT_TRUE(logs::contains("ERR:pkgdist_data_process_file_segment: failed to open " + partial() +
                             " for writing, rc=13 (Permission denied)\n"));
  EXPECT_EQ(value(DrsCounter::kFileError), 1u);
  EXPECT_EQ(value(DrsCounter::kFileRemove), 1u);
  EXPECT_EQ(samples(DrsHistogram::kFileOpenTime), 1u);
  EXPECT_EQ(outcome(), system_error(EACCES));
}

TEST_F(FileWrite, directories_that_cannot_be_made_end_the_attempts) {
  begin(2, "new/file");
  faults::fail(Call::kCreateDirs, 1, EROFS);
  give(0);
  const std::string target = path("new/file.tmp");
  EXPECT_EQ(faults::calls(Call::kOpen), 1u);
  EXPECT_TRUE(logs::contains("ERR:pkgdist_data_process_file_segment: Failed to create dir " +
                             target + ", errno 30(Read-only file system)"));  // no newline
  EXPECT_TRUE(logs::contains("ERR:pkgdist_data_process_file_segment: failed to open " + target +
                             " for writing, rc=30 (Read-only file system)\n"));
  EXPECT_EQ(value(DrsCounter::kFileError), 2u);
  client.deliver();
  EXPECT_EQ(client.files.at(0).status, system_error(EROFS));
}

TEST_F(FileWrite, a_file_below_a_file_cannot_be_opened) {
  put_file("parent", "1");
  begin(2, "parent/file");
  give(0);
  client.deliver();
  EXPECT_EQ(client.files.at(0).status, system_error(ENOTDIR));
}

// --- Memory objects ---

TEST_F(FileWrite, a_memory_object_has_its_final_size_and_name_at_once) {
  const mode_t mask = umask(0);
  begin(2, "file", 2);
  give(1);
  umask(mask);
  struct stat status {};
  ASSERT_EQ(stat(memory_path("file").c_str(), &status), 0);
  EXPECT_EQ(status.st_size, 8);
  EXPECT_EQ(status.st_mode & 0777, 0777u);
  EXPECT_EQ(find("file", 2)->mapping_size, 8u);
}

TEST_F(FileWrite, an_old_memory_object_is_emptied) {
  put_object("file", std::string(100, 'x'));
  begin(3, "file", 2);
  give(2);
  Bytes expected = content(12);
  std::fill(expected.begin(), expected.begin() + 8, uint8_t{0});
  EXPECT_EQ(bytes_of(memory_path("file")), expected);
}

TEST_F(FileWrite, an_empty_memory_file_is_created_and_completes) {
  want("file", 5, 1, 2);
  announce({.size = 0, .location = 2});
  give(0);
  EXPECT_EQ(outcome(), 0u);
  EXPECT_EQ(bytes_of(memory_path("file")), Bytes{});
  EXPECT_EQ(faults::calls(Call::kMmap), 0u);
}

struct MemoryFailure {
  Call call;
  int error;
  const char* before;
  const char* after;
};
class MemoryFileFailure : public FileWrite, public testing::WithParamInterface<MemoryFailure> {};

TEST_P(MemoryFileFailure, ends_the_file_with_its_error_number_and_leaves_no_object) {
  begin(2, "file", 2);
  faults::fail(GetParam().call, 1, GetParam().error);
  give(0);
  EXPECT_TRUE(logs::contains(std::string("ERR:pkgdist_data_process_file_segment: data file recv ") +
                             GetParam().before + memory_prefix() + "file" + GetParam().after));
  EXPECT_EQ(value(DrsCounter::kFileRemove), 1u);
  EXPECT_EQ(outcome(), system_error(GetParam().error));
  EXPECT_FALSE(exists(memory_path("file")));
}

INSTANTIATE_TEST_SUITE_P(Calls, MemoryFileFailure,
                         testing::Values(MemoryFailure{Call::kShmOpen, EACCES, "shm_open ",
                                                       " failed, rc=13(Permission denied)\n"},
                                         MemoryFailure{Call::kFtruncate, EFBIG, "ftruncate ",
                                                       " failed, rc=27(File too large)\n"},
                                         MemoryFailure{Call::kMmap, ENOMEM, "mmap failed, path ",
                                                       " rc=12(Cannot allocate memory)\n"}));

// --- Writing ---

TEST_F(FileWrite, a_segment_is_written_at_its_offset) {
  begin(3);
  give(2);
  EXPECT_EQ(samples(DrsHistogram::kFileWriteTime), 1u);
  Bytes expected = content(12);
  std::fill(expected.begin(), expected.begin() + 8, uint8_t{0});
  EXPECT_EQ(bytes_of(partial()), expected);
}

TEST_F(FileWrite, offsets_beyond_two_gibibytes_are_reached) {
  want("file");
  announce({.size = 0xFFFFFFFF, .segment_size = 1024});
  const uint32_t last = 0xFFFFFFFFu / 1024;
  give(last);
  struct stat status {};
  ASSERT_EQ(stat(partial().c_str(), &status), 0);
  EXPECT_EQ(status.st_size, off_t{0xFFFFFFFF});  // sparse
}

TEST_F(FileWrite, a_failed_write_is_tried_again_on_a_fresh_descriptor) {
  begin(2);
  faults::fail(Call::kWrite, 1, EIO);
  give(0);
  EXPECT_TRUE(logs::contains("ERR:pkgdist_file_write_data: data file write failed, path '" +
                             partial() + "' offset 0 rc=5(Input/output error)\n"));
  EXPECT_EQ(value(DrsCounter::kFileError), 1u);
  EXPECT_EQ(faults::calls(Call::kOpen), 2u);
  EXPECT_EQ(samples(DrsHistogram::kFileWriteTime), 1u);  // only the full write is timed
  give(1);
  EXPECT_EQ(bytes_of(path("file")), content(8));
}

TEST_F(FileWrite, a_failed_write_leaves_no_descriptor_behind) {
  begin(3);
  give(0);
  const int fd = find()->fd;
  faults::fail(Call::kWrite, 1, EIO);
  give(1);
  EXPECT_EQ(faults::calls(Call::kOpen), 2u);
  EXPECT_EQ(find()->fd, fd);  // closed before it was opened again: the number was free
}

TEST_F(FileWrite, a_short_write_is_tried_again) {
  begin(2);
  faults::short_write(1, 3);
  give(0);
  EXPECT_TRUE(logs::contains("ERR:pkgdist_file_write_data: data file write incomplete, path '" +
                             partial() + "' writesize=3 expected=4\n"));
  EXPECT_EQ(value(DrsCounter::kFileError), 1u);
  give(1);
  EXPECT_EQ(bytes_of(path("file")), content(8));
}

TEST_F(FileWrite, a_failed_seek_is_tried_again) {
  begin(2);
  faults::fail(Call::kLseek, 2, EINVAL);
  give(0);
  give(1);
  EXPECT_TRUE(logs::contains("ERR:pkgdist_file_write_data: data file write seek failed, path '" +
                             partial() + "' offset 4 rc=22(Invalid argument)\n"));
  EXPECT_EQ(value(DrsCounter::kFileError), 1u);
  EXPECT_EQ(bytes_of(path("file")), content(8));
}

TEST_F(FileWrite, offsets_beyond_two_gibibytes_are_printed_negative) {
  begin(2);
  give(0);
  faults::fail(Call::kLseek, 1, EINVAL);
  EXPECT_EQ(pkgdist_file_write_data(*find(), 0x80000000, 4, content(4).data()), 0u);
  EXPECT_EQ(logs::count("' offset -2147483648 rc=22(Invalid argument)\n"), 1u);
}

TEST_F(FileWrite, three_failed_writes_end_the_file_and_leave_the_partial_file) {
  begin(2);
  faults::fail_always(Call::kWrite, EIO);
  give(0);
  EXPECT_EQ(faults::calls(Call::kWrite), 3u);
  faults::clear();
  EXPECT_EQ(logs::count("data file write failed"), 3u);
  EXPECT_EQ(value(DrsCounter::kFileError), 3u);
  EXPECT_EQ(value(DrsCounter::kFileRemove), 1u);
  EXPECT_EQ(outcome(), system_error(EIO));
  EXPECT_TRUE(exists(partial()));  // its descriptor is closed: nothing deletes it
}

TEST_F(FileWrite, a_write_that_is_short_in_the_last_attempt_has_the_write_status) {
  begin(2);
  give(0);
  faults::fail(Call::kWrite, 1, EIO);     // the first attempt
  faults::fail(Call::kLseek, 2, EINVAL);  // the second
  faults::short_write(2, 1);              // the third: its write is the second one
  give(1);
  EXPECT_EQ(logs::count("data file write failed"), 1u);
  EXPECT_EQ(logs::count("data file write seek failed"), 1u);
  EXPECT_EQ(logs::count("data file write incomplete"), 1u);
  EXPECT_EQ(value(DrsCounter::kFileError), 3u);
  EXPECT_EQ(outcome(), PKGDIST_ERR_WRITE);
}

TEST_F(FileWrite, a_full_disk_deletes_the_partial_file_and_ends_the_transfer) {
  begin(3);
  give(0);
  faults::fail(Call::kWrite, 1, ENOSPC);
  give(1);
  EXPECT_TRUE(logs::contains("ERR:pkgdist_file_write_data: data file write failed, path '" +
                             partial() + "' offset 4 rc=28(No space left on device)\n"));
  EXPECT_TRUE(logs::contains("ERR:pkgdist_file_write_data: Deleting partially downloaded file '" +
                             partial() + "' as there is no space \n"));
  EXPECT_TRUE(
      logs::contains("ERR:pkgdist_file_write_data: data file write data open failed, path '" +
                     partial() + "' rc=2(No such file or directory)\n"));
  EXPECT_FALSE(exists(partial()));
  EXPECT_EQ(value(DrsCounter::kFileError), 1u);
  const uint64_t status = outcome();
  EXPECT_TRUE(status == system_error(ENOENT) || status == system_error(ENOSPC))
      << std::hex << status;
  EXPECT_EQ(take_traffic().reports.size(), 1u);
}

TEST_F(FileWrite, a_partial_file_that_vanished_is_not_created_again) {
  begin(3);
  give(0);
  ASSERT_EQ(unlink(partial().c_str()), 0);
  faults::fail(Call::kWrite, 1, EIO);
  give(1);
  EXPECT_EQ(outcome(), system_error(ENOENT));
  EXPECT_FALSE(exists(partial()));
}

}  // namespace
