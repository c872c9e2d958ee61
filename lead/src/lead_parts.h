// The parts of a lead that its jobs share: input/ hands them what arrives, node_watch.h tells them
// what becomes of a node, lead.cpp runs them. All on the thread of the lead's owner.
#pragma once

#include <memory>

#include "control/leadership.h"
#include "control/node_messages.h"
#include "control/outbox.h"
#include "control/process_number.h"
#include "pkgdist_lead/lead.h"
#include "push/push_job.h"
#include "transfer_router.h"

namespace pkgdist::lead {

struct LeadParts {
  LeadParts(const Settings& settings_, DatagramSink& sink_, ContentStore& store, Events& events_);
  LeadParts(const LeadParts&) = delete;
  LeadParts& operator=(const LeadParts&) = delete;

  bool leads() const { return leadership.leads(); }
  bool pushing() const { return push && !push->finished(); }

  Settings settings;  // the process number may change
  DatagramSink& sink;
  Events& events;
  Counters counters;
  std::unique_ptr<PushJob> push;  // the present or last one; null before the first
  Time now = 0;                   // of the event being handled
  Time last_reply = 0;            // of any node to this lead's pings

  NodeTable nodes;
  ProcessNumber number;
  Leadership leadership;
  ControlStream control;
  NodeStreams streams;
  Outbox outbox;
  NodeMessages messages;
  TransferRouter router;
  DataSender data;

 private:
  void on_acknowledged(const ControlStream::Finished& finished);
};

}  // namespace pkgdist::lead
