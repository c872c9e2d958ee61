// What the events of a push tell, gathered: when what happened, to which nodes, and as far as the
// events tell, why.
#pragma once

#include <istream>
#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "event_fields.h"
#include "page_drawing.h"

namespace pkgdist::lead_program {

// What the events tell of a node beside its line in the summary. Seconds are of the push.
struct NodeStory {
  std::vector<Point> progress;  // percent of the bytes
  double bytes = 0;             // the last ones
  double appeared = 0;          // 0: was there
  double silent_since = -1;
  double silent_seconds = 0;
  unsigned restarts = 0;
};

// Rates between two looks at the whole push, per second.
struct Moment {
  double seconds = 0;
  double stream_bits = 0;   // that the nodes handle
  double goodput_bits = 0;  // content that arrived, on a node on average
  double repairs = 0;       // sent
  double polls = 0;
};

struct Trouble {
  double seconds = 0;
  std::string text;
};

class PushStory {
 public:
  // The last push among the events, one JSON object per line; other lines are passed over. Throws
  // std::runtime_error when no push has ended in them.
  explicit PushStory(std::istream& events);
  PushStory(const PushStory&) = delete;
  PushStory& operator=(const PushStory&) = delete;

  const nlohmann::json& requested() const { return requested_; }
  const nlohmann::json& start() const { return start_; }
  const nlohmann::json& end() const { return end_; }
  double began() const { return began_; }  // seconds since the epoch, 0: not known
  double seconds() const { return number(end_, "seconds"); }
  // Of the summary: those with trouble first, then the slowest.
  const std::vector<const nlohmann::json*>& nodes() const { return nodes_; }
  const NodeStory& of(const nlohmann::json& node) const;
  const std::vector<Moment>& moments() const { return moments_; }
  // In the order of time; what happened to several nodes at once is one.
  std::vector<Trouble> troubles() const;

  // Why a node was slow or is not complete, as far as the events tell; empty otherwise.
  std::string why(const nlohmann::json& node) const;

 private:
  void add(const nlohmann::json& event);
  void begin(const nlohmann::json& event, double time);
  void add_of_node(const std::string& node, const std::string& name, const nlohmann::json& event,
                   double seconds);
  void add_moment(const nlohmann::json& event);
  void trouble(double seconds, const std::string& node, const std::string& what);

  nlohmann::json requested_ = nlohmann::json::object(), start_ = nlohmann::json::object(),
                 end_ = nlohmann::json::object();
  double began_ = 0;
  bool ended_ = false;
  std::map<std::string, NodeStory> stories_;
  std::vector<Moment> moments_;
  // Counted up to the last moment.
  double repairs_sent_ = 0, polls_sent_ = 0, bytes_ = 0;
  struct Happened {
    double seconds = 0;
    std::string node, what;
  };
  std::vector<Happened> happened_;
  std::vector<const nlohmann::json*> nodes_;
};

}  // namespace pkgdist::lead_program
