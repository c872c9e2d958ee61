// Finishing: final names, times, symbolic links, and the report to the lead.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "data_support.h"
#include "pkgdist_data_recv_done.h"
#include "pkgdist_data_recv_process.h"

using namespace support;

namespace {

constexpr uint32_t kMtime = 1'600'000'000;

class FileFinish : public DataTest {
 protected:
  void SetUp() override {
    DataTest::SetUp();
    client.attach_all();
  }
  uint64_t outcome() {
    client.deliver();
    return client.files.size() == 1 ? client.files[0].status : ~0ull;
  }
  static struct stat status_of(const std::string& path) {
    struct stat status {};
    EXPECT_EQ(lstat(path.c_str(), &status), 0) << path;
    return status;
  }
  void give_target(const std::string& target) {
    const Bytes body = encoded_segment(7, 0, Bytes(target.begin(), target.end()));
    (void)pkgdist_data_process_file_segment(body.data(), body.size());
  }
  void begin_link(uint32_t mtime = 0, uint32_t location = 1) {
    want("file", 5, 1, location);
    announce(
        {.size = 6, .segment_size = 1000, .mtime = mtime, .symlink = true, .location = location});
  }
};

// --- Disk files ---

TEST_F(FileFinish, a_disk_file_gets_the_leads_time_and_its_final_name) {
  want("file");
  announce({.size = 8, .mtime = kMtime});
  give_all();
  EXPECT_EQ(status_of(path("file")).st_mtime, static_cast<time_t>(kMtime));
  EXPECT_EQ(status_of(path("file")).st_atime, static_cast<time_t>(kMtime));
  EXPECT_FALSE(exists(path("file.tmp")));
  EXPECT_EQ(samples(DrsHistogram::kFileRenameTime), 1u);
  EXPECT_EQ(outcome(), 0u);
}

TEST_F(FileFinish, a_time_of_zero_leaves_the_files_times_as_written) {
  want("file");
  announce({.size = 8, .mtime = 0});
  give_all();
  EXPECT_EQ(faults::calls(Call::kUtime), 0u);
  EXPECT_NE(status_of(path("file")).st_mtime, 0);
}

TEST_F(FileFinish, an_older_file_of_the_name_is_replaced) {
  put_file("file", "something longer than the new one");
  begin(2);
  give_all();
  EXPECT_EQ(bytes_of(path("file")), content(8));
}

TEST_F(FileFinish, a_time_that_cannot_be_set_is_only_logged) {
  want("file");
  announce({.size = 8, .mtime = kMtime});
  faults::fail(Call::kUtime, 1, EPERM);
  give_all();
  EXPECT_TRUE(logs::contains("ERR:pkgdist_data_file_rename: data file recv futime " +
                             path("file.tmp") + " failed, rc=1(Operation not permitted)\n"));
  EXPECT_EQ(outcome(), 0u);
  EXPECT_EQ(value(DrsCounter::kFileError), 0u);
}

TEST_F(FileFinish, a_failed_rename_is_the_outcome_and_leaves_the_partial_file) {
  begin(2);
  faults::fail(Call::kRename, 1, EXDEV);
  give_all();
  EXPECT_TRUE(logs::contains("ERR:pkgdist_data_file_rename: data file recv rename " +
                             path("file.tmp") + " to " + path("file") +
                             " failed, rc=18(Invalid cross-device link)\n"));
  EXPECT_EQ(value(DrsCounter::kFileError), 1u);
  EXPECT_EQ(samples(DrsHistogram::kFileRenameTime), 1u);
  EXPECT_EQ(outcome(), PKGDIST_STATUS_FROM_ERRNO(EXDEV));
  EXPECT_TRUE(exists(path("file.tmp")));
}

TEST_F(FileFinish, a_directory_in_the_way_is_a_failed_rename) {
  std::filesystem::create_directory(path("file"));
  begin(2);
  give_all();
  EXPECT_EQ(outcome(), PKGDIST_STATUS_FROM_ERRNO(EISDIR));
}

TEST_F(FileFinish, paths_are_built_anew_at_each_step) {
  begin(2);
  give(0);
  const std::string elsewhere = directory() + "elsewhere/";
  std::filesystem::create_directory(elsewhere);
  EXPECT_EQ(instcomm_pkgdist_set_recv_repository(elsewhere.c_str(), 1, false), 0u);
  give(1);
  EXPECT_EQ(outcome(), PKGDIST_STATUS_FROM_ERRNO(ENOENT));  // the partial file is at the old place
}

// --- Memory files ---

TEST_F(FileFinish, a_memory_file_completes_without_a_rename) {
  begin(2, "file", 2);
  give_all();
  EXPECT_EQ(faults::calls(Call::kRename), 0u);
  EXPECT_EQ(faults::calls(Call::kUtime), 0u);
  EXPECT_EQ(samples(DrsHistogram::kFileRenameTime), 0u);
  EXPECT_EQ(bytes_of(memory_path("file")), content(8));
  EXPECT_EQ(outcome(), 0u);
}

TEST_F(FileFinish, finishing_a_memory_file_unmaps_and_closes_it) {
  begin(2, "file", 2);
  give(0);
  pkgdist_file_recv_entry& entry = *find("file", 2);
  ASSERT_NE(entry.mapping, MAP_FAILED);
  ASSERT_TRUE(is_mapped(memory_path("file")));
  EXPECT_EQ(pkgdist_data_file_rename(entry), 0u);
  EXPECT_FALSE(is_mapped(memory_path("file")));
  EXPECT_EQ(entry.mapping, MAP_FAILED);
  EXPECT_EQ(entry.fd, -1);
}

TEST_F(FileFinish, a_finished_file_is_closed) {
  for (const uint32_t location : {1u, 2u}) {
    begin(2, "file", location);
    give(0);
    const int fd = find("file", location)->fd;
    ASSERT_GE(fcntl(fd, F_GETFD), 0);
    give(1);
    EXPECT_EQ(fcntl(fd, F_GETFD), -1) << "location " << location;
  }
}

// --- Links ---

TEST_F(FileFinish, a_link_is_made_from_its_one_segment) {
  begin_link();
  give_target("target");
  EXPECT_EQ(std::filesystem::read_symlink(path("file")), "target");
  EXPECT_EQ(samples(DrsHistogram::kSymlinkTime), 1u);
  EXPECT_EQ(faults::calls(Call::kRename), 0u);
  EXPECT_FALSE(exists(path("file.tmp")));
  client.deliver();
  EXPECT_EQ(client.files, (std::vector<FileEvent>{{0, "file", 8, 1, 5}}));
}

TEST_F(FileFinish, a_link_replaces_what_stands_at_its_path) {
  put_file("file", "old");
  begin_link();
  give_target("target");
  EXPECT_EQ(std::filesystem::read_symlink(path("file")), "target");
}

TEST_F(FileFinish, a_target_of_300_bytes_is_cut_to_255) {
  begin_link();
  give_target(std::string(300, 't'));
  EXPECT_EQ(std::filesystem::read_symlink(path("file")), std::string(255, 't'));
  EXPECT_EQ(outcome(), 0u);
}

TEST_F(FileFinish, an_empty_target_is_a_failed_link) {
  begin_link();
  give_target("");
  EXPECT_EQ(outcome(), PKGDIST_STATUS_FROM_ERRNO(ENOENT));
  EXPECT_EQ(value(DrsCounter::kFileError), 1u);
}

TEST_F(FileFinish, the_time_of_a_link_goes_to_what_it_points_to) {
  put_file("target", "x");
  begin_link(kMtime);
  give_target("target");
  EXPECT_EQ(status_of(path("target")).st_mtime, static_cast<time_t>(kMtime));
}

TEST_F(FileFinish, the_time_of_a_dangling_link_is_only_logged) {
  begin_link(kMtime);
  give_target("nowhere");
  EXPECT_TRUE(logs::contains("ERR:pkgdist_data_file_symlink: data file recv futime " +
                             path("file") + " failed, rc=2(No such file or directory)\n"));
  EXPECT_EQ(outcome(), 0u);
}

TEST_F(FileFinish, parent_directories_are_not_made_for_links) {
  want("new/link");
  announce({.name = "new/link", .size = 6, .segment_size = 1000, .symlink = true});
  give_target("target");
  EXPECT_TRUE(logs::contains("ERR:pkgdist_data_file_symlink: data file recv symlink " +
                             path("new/link") + " failed, rc=2(No such file or directory)\n"));
  EXPECT_EQ(value(DrsCounter::kFileError), 1u);
  EXPECT_EQ(value(DrsCounter::kFileRemove), 1u);
  EXPECT_EQ(samples(DrsHistogram::kSymlinkTime), 1u);
  EXPECT_EQ(outcome(), PKGDIST_STATUS_FROM_ERRNO(ENOENT));
}

TEST_F(FileFinish, a_link_in_a_memory_location_has_the_memory_prefix) {
  // A prefix that is a path too, so that the link can be made.
  EXPECT_EQ(instcomm_pkgdist_set_recv_repository((directory() + "mem-").c_str(), 3, true), 0u);
  begin_link(0, 3);
  give_target("target");
  EXPECT_EQ(std::filesystem::read_symlink(path("mem-file")), "target");
  EXPECT_EQ(outcome(), 0u);
}

TEST_F(FileFinish, the_flag_and_not_the_type_makes_a_link) {
  begin_link();
  want_also("file", 6, 6, 10);  // turns the type to 6
  ASSERT_EQ(find()->type, 6u);
  give_target("target");
  EXPECT_EQ(std::filesystem::read_symlink(path("file")), "target");
}

// --- The report ---

TEST_F(FileFinish, the_report_tells_id_status_name_and_location) {
  EXPECT_EQ(pkgdist_data_send_file_done(9, 0x1234, "a/b", 2), 0u);
  EXPECT_TRUE(logs::contains("DATA Send File Done - File Id 9 Name a/b Status 1234\n"));
  EXPECT_EQ(take_traffic().reports, (std::vector<Report>{{9, 0x1234, "a/b", 2}}));
  EXPECT_EQ(value(DrtCounter::kUcSendDoneSent), 1u);
  EXPECT_EQ(samples(DrtHistogram::kUcSendTime), 1u);
}

TEST_F(FileFinish, a_report_holds_a_name_of_up_to_301_bytes_in_all) {
  EXPECT_EQ(pkgdist_data_send_file_done(9, 0, "", 2), 0u);
  const std::string longest(301 - wire::take().at(0).bytes.size(), 'n');
  EXPECT_EQ(pkgdist_data_send_file_done(9, 0, longest.c_str(), 2), 0u);
  EXPECT_EQ(take_traffic().reports.at(0).name, longest);
  EXPECT_EQ(pkgdist_data_send_file_done(9, 0, (longest + "n").c_str(), 2), PKGDIST_ERR_ENCODE);
  EXPECT_TRUE(logs::contains(
      "ERR:pkgdist_data_send_file_done: data req done encode size '302' exceeds alloc size "
      "'301'\n"));
  EXPECT_EQ(pkgdist_data_send_file_done(9, 0, std::string(70'000, 'n').c_str(), 2),
            PKGDIST_ERR_ENCODE);
  EXPECT_EQ(logs::count("data req done encode failed: "), 1u);
  EXPECT_TRUE(wire::sent().empty());
}

TEST_F(FileFinish, a_report_that_finds_no_memory_is_not_sent) {
  faults::fail(Call::kStrdup, 1);
  EXPECT_EQ(pkgdist_data_send_file_done(9, 0, "a", 2), PKGDIST_ERR_NOMEM);
  EXPECT_TRUE(logs::contains(
      "ERR:pkgdist_data_send_file_done: stddup() for DATA_SEND_FILE_DONE_NAME failed\n"));
  faults::fail(Call::kCalloc, 1);
  EXPECT_EQ(pkgdist_data_send_file_done(9, 0, "a", 2), PKGDIST_ERR_NOMEM);
  EXPECT_TRUE(logs::contains(
      "ERR:pkgdist_data_send_file_done: malloc() 301 bytes for DATA_SEND_REQ_DONE failed\n"));
  EXPECT_TRUE(wire::sent().empty());
}

TEST_F(FileFinish, a_report_that_cannot_be_sent_is_a_send_error) {
  faults::fail(Call::kSendto, 1, ENETUNREACH);
  EXPECT_EQ(pkgdist_data_send_file_done(9, 0, "a", 2), PKGDIST_ERR_SEND);
  EXPECT_EQ(logs::count("ERR:pkgdist_data_send_file_done: data req done uc sendto of "), 1u);
  EXPECT_EQ(logs::count(" bytes failed, rc=-1, errno=101(Network is unreachable)\n"), 1u);
  faults::clear();
  faults::short_send(1, 5);
  EXPECT_EQ(pkgdist_data_send_file_done(9, 0, "a", 2), PKGDIST_ERR_SEND);
  EXPECT_EQ(logs::count(" bytes failed, rc=5, errno="), 1u);
  EXPECT_EQ(value(DrtCounter::kUcSendDoneSent), 0u);
  EXPECT_EQ(samples(DrtHistogram::kUcSendTime), 0u);
}

}  // namespace
