// What a push brings, in the order in which it brings it: fixed from the beginning.
//
// Files of lower levels come first (file_list.h). Files are told by their place in this order; the
// owner of the push knows them by their place in its request.
#pragma once

#include <optional>
#include <unordered_map>

#include "push/file_list.h"
#include "stream/transfer.h"

namespace pkgdist::lead {

class PushPlan {
 public:
  PushPlan(PushRequest request, uint32_t xact);

  // The files are in the order of this plan.
  const PushRequest& request() const { return request_; }
  uint32_t xact() const { return xact_; }

  uint32_t files() const { return static_cast<uint32_t>(request_.files.size()); }
  uint64_t bytes() const { return bytes_; }
  const std::string& name(uint32_t file) const { return request_.files[file].name; }
  uint64_t size(uint32_t file) const { return request_.files[file].size; }
  FileKey key(uint32_t file) const { return {request_.location, name(file)}; }
  std::optional<uint32_t> find(const std::string& name) const;
  // The place of a file in the owner's request.
  uint32_t original(uint32_t file) const { return original_.empty() ? file : original_[file]; }

  const std::vector<FileRange>& pieces() const { return pieces_; }
  uint32_t piece_of(uint32_t file) const;
  uint64_t bytes_of(FileRange range) const;
  // Whether some files must come before others.
  bool leveled() const { return !pieces_.empty() && pieces_.back().level != 0; }

  // Whether a node of this address takes part.
  bool wants(uint32_t address) const;
  // Nodes without which the push is not complete.
  size_t expected_nodes() const {
    return request_.nodes.empty() ? request_.node_count : request_.nodes.size();
  }

 private:
  std::vector<uint32_t> original_;  // empty: nothing has moved
  std::vector<uint32_t> levels_;    // by file, ascending
  const PushRequest request_;
  const uint32_t xact_;
  const std::vector<FileRange> pieces_;
  std::unordered_map<std::string, uint32_t> by_name_;
  uint64_t bytes_ = 0;
};

}  // namespace pkgdist::lead
