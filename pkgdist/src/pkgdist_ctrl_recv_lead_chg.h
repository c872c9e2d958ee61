// Lead-change notification: tells the one registered client who leads.
#pragma once

#include <cstdint>

#include "pkgdist/status.h"

// Queues a lead change for the registered client. CTRL_RX, or the thread that registers.
PkgdistStatus pkgdist_ctrl_lead_chg_invoke_cb(uint32_t lead, uint32_t pid, uint32_t failover);
