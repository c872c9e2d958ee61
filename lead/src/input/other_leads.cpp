#include "input/other_leads.h"

#include "control/control_message.h"
#include "input/sender_check.h"

namespace pkgdist::lead {

namespace {

// Nodes that have not answered for this long do not follow this lead.
constexpr Time kFollowTimeout = 3 * kSecond;

}  // namespace

bool OtherLeads::hear(std::span<const uint8_t> bytes, uint32_t from, Time now) {
  const Decoded<pkgdist_ctrl_msg_hdr> header(bytes);
  if (!header) {
    ++parts_.counters.bad_datagrams;
    return false;
  }
  if (header->node_ip == 0 || header->node_ip == parts_.settings.address) return false;
  if (!checked_sender(parts_, header->node_ip, from)) return false;
  if (header->msg_id == PKGDIST_CTRL_MSG_ACK && header->sequence == kLeadQuerySequence) {
    parts_.leadership.on_query(header->node_ip, now);
    if (parts_.leads()) parts_.control.ping_soon(now);
    return false;
  }
  const bool ping = header->msg_id == PKGDIST_CTRL_MSG_PING;
  if (!ping && header->msg_id != PKGDIST_CTRL_MSG_CTRL) return false;
  const uint64_t heard = ++parts_.counters.other_lead_heard;
  if (parts_.leads() && heard % kTellEvery == 1)
    parts_.events.other_lead_heard(header->node_ip, header->pid, heard);
  if (parts_.leads() && !ping) return false;  // what it says in pings decides
  const bool followed = parts_.last_reply != 0 && elapsed(now, parts_.last_reply) < kFollowTimeout;
  parts_.leadership.on_other_lead(header->node_ip, ping ? leading_since_of(header->status) : 0,
                                  followed, now);
  return true;
}

}  // namespace pkgdist::lead
