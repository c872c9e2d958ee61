// Lead-change notification.
//
// One context with a reserved identifier. The lead's address and process, the flag that a client is
// registered, and who has to tell it of the lead are decided together, under the context lock: a
// lead that appears before the registration is reported by the registering thread, a later one by
// CTRL_RX. The registering thread's report is dropped when CTRL_RX has stored a newer lead before
// it was queued. So each lead is reported, and the last report is of the latest lead.
#include "pkgdist_ctrl_recv_lead_chg.h"

#include <cstring>

#include "pkgdist_ctrl_recv.h"
#include "pkgdist_ctrl_recv_ctx.h"
#include "pkgdist_export.h"
#include "pkgdist_log.h"
#include "pkgdist_stats.h"

using namespace pkgdist;

namespace {

const char* yes_or_no(uint32_t flag) {
  return flag != 0 ? "Y" : "N";
}

void deliver(const LeadChangeEntry& entry, const ControlClientContext& client) {
  record_since(CrsHistogram::kLeadChangeQitcTime, entry.put_time);
  if (client.handlers.lead_change == nullptr) return;
  PKGDIST_WARN("CTRL Lead Change Callback - Lead Ip %d.%d.%d.%d Pid %d Failover %s\n",
               PKGDIST_OCTETS(entry.lead), entry.pid, yes_or_no(entry.failover));
  count(CrsCounter::kLeadChangeCb);
  client.handlers.lead_change(entry.lead, entry.pid, entry.failover != 0, client.ctx);
}

// Both under the context lock; `lead_changes` is read without it, too.
uint64_t lead_changes = 0;         // leads and processes stored so far
bool is_report_under_way = false;  // CTRL_RX is about to queue the latest

// What the registering thread has to report: nothing when the lead is unknown, or left to CTRL_RX.
struct KnownLead {
  uint32_t address;
  uint32_t pid;
  uint64_t change;
};

// From here on CTRL_RX reports new leads.
KnownLead register_and_look(const char* function) {
  const MutexLock lock(G_ctrl_recv_ctx_db.mutex, Caller::here(function));
  store(G_ctrl_lead_cb_registered, true);
  if (is_report_under_way) return {};
  return {load(G_lead_uc_addr), load(G_lead_pid), lead_changes};
}

constexpr uint64_t kAnyChange = ~uint64_t{0};

// Queues a report; one of the lead of a certain change only while no other is stored.
PkgdistStatus report(uint32_t lead, uint32_t pid, uint32_t failover, uint64_t change) {
  const char* const function = "pkgdist_ctrl_lead_chg_invoke_cb";
  ControlClientContext client;
  if (!ControlClients::lookup(function, kLeadChangeRecvId, client)) {
    PKGDIST_ERR_IN(function, "ctrl lead chg ctx not found");
    return PKGDIST_ERR_NOT_FOUND;
  }
  int error = ControlClients::kNoChannel;
  if (ControlClients::channel_exists(function, client.channel_id)) {
    Malloced<LeadChangeEntry> entry(
        static_cast<LeadChangeEntry*>(std::malloc(sizeof(LeadChangeEntry))));
    if (entry == nullptr) {
      PKGDIST_ERR_IN(function, "malloc() %zu bytes for CTRL_LEAD_CHG_QITC_ENTRY failed",
                     sizeof(LeadChangeEntry));
      return PKGDIST_ERR_NOMEM;
    }
    *entry = {lead, pid, static_cast<uint8_t>(failover != 0),
              stamp_for(CrsHistogram::kLeadChangeQitcTime)};
    PKGDIST_INFO("CTRL Lead Change Invoke CB - Lead Ip %d.%d.%d.%d Pid %d Failover %s\n",
                 PKGDIST_OCTETS(lead), pid, yes_or_no(failover));
    error = ControlClients::put(function, client.channel_id, entry.get(), [=] {
      return change == kAnyChange || change == load(lead_changes);
    });
    if (error == 0) (void)entry.release();
  }
  if (error == ControlClients::kOutdated) return 0;
  if (error == ControlClients::kNoChannel) {
    PKGDIST_ERR_IN(function, "ctrl lead chg qitc id '%d' not found", client.channel_id);
    return PKGDIST_ERR_NOT_FOUND;
  }
  if (error != 0) {
    PKGDIST_ERR_IN(function, "ctrl lead chg qitc put failed, rc=%d(%s)", error,
                   std::strerror(error));
    return PKGDIST_ERR_SYSTEM;
  }
  return 0;
}

}  // namespace

extern "C" PKGDIST_EXPORT PkgdistStatus instcomm_pkgdist_ctrl_register_lead_change(
    levm_handle_t levm, pkgdist_ctrl_lead_change_cb cb_func, void* ctx) {
  if (levm == nullptr) {
    PKGDIST_ERR("levm passed is NULL");
    return PKGDIST_ERR_INVALID;
  }
  PKGDIST_INFO("CTRL Register Lead Change - levm '%p' cb_func '%p' Ctx '%p'\n",
               static_cast<void*>(levm), reinterpret_cast<void*>(cb_func), ctx);
  uint32_t recv_id = kLeadChangeRecvId;
  if (cb_func == nullptr) {
    pkgdist_ctrl_recv_free_ctx(recv_id);
    store(G_ctrl_lead_cb_registered, false);
    return 0;
  }
  const PkgdistStatus status =
      pkgdist_ctrl_recv_alloc_ctx(levm, nullptr, nullptr, cb_func, ctx, recv_id);
  if (status != 0) return status;
  const KnownLead known = register_and_look(static_cast<const char*>(__func__));
  if (known.address != 0) (void)report(known.address, known.pid, 0, known.change);
  return 0;
}

PkgdistStatus pkgdist_ctrl_lead_chg_invoke_cb(uint32_t lead, uint32_t pid, uint32_t failover) {
  return report(lead, pid, failover, kAnyChange);
}

bool pkgdist::lead_chg_store(uint32_t lead, uint32_t pid) {
  const MutexLock lock(G_ctrl_recv_ctx_db.mutex, Caller::here("pkgdist_ctrl_recv_process_hdr"));
  store(G_lead_uc_addr, lead);
  if (pid != 0) store(G_lead_pid, pid);
  store(lead_changes, lead_changes + 1);
  is_report_under_way = load(G_ctrl_lead_cb_registered);
  return is_report_under_way;
}

void pkgdist::lead_chg_reported() {
  const MutexLock lock(G_ctrl_recv_ctx_db.mutex, Caller::here("pkgdist_ctrl_recv_process_hdr"));
  is_report_under_way = false;
}

extern "C" void pkgdist_ctrl_lead_chg_qitc_handler(qitc_handle_t qitc) {
  for (;;) {
    void* taken = nullptr;
    const int error = ControlClients::take(__func__, qitc, &taken);
    if (error == kChannelEmpty) return;
    if (error != 0) {
      PKGDIST_ERR("ctrl lead chg qitc_get() failed, rc=%d(%s)", error, std::strerror(error));
      return;
    }
    if (taken == nullptr) {
      PKGDIST_ERR("ctrl lead chg qitc_get() returned NULL");
      continue;
    }
    const Malloced<LeadChangeEntry> entry(static_cast<LeadChangeEntry*>(taken));
    ControlClientContext client;
    if (!ControlClients::lookup(__func__, kLeadChangeRecvId, client)) {
      PKGDIST_ERR("ctrl lead chg ctx client not found");
      continue;
    }
    deliver(*entry, client);
  }
}
