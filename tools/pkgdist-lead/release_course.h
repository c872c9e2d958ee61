// Does what a ReleasePush wants, over a link, and shows it.
#pragma once

#include <string>
#include <vector>

#include "lead_options.h"
#include "release_link.h"
#include "release_push.h"
#include "release_source.h"
#include "release_view.h"

namespace pkgdist::lead_program {

class ReleaseCourse {
 public:
  // `source`: of what is pushed; null when the nodes have the release already. Everything must
  // outlive the course.
  ReleaseCourse(const LeadOptions& options, const ReleaseSource* source, ReleaseLink& link,
                ReleasePush& push, ReleaseView& view);
  ~ReleaseCourse();
  ReleaseCourse(const ReleaseCourse&) = delete;
  ReleaseCourse& operator=(const ReleaseCourse&) = delete;

  // To its end. False when a signal came first.
  bool run();
  uint64_t bytes_sent() const { return bytes_sent_; }

 private:
  bool take(const ReleasePush::Step& step);
  bool push_description(const ReleasePush::Step& step);
  bool push_files(const ReleasePush::Step& step);
  PushEnd push(lead::PushRequest request);
  lead::PushRequest request(const std::vector<uint32_t>& nodes) const;
  void tell_order(const ReleasePush::Step& step);

  const LeadOptions& options_;
  const ReleaseSource* const source_;
  ReleaseLink& link_;
  ReleasePush& push_;
  ReleaseView& view_;
  ReleasePush::Phase told_ = ReleasePush::Phase::kEnded;  // the phase that was told last
  bool changed_ = false;                                  // a state has come
  uint64_t bytes_sent_ = 0;
};

}  // namespace pkgdist::lead_program
