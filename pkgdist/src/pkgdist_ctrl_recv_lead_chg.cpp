// Lead-change notification.
//
// One context with a reserved identifier. Registration sets the flag that CTRL_RX tests before it
// looks at the lead it may know already: a lead that appears at the same moment is reported once or
// twice, never not at all. Registration looks again after its report, because CTRL_RX may have
// reported a new lead before it: the last report is always of the latest lead.
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

void report_known_lead() {
  for (uint32_t lead = load(G_lead_uc_addr); lead != 0;) {
    const uint32_t pid = load(G_lead_pid);
    (void)pkgdist_ctrl_lead_chg_invoke_cb(lead, pid, 0);
    const uint32_t reported = lead;
    lead = load(G_lead_uc_addr);
    if (lead == reported && load(G_lead_pid) == pid) return;
  }
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
  store(G_ctrl_lead_cb_registered, true);
  report_known_lead();
  return 0;
}

PkgdistStatus pkgdist_ctrl_lead_chg_invoke_cb(uint32_t lead, uint32_t pid, uint32_t failover) {
  ControlClientContext client;
  if (!ControlClients::lookup(__func__, kLeadChangeRecvId, client)) {
    PKGDIST_ERR("ctrl lead chg ctx not found");
    return PKGDIST_ERR_NOT_FOUND;
  }
  int error = ControlClients::kNoChannel;
  if (ControlClients::channel_exists(__func__, client.channel_id)) {
    Malloced<LeadChangeEntry> entry(
        static_cast<LeadChangeEntry*>(std::malloc(sizeof(LeadChangeEntry))));
    if (entry == nullptr) {
      PKGDIST_ERR("malloc() %zu bytes for CTRL_LEAD_CHG_QITC_ENTRY failed",
                  sizeof(LeadChangeEntry));
      return PKGDIST_ERR_NOMEM;
    }
    *entry = {lead, pid, static_cast<uint8_t>(failover != 0),
              stamp_for(CrsHistogram::kLeadChangeQitcTime)};
    PKGDIST_INFO("CTRL Lead Change Invoke CB - Lead Ip %d.%d.%d.%d Pid %d Failover %s\n",
                 PKGDIST_OCTETS(lead), pid, yes_or_no(failover));
    error = ControlClients::put(__func__, client.channel_id, entry.get());
    if (error == 0) (void)entry.release();
  }
  if (error == ControlClients::kNoChannel) {
    PKGDIST_ERR("ctrl lead chg qitc id '%d' not found", client.channel_id);
    return PKGDIST_ERR_NOT_FOUND;
  }
  if (error != 0) {
    PKGDIST_ERR("ctrl lead chg qitc put failed, rc=%d(%s)", error, std::strerror(error));
    return PKGDIST_ERR_SYSTEM;
  }
  return 0;
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
