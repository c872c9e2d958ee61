// The files that have repairs to be sent. They take turns, one segment each, so that no file's
// nodes wait for those of another. A file whose repairs are gathered enters when that ends.
#pragma once

#include <deque>
#include <optional>
#include <utility>

#include "stream/transfer_table.h"

namespace pkgdist::lead {

class RepairLine {
 public:
  explicit RepairLine(const TransferTable& table) : table_(table) {}

  // Something of the file may be due.
  void enter(Transfer& transfer) {
    if (transfer.in_repair_line || transfer.repairs.empty()) return;
    transfer.in_repair_line = true;
    const Time ready = transfer.repairs.ready_at();
    if (ready == 0) return line_.push_back(transfer.id);
    gathering_.push_back({ready, transfer.id});
  }

  struct Repair {
    Transfer* transfer = nullptr;
    uint32_t segment = 0;
    bool last = false;  // nothing else of the file is due
  };
  // The next repair to be sent. Files whose repairs were dropped meanwhile leave the line.
  std::optional<Repair> take(Time now) {
    end_gathering(now);
    while (!line_.empty()) {
      Transfer* const transfer = table_.at(line_.front());
      line_.pop_front();
      if (transfer == nullptr) continue;
      if (transfer->repairs.empty()) {
        transfer->in_repair_line = false;
        continue;
      }
      const uint32_t segment = transfer->repairs.take(now);
      transfer->in_repair_line = !transfer->repairs.empty();
      if (transfer->in_repair_line) line_.push_back(transfer->id);
      return Repair{transfer, segment, !transfer->in_repair_line};
    }
    return std::nullopt;
  }

  // When take() has something; 0: at once.
  Time next_deadline() const {
    if (!line_.empty()) return 0;
    return gathering_.empty() ? kNever : gathering_.front().ready;
  }

 private:
  struct Gathering {
    Time ready = 0;  // unless more was asked for meanwhile
    TransferId id = kNoTransfer;
  };
  void end_gathering(Time now) {
    while (!gathering_.empty() && gathering_.front().ready <= now) {
      const TransferId id = gathering_.front().id;
      gathering_.pop_front();
      const Transfer* const transfer = table_.at(id);
      if (transfer == nullptr) continue;
      const Time ready = transfer->repairs.ready_at();
      if (ready > now)
        gathering_.push_back({ready, id});
      else
        line_.push_back(id);
    }
  }

  const TransferTable& table_;
  std::deque<TransferId> line_;
  std::deque<Gathering> gathering_;  // by time, within a pause of the requests
};

}  // namespace pkgdist::lead
