// The transfers under way, by number and by file, the nodes that they keep busy, and the places
// that those take which nodes asked for.
#pragma once

#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "admission.h"
#include "stream/transfer.h"

namespace pkgdist::lead {

class TransferTable {
 public:
  // `seed`: numbers of an earlier process, which nodes remember for a while, are not met again.
  explicit TransferTable(uint64_t seed);

  Transfer& add(FileKey key, const FileAttributes& attributes, uint32_t segments);
  // Null when there is none.
  Transfer* at(TransferId id) const;
  TransferId find(const FileKey& key) const;
  // Whether a node could not receive the file beside one that is under way: one is the partial file
  // of the other, or a directory of that name, or both names are ways to write one. The transfer of
  // the very same name is not meant.
  bool collides(const FileKey& key) const;
  // A number that no transfer has.
  TransferId next_id();
  // Whether a file can be begun for the node.
  bool free_for(NodeIndex asker) const { return slots_.free_for(asker); }
  // For whom the transfer is: a node that there is a place for, or kNoNode for the push.
  void set_asker(Transfer& transfer, NodeIndex asker);
  // Takes the transfer out; no node is busy with it any longer.
  std::unique_ptr<Transfer> remove(TransferId id);

  size_t size() const { return transfers_.size(); }
  std::vector<TransferId> ids() const;
  const BusyNodes& busy() const { return busy_; }

  template <class Each>
  void each(Each&& each) const {
    for (const auto& [id, transfer] : transfers_) each(*transfer);
  }

 private:
  BusyNodes busy_;
  RequestSlots slots_;
  std::unordered_map<TransferId, std::unique_ptr<Transfer>> transfers_;
  std::unordered_map<std::string, TransferId> by_key_;
  // How many transfers have the plain name, and how many need it to stand free, by location and
  // name.
  using Counts = std::unordered_map<std::string, uint32_t>;
  static void count(Counts& counts, const std::string& key, bool more);
  void count_names(const FileKey& key, bool more);
  Counts plain_names_;
  Counts partial_owners_;
  TransferId last_id_;
};

}  // namespace pkgdist::lead
