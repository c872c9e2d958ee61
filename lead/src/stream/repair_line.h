// The files that have repairs to be sent. They take turns, one segment each, so that no file's
// nodes wait for those of another.
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
    line_.push_back(transfer.id);
  }

  struct Repair {
    Transfer* transfer = nullptr;
    uint32_t segment = 0;
    bool last = false;  // nothing else of the file is due
  };
  // The next repair to be sent. Files whose repairs were dropped meanwhile leave the line.
  std::optional<Repair> take(Time now) {
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

  bool empty() const { return line_.empty(); }

 private:
  const TransferTable& table_;
  std::deque<TransferId> line_;
};

}  // namespace pkgdist::lead
