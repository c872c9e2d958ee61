// How long a datagram waits in front of a node's file thread: the answer to a question that was put
// into the data stream under a number of its own.
#pragma once

#include <array>

#include "pkgdist_lead/time.h"
#include "transfer.h"

namespace pkgdist::lead {

class QueueProbe {
 public:
  // A question was sent.
  void sent(TransferId number, Time now) {
    latest_[next_] = {number, now};
    next_ = (next_ + 1) % latest_.size();
  }

  // What the answer to a question took; 0 when the number is none of the latest questions'.
  Time answered(TransferId number, Time now) const {
    for (const Question& question : latest_)
      if (number != kNoTransfer && question.number == number)
        return elapsed(now, question.sent) + 1;
    return 0;
  }

 private:
  struct Question {
    TransferId number = kNoTransfer;
    Time sent = 0;
  };
  // Answers that come later than so many questions are of another time.
  std::array<Question, 16> latest_;
  size_t next_ = 0;
};

}  // namespace pkgdist::lead
