// File requests of the caller and the request message to the lead.
#pragma once

#include <cstdint>

#include "pkgdist/status.h"
#include "pkgdist_data_recv_file_db.h"

// Asks the lead for a file. Also called with the receive lock held, to ask again.
PkgdistStatus pkgdist_data_send_file_req(const char* path, uint32_t type, uint32_t location,
                                         uint32_t priority);

namespace pkgdist {

// Tells the client of one transaction that it was cancelled.
void report_cancelled(const pkgdist_file_recv_entry& entry, const pkgdist_file_xact& xact);

// Takes every element of the entry's transactions that `is_meant` says yes to: tells its client
// that it was cancelled, drops it, and hands it to `after`. The index moves on after a removal too,
// so an element that moved into the freed place stays. Receive lock held.
template <class IsMeant, class After>
void cancel_xacts(pkgdist_file_recv_entry& entry, IsMeant&& is_meant, After&& after) {
  for (int32_t i = 0; i < entry.xact_count; ++i) {
    const pkgdist_file_xact xact = entry.xacts[i];
    if (!is_meant(xact)) continue;
    report_cancelled(entry, xact);
    file_recv_drop_xact(entry, i);
    after(xact);
  }
}

}  // namespace pkgdist
