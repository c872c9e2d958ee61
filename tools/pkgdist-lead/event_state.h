// How a push stands, from the events that it has printed.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <set>
#include <string>
#include <unordered_map>

#include "push_state.h"

namespace pkgdist::lead_program {

class EventState {
 public:
  // A line of events; what is none is passed over. True when it tells something new of the whole
  // push, so that it is worth being shown.
  bool add(const std::string& line);

  const PushState& state() const { return state_; }
  // Seconds since the epoch of the latest event, 0: none.
  double time() const { return time_; }
  bool finished() const { return finished_; }
  // What happened last, for people; empty when there is nothing to say.
  const std::string& last() const { return last_; }

 private:
  NodeState& node(const nlohmann::json& event);
  void name_node(NodeState& node, const std::string& name);
  void add_progress(const nlohmann::json& event);
  void add_whole(const nlohmann::json& event);
  void add_summary(const nlohmann::json& event);

  PushState state_;
  std::unordered_map<uint32_t, size_t> places_;  // by address
  // When nodes were heard last, by address: they are not told of again while nothing is new.
  std::unordered_map<uint32_t, double> heard_;
  std::set<std::string> names_;  // of nodes
  double time_ = 0;
  bool finished_ = false;
  std::string last_;
};

}  // namespace pkgdist::lead_program
