// Who is waited for, asked again and given up.
#include "answer_watch.h"

#include <gtest/gtest.h>

namespace pkgdist::lead_program {
namespace {

constexpr lead::Time kAgain = 3 * lead::kSecond;
constexpr lead::Time kSilence = 10 * lead::kSecond;
constexpr lead::Time kStart = 100 * lead::kSecond;
using Nodes = std::vector<uint32_t>;

TEST(AnswerWatch, a_node_that_says_nothing_is_asked_again_and_given_up_after_its_silence) {
  AnswerWatch watch(kAgain, kSilence);
  watch.begin({1, 2}, kStart);
  EXPECT_EQ(watch.deadline(), kStart + kAgain);
  watch.answered(2);
  EXPECT_EQ(watch.take_due(kStart + kAgain), Nodes{1});
  EXPECT_EQ(watch.take_due(kStart + kAgain), Nodes{});
  EXPECT_EQ(watch.take_due(kStart + 2 * kAgain), Nodes{1});
  EXPECT_EQ(watch.take_silent(kStart + kSilence - 1), Nodes{});
  EXPECT_EQ(watch.take_silent(kStart + kSilence), Nodes{1});
  EXPECT_FALSE(watch.waits());
  EXPECT_EQ(watch.deadline(), lead::kNever);
}

TEST(AnswerWatch, a_node_that_goes_on_answering_is_waited_for_without_limit) {
  AnswerWatch watch(kAgain, kSilence);
  watch.begin({1}, kStart);
  lead::Time now = kStart;
  for (int hours = 0; hours < 1000; ++hours) {
    now += kSilence - 1;
    watch.heard(1, now);
    EXPECT_TRUE(watch.take_silent(now).empty());
  }
  EXPECT_EQ(watch.take_silent(now + kSilence), Nodes{1});
}

TEST(AnswerWatch, asks_before_it_gives_up_however_short_the_silence_is) {
  AnswerWatch watch(3 * lead::kMillisecond);
  watch.begin({1}, kStart);
  EXPECT_EQ(watch.take_due(kStart + lead::kMillisecond), Nodes{1});
  EXPECT_EQ(watch.take_due(kStart + 2 * lead::kMillisecond), Nodes{1});
  EXPECT_EQ(watch.take_silent(kStart + 3 * lead::kMillisecond), Nodes{1});
}

TEST(AnswerWatch, what_others_say_counts_for_nobody) {
  AnswerWatch watch(kAgain, kSilence);
  watch.begin({1}, kStart);
  watch.heard(7, kStart + kSilence);
  EXPECT_FALSE(watch.waits_for(7));
  EXPECT_EQ(watch.take_silent(kStart + kSilence), Nodes{1});
}

}  // namespace
}  // namespace pkgdist::lead_program
