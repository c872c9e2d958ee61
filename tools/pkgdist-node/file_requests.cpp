#include "file_requests.h"

#include <string_view>

namespace pkgdist::node_program {

namespace {

size_t suffixes_of(const std::string& path) {
  constexpr std::string_view kSuffix = ".tmp";
  size_t count = 0;
  for (size_t at = path.find(kSuffix); at != std::string::npos; at = path.find(kSuffix, at + 1))
    ++count;
  return count;
}

}  // namespace

Wanted wanted_of(const NodeOptions& options) {
  return {options.paths, options.location, options.type, options.priority};
}

FileRequests::FileRequests(Wanted wanted, levm_handle_t loop, Ended ended)
    : wanted_(std::move(wanted)),
      loop_(loop),
      on_ended_(std::move(ended)),
      count_(wanted_.paths.size()) {
  for (const std::string& path : wanted_.paths) turns_[suffixes_of(path)].push_back(path);
}

void FileRequests::on_file(uint64_t status, const char* path, uint32_t, uint32_t location,
                           uint32_t transaction, void* ctx) {
  auto& self = *static_cast<FileRequests*>(ctx);
  --self.waiting_;
  ++self.ended_;
  if (status != 0) ++self.failed_;
  self.on_ended_(status, path, location, transaction);
}

// One that cannot be asked for has failed.
void FileRequests::request(const std::string& path) {
  ++waiting_;
  const PkgdistStatus status =
      instcomm_pkgdist_get_file(path.c_str(), wanted_.type, wanted_.location, wanted_.priority,
                                instcomm_pkgdist_get_receive_xact_id(), loop_, on_file, this);
  if (status == 0 || status == PKGDIST_ERR_SEND) return;  // a request not sent is sent again
  --waiting_;
  ++failed_;
  ++refused_;
  on_ended_(status, path.c_str(), wanted_.location, 0);
}

bool FileRequests::run() {
  while (waiting_ == 0 && !turns_.empty()) {
    const auto turn = turns_.extract(turns_.begin());
    for (const std::string& path : turn.mapped()) request(path);
  }
  return waiting_ == 0;
}

}  // namespace pkgdist::node_program
