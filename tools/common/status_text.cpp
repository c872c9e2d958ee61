#include "status_text.h"

#include "pkgdist/status.h"

namespace pkgdist::cli {

std::string status_text(uint64_t status) {
  return status == 0 ? "received" : pkgdist_status_str(status);
}

}  // namespace pkgdist::cli
