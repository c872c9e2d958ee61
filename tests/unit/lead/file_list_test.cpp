#include "push/file_list.h"

#include <gtest/gtest.h>

#include "wire_frame.h"

namespace pkgdist::lead {
namespace {

PushRequest request_of(size_t count, size_t name_length, uint64_t size) {
  PushRequest request;
  for (size_t i = 0; i < count; ++i) {
    std::string name = std::to_string(i);
    name.resize(name_length, 'x');
    request.files.push_back({name, size});
  }
  return request;
}

TEST(FileList, pieces_cover_every_file_once_in_order) {
  const PushRequest request = request_of(2500, 20, 1000);
  const auto pieces = cut_file_list(request.files);
  uint32_t next = 0;
  for (const FileRange& piece : pieces) {
    EXPECT_EQ(piece.first, next);
    EXPECT_GT(piece.end, piece.first);
    EXPECT_LE(piece.end - piece.first, 1000u);
    next = piece.end;
  }
  EXPECT_EQ(next, 2500u);
}

TEST(FileList, long_names_make_smaller_pieces) {
  const auto pieces = cut_file_list(request_of(1000, 240, 0).files);
  for (const FileRange& piece : pieces) EXPECT_LE((piece.end - piece.first) * 242, 41u * 1024);
}

TEST(FileList, a_piece_has_files_of_one_level) {
  const auto pieces = cut_file_list(request_of(4, 5, 10).files, {0, 0, 1, 2});
  ASSERT_EQ(pieces.size(), 3u);
  EXPECT_EQ(pieces[0].end, 2u);
  EXPECT_EQ(pieces[2].level, 2u);
}

TEST(FileList, a_file_is_a_level_above_the_one_whose_partial_name_it_has) {
  const auto levels_for = [](std::vector<std::string> names) {
    std::vector<PushFile> files;
    for (std::string& name : names) files.push_back({std::move(name), 1});
    return levels_of(files);
  };
  using Levels = std::vector<uint32_t>;
  EXPECT_EQ(levels_for({"a.tmp.tmp", "a.tmp", "a", "b.tmp"}), (Levels{2, 1, 0, 0}));
  EXPECT_EQ(levels_for({"a.tmp/b", "a.tmp/b.tmp", "./a"}), (Levels{1, 2, 0}));
  EXPECT_EQ(levels_for({"a", "a.tmp.tmp"}), (Levels{0, 0}));
}

TEST(FileList, a_large_file_is_a_piece_of_its_own) {
  EXPECT_EQ(cut_file_list(request_of(3, 5, 4'000'000'000).files).size(), 3u);
}

TEST(FileList, one_message_holds_one_piece) {
  const PushRequest request = request_of(3000, 100, 10);
  for (const FileRange& piece : cut_file_list(request.files)) {
    std::vector<uint32_t> files;
    for (uint32_t i = piece.first; i < piece.end; ++i) files.push_back(i);
    EXPECT_EQ(encode_file_lists(request, 7, files).size(), 1u);
  }
}

TEST(FileList, the_message_says_what_the_push_asks_for) {
  PushRequest request = request_of(2, 8, 10);
  request.location = 3;
  request.type = 6;
  request.priority = 4;
  const auto messages = encode_file_lists(request, 77, {0, 1});
  ASSERT_EQ(messages.size(), 1u);
  const test::Message<pkgdist_file_send_ctrl> list(messages[0]);
  ASSERT_TRUE(list.ok());
  EXPECT_EQ(list->operation, PKGDIST_FILE_SEND_LIST);
  EXPECT_EQ(list->xact_id, 77u);
  EXPECT_EQ(list->location, 3u);
  EXPECT_EQ(list->type, 6u);
  EXPECT_EQ(list->priority, 4u);
  ASSERT_EQ(list->names_count, 2u);
  EXPECT_EQ(list->names[1], request.files[1].name);
}

}  // namespace
}  // namespace pkgdist::lead
