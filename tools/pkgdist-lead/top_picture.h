// What the full-screen view of a push shows, as lines of text with styles: everything but the
// terminal.
//
//   the whole push: nodes done, rate, repairs, time left; a bar
//   one cell for each node, by progress      | the slowest ten, with the reason
//   or by repairs; several nodes a cell, the | what arrives on a node, last minute
//   worst of them shown, when there are more | repairs sent, last minute
//   the node that is chosen, or what happened last
//   keys
#pragma once

#include <string>
#include <vector>

#include "push_bars.h"
#include "top_history.h"

namespace pkgdist::lead_program {

// By what it means; the terminal has colours for it.
enum class Style : uint8_t {
  kPlain,
  kSoft,
  kTitle,
  kChosen,
  kBad,
  kDone,
  kLevel0,  // little has arrived, or many repairs
  kLevel1,
  kLevel2,
  kLevel3,  // nearly everything, or none
};

struct Span {
  std::string text;
  Style style = Style::kPlain;
};
using Line = std::vector<Span>;

struct TopSettings {
  enum class Cells : uint8_t { kProgress, kRepairs };
  enum class Order : uint8_t { kAddress, kProgress, kRepairs };
  enum class Filter : uint8_t { kAll, kUnfinished, kTroubled };

  Cells cells = Cells::kProgress;
  Order order = Order::kAddress;
  Filter filter = Filter::kAll;
  std::string prefix;     // of addresses; all when empty
  uint32_t chosen = 0;    // address of a node, 0: none
  std::string last;       // what happened last
  std::string question;   // stands in place of the keys
  bool can_stop = false;  // there is a way to stop nodes
};

// The nodes that pass the filter, in their order.
std::vector<const NodeState*> selected_nodes(const PushState& state, const TopHistory& history,
                                             const TopSettings& settings);

// No more lines than the screen has rows, none with more columns than it has.
std::vector<Line> top_picture(const PushState& state, const TopHistory& history,
                              const TopSettings& settings, const Screen& screen);

// How many cells stand in one row of such a screen.
size_t cells_in_row(const Screen& screen);

}  // namespace pkgdist::lead_program
