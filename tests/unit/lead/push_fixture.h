// What the parts of a push stand on, for tests of one part: nodes, a control stream whose messages
// are taken note of, and members that a test enters.
#pragma once

#include <gtest/gtest.h>

#include <array>

#include "push/announcer.h"

namespace pkgdist::lead {

class PushFixture : public testing::Test, public DatagramSink {
 protected:
  static constexpr Time kStart = 10 * kSecond;
  static constexpr uint32_t kXact = 0x8000'0001;

  static PushRequest request_of(const std::vector<std::string>& names, uint64_t size = 1000) {
    PushRequest request;
    for (const std::string& name : names) request.files.push_back({name, size});
    return request;
  }

  NodeIndex add_node() {
    const uint32_t address = 0x0A000002 + nodes_.size();
    return nodes_.observe_data(address, kStart).index;
  }
  // A node that is a present member.
  NodeIndex add_member(Members& members) {
    const NodeIndex node = add_node();
    members.set_present(members.enter(node, nodes_[node].info), true);
    return node;
  }
  NodeIndex add_member(Members& members, Announcer& announcer) {
    const NodeIndex node = add_member(members);
    announcer.forget(node);
    return node;
  }

  // Messages sent since the last call.
  size_t messages() { return std::exchange(sent_, 0); }

  std::span<uint8_t> buffer() override { return buffer_; }
  void send(Channel, uint32_t, size_t) override { ++sent_; }

  std::array<uint8_t, PKGDIST_CTRL_PKT_MAX> buffer_{};
  size_t sent_ = 0;
  Settings settings_{.address = 0x0A000001, .pid = 42, .initial_sequence = 100};
  Counters counters_;
  NodeTable nodes_;
  ControlStream control_{settings_, *this, counters_, [](const ControlStream::Finished&) {}};
};

}  // namespace pkgdist::lead
