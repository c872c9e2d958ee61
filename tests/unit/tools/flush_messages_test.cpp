#include "flush_messages.h"

#include <gtest/gtest.h>

#include <cerrno>

namespace pkgdist::cli {
namespace {

std::span<const uint8_t> bytes_of(const std::string& text) {
  return {reinterpret_cast<const uint8_t*>(text.data()), text.size()};
}

TEST(FlushMessages, say_the_same_on_both_sides) {
  const FlushQuestion question{4'000'000'000, 6};
  EXPECT_EQ(flush_question_text(question), "pkgdist-flush 1 4000000000 6\n");
  EXPECT_EQ(parse_flush_question(bytes_of(flush_question_text(question))), question);
  const std::string answer = flush_answer_text({question, EIO});
  EXPECT_EQ(answer, "pkgdist-flushed 1 4000000000 6 5\n");
  const auto parsed = parse_flush_answer(bytes_of(answer));
  ASSERT_TRUE(parsed);
  EXPECT_EQ(parsed->question, question);
  EXPECT_EQ(parsed->error, EIO);
}

TEST(FlushMessages, that_a_node_is_at_work_are_no_answers) {
  const FlushQuestion question{7, 2};
  const std::string text = flush_progress_text(question);
  EXPECT_EQ(text, "pkgdist-flushing 1 7 2\n");
  EXPECT_EQ(parse_flush_progress(bytes_of(text)), question);
  EXPECT_FALSE(parse_flush_answer(bytes_of(text)));
  EXPECT_FALSE(parse_flush_question(bytes_of(text)));
  EXPECT_FALSE(parse_flush_progress(bytes_of(flush_question_text(question))));
}

TEST(FlushMessages, leave_other_messages_alone) {
  for (const char* text :
       {"", "pkgdist-flush", "pkgdist-flush 1 2", "pkgdist-flush 1 2 3", "pkgdist-flush 1 2 3 \n",
        "pkgdist-flush 1 2 3 4\n", "pkgdist-flush 1  2 3\n", "pkgdist-flush 1 -2 3\n",
        "pkgdist-flush 1 99999999999 3\n", "pkgdist-flush 2 2 3\n", "x\n"})
    EXPECT_FALSE(parse_flush_question(bytes_of(text))) << text;
  EXPECT_FALSE(parse_flush_question(bytes_of(flush_answer_text({}))));
  EXPECT_FALSE(parse_flush_answer(bytes_of(flush_question_text({}))));
}

}  // namespace
}  // namespace pkgdist::cli
