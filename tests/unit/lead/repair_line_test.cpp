#include "stream/repair_line.h"

#include <gtest/gtest.h>

namespace pkgdist::lead {
namespace {

class RepairLineTest : public testing::Test {
 protected:
  Transfer& add(const std::string& name) { return table_.add({1, name}, {.size = 100'000}, 100); }
  void request(Transfer& transfer, uint32_t first, uint32_t num) {
    transfer.repairs.request(first, num, now_);
    line_.enter(transfer);
  }
  // What is sent, in its order: file and segment, and a full stop behind a file's last one.
  std::string take_all() {
    std::string text;
    while (const auto repair = line_.take(now_))
      text += ' ' + repair->transfer->key.name + std::to_string(repair->segment) +
              (repair->last ? "." : "");
    return text;
  }

  TransferTable table_{1};
  RepairLine line_{table_};
  Time now_ = kSecond;
};

TEST_F(RepairLineTest, files_take_turns_segment_by_segment) {
  request(add("a"), 0, 3);
  request(add("b"), 50, 1);
  request(add("c"), 7, 2);
  EXPECT_EQ(take_all(), " a0 b50. c7 a1 c8. a2.");
}

TEST_F(RepairLineTest, a_file_stands_in_the_line_once_however_often_it_is_asked_for) {
  Transfer& a = add("a");
  request(a, 0, 2);
  request(a, 1, 2);
  request(add("b"), 4, 2);
  EXPECT_EQ(take_all(), " a0 b4 a1 b5. a2.");
}

TEST_F(RepairLineTest, waits_for_nothing_when_nothing_is_due) {
  Transfer& a = add("a");
  EXPECT_EQ(line_.next_deadline(), kNever);
  line_.enter(a);
  EXPECT_EQ(line_.next_deadline(), kNever);
  request(a, 0, 1);
  EXPECT_EQ(line_.next_deadline(), 0);
  EXPECT_TRUE(a.in_repair_line);
  take_all();
  EXPECT_EQ(line_.next_deadline(), kNever);
  EXPECT_FALSE(a.in_repair_line);
}

TEST_F(RepairLineTest, a_file_whose_repairs_are_gathered_comes_when_nobody_asks_for_more) {
  Transfer& gathers = add("a");
  gathers.repairs.gather(true);
  request(gathers, 0, 1);
  request(add("b"), 0, 1);
  EXPECT_EQ(take_all(), " b0.");
  EXPECT_EQ(line_.next_deadline(), now_ + 2 * kMillisecond);
  now_ += kMillisecond;
  request(gathers, 5, 1);
  now_ += kMillisecond;
  EXPECT_EQ(take_all(), "");
  EXPECT_EQ(line_.next_deadline(), now_ + kMillisecond);
  now_ += kMillisecond;
  EXPECT_EQ(take_all(), " a0 a5.");
  EXPECT_EQ(line_.next_deadline(), kNever);
}

TEST_F(RepairLineTest, a_file_that_ends_while_its_repairs_are_gathered_is_forgotten) {
  Transfer& gathers = add("a");
  gathers.repairs.gather(true);
  request(gathers, 0, 1);
  table_.remove(gathers.id);
  now_ += 2 * kMillisecond;
  EXPECT_EQ(take_all(), "");
  EXPECT_EQ(line_.next_deadline(), kNever);
}

TEST_F(RepairLineTest, a_file_that_is_gone_or_whose_repairs_were_dropped_leaves_the_line) {
  Transfer& gone = add("a");
  Transfer& dropped = add("b");
  request(gone, 0, 3);
  request(dropped, 0, 3);
  request(add("c"), 9, 1);
  table_.remove(gone.id);
  dropped.repairs.clear();
  EXPECT_EQ(take_all(), " c9.");
  EXPECT_FALSE(dropped.in_repair_line);
}

TEST_F(RepairLineTest, a_file_whose_repairs_were_dropped_can_enter_again) {
  Transfer& a = add("a");
  request(a, 0, 3);
  a.repairs.clear();
  take_all();
  request(a, 20, 1);
  EXPECT_EQ(take_all(), " a20.");
}

}  // namespace
}  // namespace pkgdist::lead
