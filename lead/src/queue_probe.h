// How long a datagram waits in front of a node's file thread: the answer to a question that was put
// into the data stream under a number of its own.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>

#include "pkgdist_lead/time.h"
#include "transfer.h"

namespace pkgdist::lead {

class QueueProbe {
 public:
  // A question about a file was sent.
  void sent(TransferId number, TransferId file, Time now) {
    if (file != file_) {
      file_ = file;
      asked_ = unanswered_ = 0;
      any_ = false;
    }
    latest_[next_] = {number, now};
    next_ = (next_ + 1) % latest_.size();
    ++asked_;
    ++unanswered_;
  }

  // What the answer to a question took; 0 when the number is none of the latest questions'.
  Time answered(TransferId number, Time now) {
    if (number == kNoTransfer) return 0;
    for (size_t back = 1; back <= latest_.size(); ++back) {
      const Question& question = latest_[(next_ + latest_.size() - back) % latest_.size()];
      if (question.number != number) continue;
      any_ |= back <= asked_;
      unanswered_ = std::min(unanswered_, back - 1);
      return elapsed(now, question.sent) + 1;
    }
    return 0;
  }

  // Questions about this file after the last one that was answered, and for how long the first of
  // them has been waiting. Where nobody answered yet there is nothing to be late for: nodes that
  // remember how the same file ended before answer about that one.
  size_t unanswered() const { return any_ ? unanswered_ : 0; }
  Time silence(Time now) const {
    const size_t back = std::min(unanswered(), latest_.size());
    if (back == 0) return 0;
    return elapsed(now, latest_[(next_ + latest_.size() - back) % latest_.size()].sent);
  }

 private:
  struct Question {
    TransferId number = kNoTransfer;
    Time sent = 0;
  };
  // Answers that come later than so many questions are of another time: more than a second.
  std::array<Question, 64> latest_;
  size_t next_ = 0;
  TransferId file_ = kNoTransfer;  // of the last question
  size_t asked_ = 0;               // questions about it
  size_t unanswered_ = 0;
  bool any_ = false;  // answer about it
};

}  // namespace pkgdist::lead
