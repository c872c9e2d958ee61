// File information: which file is meant, whether it is needed, and the layout of its reception.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "data_support.h"
#include "pkgdist_data_recv_file_info.h"

using namespace support;

namespace {

constexpr uint32_t kMtime = 1'600'000'000;

class FileInfo : public DataTest {
 protected:
  void SetUp() override {
    DataTest::SetUp();
    client.attach_all();
  }
  std::vector<uint64_t> outcomes() {
    client.deliver();
    std::vector<uint64_t> result;
    for (const FileEvent& event : client.files) result.push_back(event.status);
    return result;
  }
};

// --- Whose file ---

TEST_F(FileInfo, an_announcement_is_logged_and_counted) {
  want("file");
  announce(
      {.id = 9, .size = 10, .segment_size = 4, .mode = 0600, .mtime = kMtime, .symlink = false});
  EXPECT_TRUE(logs::contains(
      "DATA Recv File Info - File file Id 9 Size 10 Seg Size 4 Status 0 symlink 0\n"));
  EXPECT_EQ(value(DrtCounter::kMcFileInfo), 1u);
  const pkgdist_file_recv_entry& entry = *find();
  EXPECT_EQ(entry.file_id, 9u);
  EXPECT_EQ(entry.size, 10u);
  EXPECT_EQ(entry.segment_size, 4u);
  EXPECT_EQ(entry.segment_count, 3u);
  EXPECT_EQ(entry.mode, 0600u);
  EXPECT_EQ(entry.mtime, kMtime);
  EXPECT_EQ(entry.info_pending, 0);
  EXPECT_EQ(entry.status, 0u);
  EXPECT_EQ(entry.fd, -1);  // the first segment opens the destination
  EXPECT_FALSE(exists(path("file.tmp")));
}

TEST_F(FileInfo, an_announcement_for_other_nodes_changes_nothing) {
  want("file");
  announce({.nodes = {kOtherAddress}});
  EXPECT_EQ(value(DrtCounter::kFileInfoDrop), 1u);
  EXPECT_EQ(value(DrtCounter::kMcFileInfo), 0u);
  EXPECT_EQ(logs::count("DATA Recv File Info"), 0u);
  EXPECT_EQ(find()->info_pending, 1);
  EXPECT_EQ(find()->file_id, 0u);
}

TEST_F(FileInfo, an_announcement_that_names_this_node_among_others_is_taken) {
  want("file");
  announce({.nodes = {kOtherAddress, kMyAddress}});
  EXPECT_EQ(value(DrtCounter::kFileInfoDrop), 0u);
  EXPECT_EQ(find()->file_id, 7u);
}

TEST_F(FileInfo, a_file_that_nobody_asked_for_is_counted) {
  announce({.name = "stranger"});
  EXPECT_EQ(value(DrtCounter::kMcFileInfo), 1u);
  EXPECT_EQ(value(DrtCounter::kFileNotFound), 1u);
  EXPECT_EQ(samples(DrtHistogram::kFileInfoTime), 0u);
  EXPECT_TRUE(G_file_recv_db.empty());
}

TEST_F(FileInfo, the_same_name_in_another_location_is_not_meant) {
  want("file", 5, 1, 1);
  announce({.location = 2});
  EXPECT_EQ(value(DrtCounter::kFileNotFound), 1u);
  EXPECT_EQ(find()->file_id, 0u);
}

TEST_F(FileInfo, location_zero_means_any) {
  want("file", 5, 1, 2);
  announce({.location = 0});
  EXPECT_EQ(find("file", 2)->file_id, 7u);
}

TEST_F(FileInfo, the_time_since_the_request_is_recorded) {
  want("file");
  clock::advance(kSecond);
  announce({});
  EXPECT_EQ(samples(DrtHistogram::kFileInfoTime), 1u);
}

// --- Repeats ---

TEST_F(FileInfo, a_repeat_of_the_current_transfer_changes_only_the_pending_flag) {
  begin(3);
  give(0);
  pkgdist_file_recv_entry& entry = *find();
  entry.info_pending = 1;
  entry.timeout_count = 3;
  const uint64_t start = entry.start_time;
  clock::advance(kSecond);
  announce({.size = 12, .mode = 0777});
  EXPECT_EQ(entry.info_pending, 0);
  EXPECT_EQ(entry.received_count, 1u);
  EXPECT_EQ(entry.timeout_count, 3u);
  EXPECT_EQ(entry.start_time, start);
  EXPECT_EQ(entry.mode, 0644u);
  EXPECT_EQ(samples(DrtHistogram::kFileInfoTime), 2u);
}

TEST_F(FileInfo, a_repeat_after_all_segments_completes_the_file) {
  begin(2);
  find()->info_pending = 1;
  give_all();
  ASSERT_NE(find(), nullptr);  // never completed while a file info is awaited
  announce({.size = 8});
  EXPECT_EQ(find(), nullptr);
  EXPECT_EQ(bytes_of(path("file")), content(8));
  EXPECT_EQ(value(DrsCounter::kFileRemove), 1u);
  EXPECT_EQ(outcomes(), (std::vector<uint64_t>{0}));
}

TEST_F(FileInfo, a_repeat_whose_rename_fails_completes_with_its_status) {
  begin(2);
  find()->info_pending = 1;
  give_all();
  faults::fail(Call::kRename, 1, EACCES);
  announce({.size = 8});
  EXPECT_EQ(find(), nullptr);
  EXPECT_EQ(outcomes(), (std::vector<uint64_t>{PKGDIST_STATUS_FROM_ERRNO(EACCES)}));
}

TEST_F(FileInfo, another_size_time_or_id_begins_a_new_transfer) {
  for (const Info& info :
       {Info{.size = 16}, Info{.size = 12, .mtime = 1}, Info{.id = 8, .size = 12}}) {
    want("file");
    announce({.size = 12});
    give(1);
    announce(info);
    EXPECT_EQ(find()->received_count, 0u);
    pkgdist_file_recv_entry* entry = find();
    const pkgdist::FileRecvDbGuard lock;
    pkgdist::file_recv_take(entry);
    pkgdist_file_recv_db_free(entry);
  }
}

// --- New transfers ---

TEST_F(FileInfo, a_new_transfer_starts_from_empty_bitmaps_and_deletes_the_partial_file) {
  begin(10);
  for (const uint32_t segment : {0u, 1u, 5u}) give(segment);
  const int old_fd = find()->fd;
  ASSERT_TRUE(exists(path("file.tmp")));
  clock::advance(kSecond);
  find()->timeout_count = 4;
  announce({.id = 8, .size = 8});
  const pkgdist_file_recv_entry& entry = *find();
  EXPECT_FALSE(exists(path("file.tmp")));
  EXPECT_EQ(fcntl(old_fd, F_GETFD), -1);
  EXPECT_EQ(samples(DrsHistogram::kFileUnlinkTime), 1u);
  EXPECT_EQ(entry.fd, -1);
  EXPECT_EQ(entry.segment_count, 2u);
  EXPECT_EQ(entry.received_count, 0u);
  EXPECT_EQ(entry.missing_count, 0u);
  EXPECT_EQ(entry.segment_bitmap[0], 0);
  EXPECT_EQ(entry.missing_bitmap[0], 0);
  EXPECT_EQ(entry.timeout_count, 0u);
  EXPECT_EQ(entry.start_time, clock::now());
  give(0, false, 7);  // of the old transfer
  EXPECT_EQ(value(DrtCounter::kFileNotFound), 1u);
  give_all(8);
  EXPECT_EQ(bytes_of(path("file")), content(8));
}

TEST_F(FileInfo, a_new_transfer_of_a_memory_file_unmaps_and_deletes_the_object) {
  begin(3, "file", 2);
  give(0);
  ASSERT_TRUE(exists(memory_path("file")));
  ASSERT_TRUE(is_mapped(memory_path("file")));
  announce({.id = 8, .size = 4000, .segment_size = 1000, .location = 2});
  EXPECT_FALSE(is_mapped(memory_path("file")));
  EXPECT_FALSE(exists(memory_path("file")));
  EXPECT_EQ(find("file", 2)->mapping, MAP_FAILED);
  EXPECT_EQ(find("file", 2)->fd, -1);
  give_all(8);
  EXPECT_EQ(bytes_of(memory_path("file")), content(4000));
}

TEST_F(FileInfo, a_link_becomes_type_eight) {
  want("file", 5, 3);
  announce({.size = 6, .symlink = true});
  EXPECT_EQ(find()->symlink, 1);
  EXPECT_EQ(find()->type, 8u);
  EXPECT_TRUE(logs::contains(
      "DATA Recv File Info - File file Id 7 Size 6 Seg Size 4 Status 0 symlink 1\n"));
}

TEST_F(FileInfo, the_leads_status_ends_the_file) {
  want("file");
  announce({.status = 0x1234});
  EXPECT_EQ(find(), nullptr);
  EXPECT_EQ(value(DrsCounter::kFileRemove), 1u);
  EXPECT_EQ(value(DrsCounter::kFileBadStatusRecv), 1u);
  EXPECT_EQ(take_traffic().reports, (std::vector<Report>{{7, 0x1234, "file", 1}}));
  EXPECT_EQ(outcomes(), (std::vector<uint64_t>{0x1234}));
  EXPECT_EQ(client.dones.size(), 1u);
}

TEST_F(FileInfo, the_leads_status_ends_a_half_received_file_and_deletes_it) {
  begin(3);
  give(0);
  announce({.size = 12, .status = 0x1234});
  EXPECT_EQ(find(), nullptr);
  EXPECT_FALSE(exists(path("file.tmp")));
}

TEST_F(FileInfo, an_empty_file_has_one_segment) {
  want("file");
  announce({.size = 0, .segment_size = 1000});
  EXPECT_EQ(find()->segment_count, 1u);
  give(0);
  EXPECT_EQ(bytes_of(path("file")), Bytes{});
  EXPECT_EQ(outcomes(), (std::vector<uint64_t>{0}));
}

TEST_F(FileInfo, an_empty_file_needs_no_segment_size) {
  want("file");
  announce({.size = 0, .segment_size = 0});
  EXPECT_EQ(find()->segment_count, 1u);
  give(0);
  EXPECT_EQ(bytes_of(path("file")), Bytes{});
}

TEST_F(FileInfo, a_segment_size_of_zero_is_a_bad_packet_and_leaves_the_entry_alone) {
  want("file");
  announce({.size = 10, .segment_size = 0});
  EXPECT_EQ(value(DrtCounter::kMcBadPktRecv), 1u);
  EXPECT_EQ(find()->info_pending, 1);
  EXPECT_EQ(find()->file_id, 0u);
}

TEST_F(FileInfo, the_leads_status_counts_also_without_a_segment_size) {
  want("file");
  announce({.size = 10, .segment_size = 0, .status = 0x1234});
  EXPECT_EQ(find(), nullptr);
  EXPECT_EQ(value(DrtCounter::kMcBadPktRecv), 0u);
}

TEST_F(FileInfo, sizes_near_the_32_bit_limit_have_the_right_number_of_segments) {
  want("file");
  announce({.size = 0xFFFFFFFF, .segment_size = 0x10000});
  EXPECT_EQ(find()->segment_count, 0x10000u);
  announce({.id = 8, .size = 0xFFFFFFFF, .segment_size = 0xFFFFFFFF});
  EXPECT_EQ(find()->segment_count, 1u);
  announce({.id = 9, .size = 0xFFFFFFFF, .segment_size = 0xFFFFFFFE});
  EXPECT_EQ(find()->segment_count, 2u);
}

TEST_F(FileInfo, more_segments_than_a_working_lead_makes_are_a_bad_packet) {
  want("file");
  announce({.size = 1u << 24, .segment_size = 1});
  EXPECT_EQ(find()->segment_count, 1u << 24);
  announce({.id = 8, .size = (1u << 24) + 1, .segment_size = 1});
  EXPECT_TRUE(logs::contains(
      "ERR:pkgdist_data_process_file_info: file 'file' size 16777217 has no number of "
      "segments or too many of size 1\n"));
  announce({.id = 9, .size = 0xFFFFFFFF, .segment_size = 255});
  EXPECT_EQ(value(DrtCounter::kMcBadPktRecv), 2u);
  EXPECT_EQ(find()->segment_count, 1u << 24);
}

TEST_F(FileInfo, without_memory_for_a_bitmap_the_file_fails) {
  // Decoded strings come from the codec's allocator: the first zeroed block is a bitmap.
  const std::pair<unsigned, const char*> cases[] = {{1, "RECV_FILE_BITMAP"},
                                                    {2, "RECV_FILE_MISS_BITMAP"}};
  for (const auto& [nth, label] : cases) {
    want("file");
    faults::fail(Call::kCalloc, nth);
    announce({.size = 9 * 4});
    EXPECT_TRUE(
        logs::contains(std::string("ERR:pkgdist_data_process_file_info: malloc() 2 bytes for ") +
                       label + " failed\n"));
    EXPECT_EQ(find(), nullptr);
  }
  EXPECT_EQ(value(DrsCounter::kFileRemove), 2u);
  EXPECT_EQ(outcomes(), (std::vector<uint64_t>{PKGDIST_ERR_NOMEM, PKGDIST_ERR_NOMEM}));
}

// --- Skipping ---

TEST_F(FileInfo, a_file_of_same_size_and_time_is_skipped) {
  put_file("file", "0123456789", kMtime);
  want("file");
  announce({.size = 10, .mtime = kMtime});
  EXPECT_EQ(find(), nullptr);
  EXPECT_TRUE(logs::contains("DATA Recv File - Same size and timestamp, skip xfer\n"));
  EXPECT_EQ(value(DrsCounter::kFileSkip), 1u);
  EXPECT_EQ(value(DrsCounter::kFileRemove), 1u);
  EXPECT_EQ(samples(DrsHistogram::kFileStatTime), 1u);
  EXPECT_EQ(take_traffic().reports, (std::vector<Report>{{7, 0, "file", 1}}));
  EXPECT_EQ(outcomes(), (std::vector<uint64_t>{0}));
}

TEST_F(FileInfo, type_six_is_never_skipped) {
  put_file("file", "0123456789", kMtime);
  want("file", 5, 6);
  announce({.size = 10, .mtime = kMtime});
  EXPECT_NE(find(), nullptr);
  EXPECT_EQ(value(DrsCounter::kFileSkip), 0u);
}

TEST_F(FileInfo, another_size_or_time_is_not_skipped) {
  put_file("file", "0123456789", kMtime);
  want("file");
  announce({.size = 11, .mtime = kMtime});
  EXPECT_NE(find(), nullptr);
  announce({.id = 8, .size = 10, .mtime = kMtime + 1});
  EXPECT_NE(find(), nullptr);
  EXPECT_EQ(value(DrsCounter::kFileSkip), 0u);
}

TEST_F(FileInfo, on_the_leads_own_node_a_present_file_is_skipped_whatever_it_is) {
  put_file("file", "old", kMtime);
  G_lead_uc_addr = kMyAddress;
  want("file", 5, 6);
  announce({.size = 10, .mtime = kMtime + 5}, kMyAddress);
  EXPECT_EQ(find(), nullptr);
  EXPECT_TRUE(logs::contains("DATA Recv File - Same node, skip xfer\n"));
  EXPECT_EQ(value(DrsCounter::kFileSkip), 1u);
  EXPECT_EQ(outcomes(), (std::vector<uint64_t>{0}));
}

TEST_F(FileInfo, on_the_leads_own_node_an_absent_file_is_received) {
  G_lead_uc_addr = kMyAddress;
  want("file");
  announce({.size = 10}, kMyAddress);
  EXPECT_NE(find(), nullptr);
}

TEST_F(FileInfo, memory_files_are_never_skipped) {
  want("file", 5, 1, 2);
  announce({.size = 4, .location = 2});
  give(0);
  ASSERT_TRUE(exists(memory_path("file")));
  want("file", 6, 1, 2);
  announce({.id = 8, .size = 4, .location = 2});
  EXPECT_NE(find("file", 2), nullptr);
  EXPECT_EQ(samples(DrsHistogram::kFileStatTime), 0u);
}

// --- Looking at what is present ---

TEST_F(FileInfo, the_present_file_is_looked_at_without_following_links) {
  want("file");
  struct stat present {};
  EXPECT_EQ(pkgdist_file_get_stat(*find(), present), ENOENT);
  put_file("target", "0123456789");
  ASSERT_EQ(symlink("target", path("file").c_str()), 0);
  EXPECT_EQ(pkgdist_file_get_stat(*find(), present), 0);
  EXPECT_TRUE(S_ISLNK(present.st_mode));
  EXPECT_EQ(samples(DrsHistogram::kFileStatTime), 2u);
}

TEST_F(FileInfo, a_directory_is_not_a_file) {
  want("file");
  std::filesystem::create_directory(path("file"));
  struct stat present {};
  EXPECT_EQ(pkgdist_file_get_stat(*find(), present), EISDIR);
  announce({.mtime = static_cast<uint32_t>(present.st_mtime)});
  EXPECT_NE(find(), nullptr);  // not skipped
}

}  // namespace
