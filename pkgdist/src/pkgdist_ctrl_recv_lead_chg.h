// Lead-change notification: tells the one registered client who leads.
#pragma once

#include <cstdint>

#include "pkgdist/status.h"

namespace pkgdist {

// Stores the lead that CTRL_RX has found: its address and, unless 0, its process, which others see
// change together. True when a client is registered: then CTRL_RX queues the lead change, and ends
// that with lead_chg_reported().
bool lead_chg_store(uint32_t lead, uint32_t pid);
void lead_chg_reported();

}  // namespace pkgdist

// Queues a lead change for the registered client. CTRL_RX, or the thread that registers.
PkgdistStatus pkgdist_ctrl_lead_chg_invoke_cb(uint32_t lead, uint32_t pid, uint32_t failover);
