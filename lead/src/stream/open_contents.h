// Contents that are open, at most as many as the usual limit of descriptors allows. What is needed
// again later is opened again.
#pragma once

#include <deque>
#include <memory>
#include <span>
#include <unordered_map>

#include "stream/read_ahead.h"
#include "stream/transfer.h"

namespace pkgdist::lead {

class OpenContents {
 public:
  explicit OpenContents(ContentStore& store) : store_(store) {}

  // Looks at a file that is to be sent. 0, or the errno value that says why it cannot be.
  int inspect(const FileKey& key, FileAttributes& attributes, std::unique_ptr<Content>& content);
  // Keeps what inspect() opened, when there is room: what is before it in the stream needs the room
  // earlier.
  void adopt(TransferId id, std::unique_ptr<Content> content);
  // Fills `out` with the bytes from `offset` on. `in_order`: the bytes behind are wanted next.
  // 0, or an errno value; ESTALE when the file has changed since it was announced.
  int read(const Transfer& transfer, uint64_t offset, std::span<uint8_t> out, bool in_order);
  void close(TransferId id) { contents_.erase(id); }

 private:
  // Well below the usual limit of 1024 descriptors.
  static constexpr size_t kMostOpen = 256;

  void insert(TransferId id, std::unique_ptr<Content> content);

  ContentStore& store_;
  ReadAhead read_ahead_;
  std::unordered_map<TransferId, std::unique_ptr<Content>> contents_;
  std::deque<TransferId> order_;  // of opening; some of these are closed
};

}  // namespace pkgdist::lead
