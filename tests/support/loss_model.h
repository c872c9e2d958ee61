// What a network can do to a datagram, as named, seeded, replayable objects.
//
// A model decides the fate of one datagram after the other; a path has one model, and Path composes
// several. The same start value gives the same decisions.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <random>
#include <utility>
#include <vector>

namespace pkgdist::test {

struct Fate {
  uint64_t at_ns = 0;  // when the datagram sets out
  size_t bytes = 0;    // of UDP payload
  bool dropped = false;
  int copies = 1;               // more than one: duplicated
  uint64_t extra_delay_ns = 0;  // overtaken by what is sent later
  uint64_t copy_delay_ns = 0;   // of each copy behind the one before it
};

class LossModel {
 public:
  virtual ~LossModel() = default;
  virtual void decide(Fate& fate) = 0;
};

// Drops each datagram with a probability.
class RandomLoss : public LossModel {
 public:
  RandomLoss(double rate, uint64_t seed) : rate_(rate), random_(seed) {}
  void decide(Fate& fate) override { fate.dropped |= uniform_(random_) < rate_; }

 private:
  double rate_;
  std::mt19937_64 random_;
  std::uniform_real_distribution<double> uniform_{0, 1};
};

// Drops runs: enters a bad state with a probability and stays in it for some datagrams.
class BurstLoss : public LossModel {
 public:
  BurstLoss(double rate, int length, uint64_t seed) : rate_(rate), length_(length), random_(seed) {}
  void decide(Fate& fate) override {
    if (left_ == 0 && uniform_(random_) < rate_) left_ = length_;
    if (left_ == 0) return;
    --left_;
    fate.dropped = true;
  }

 private:
  double rate_;
  int length_;
  int left_ = 0;
  std::mt19937_64 random_;
  std::uniform_real_distribution<double> uniform_{0, 1};
};

// Drops all datagrams of a batch or none of them; its owner numbers the batches, from 1 on.
class BatchLoss : public LossModel {
 public:
  BatchLoss(double rate, std::shared_ptr<const uint64_t> batch, uint64_t seed)
      : rate_(rate), batch_(std::move(batch)), random_(seed) {}
  void decide(Fate& fate) override {
    if (decided_ != *batch_) lost_ = uniform_(random_) < rate_;
    decided_ = *batch_;
    fate.dropped |= lost_;
  }

 private:
  double rate_;
  std::shared_ptr<const uint64_t> batch_;
  uint64_t decided_ = 0;
  bool lost_ = false;
  std::mt19937_64 random_;
  std::uniform_real_distribution<double> uniform_{0, 1};
};

// Drops the datagrams numbered (from 0) first .. first+count-1.
class DropRange : public LossModel {
 public:
  DropRange(uint64_t first, uint64_t count) : first_(first), count_(count) {}
  void decide(Fate& fate) override {
    const uint64_t number = seen_++;
    fate.dropped |= number >= first_ && number - first_ < count_;
  }

 private:
  uint64_t first_;
  uint64_t count_;
  uint64_t seen_ = 0;
};

class RandomDuplicate : public LossModel {
 public:
  RandomDuplicate(double rate, uint64_t seed) : rate_(rate), random_(seed) {}
  void decide(Fate& fate) override {
    if (uniform_(random_) < rate_) ++fate.copies;
  }

 private:
  double rate_;
  std::mt19937_64 random_;
  std::uniform_real_distribution<double> uniform_{0, 1};
};

// Delays some datagrams so that later ones overtake them.
class RandomReorder : public LossModel {
 public:
  RandomReorder(double rate, uint64_t delay_ns, uint64_t seed)
      : rate_(rate), delay_ns_(delay_ns), random_(seed) {}
  void decide(Fate& fate) override {
    if (uniform_(random_) < rate_) fate.extra_delay_ns += delay_ns_;
  }

 private:
  double rate_;
  uint64_t delay_ns_;
  std::mt19937_64 random_;
  std::uniform_real_distribution<double> uniform_{0, 1};
};

// A delay of each datagram between none and a most, as on a path of many hops.
class Jitter : public LossModel {
 public:
  Jitter(uint64_t most_ns, uint64_t seed) : delay_(0, most_ns), random_(seed) {}
  void decide(Fate& fate) override { fate.extra_delay_ns += delay_(random_); }

 private:
  std::uniform_int_distribution<uint64_t> delay_;
  std::mt19937_64 random_;
};

// Copies come later than what they are copies of, by up to so much.
class LateCopies : public LossModel {
 public:
  LateCopies(uint64_t most_ns, uint64_t seed) : delay_(0, most_ns), random_(seed) {}
  void decide(Fate& fate) override {
    if (fate.copies > 1) fate.copy_delay_ns += delay_(random_);
  }

 private:
  std::uniform_int_distribution<uint64_t> delay_;
  std::mt19937_64 random_;
};

// Drops everything while its owner says so.
class Outage : public LossModel {
 public:
  explicit Outage(std::shared_ptr<const bool> down) : down_(std::move(down)) {}
  void decide(Fate& fate) override { fate.dropped |= *down_; }

 private:
  std::shared_ptr<const bool> down_;
};

// A way that takes its time.
class Delay : public LossModel {
 public:
  explicit Delay(uint64_t delay_ns) : delay_ns_(delay_ns) {}
  void decide(Fate& fate) override { fate.extra_delay_ns += delay_ns_; }

 private:
  uint64_t delay_ns_;
};

// A queue that holds so many bytes and is served at a rate, in the order of arrival. What finds no
// room is dropped. What its bytes are, in store and in service, is for those who derive from it.
class FiniteQueue : public LossModel {
 public:
  static constexpr uint64_t kUnlimited = UINT64_MAX;

  FiniteQueue(uint64_t capacity, double bytes_per_second)
      : capacity_(capacity), ns_per_byte_(1e9 / bytes_per_second) {}

  void decide(Fate& fate) override {
    if (fate.dropped) return;
    const uint64_t arrival = fate.at_ns + fate.extra_delay_ns;
    while (!queue_.empty() && queue_.front().done <= arrival) {
      used_ -= queue_.front().stored;
      queue_.pop_front();
    }
    const uint64_t stored = stored_bytes(fate.bytes);
    if (stored > capacity_ - used_) {
      fate.dropped = true;
      ++dropped_;
      return;
    }
    const double begin = std::max(served_until_, static_cast<double>(arrival));
    served_until_ = begin + static_cast<double>(served_bytes(fate.bytes)) * ns_per_byte_;
    const auto done = static_cast<uint64_t>(served_until_);
    queue_.push_back({done, stored});
    used_ += stored;
    most_used_ = std::max(most_used_, used_);
    fate.extra_delay_ns += done - arrival;
  }

  uint64_t dropped() const { return dropped_; }
  uint64_t most_used() const { return most_used_; }

 private:
  struct Entry {
    uint64_t done;
    uint64_t stored;
  };
  virtual uint64_t stored_bytes(size_t payload) const = 0;
  virtual uint64_t served_bytes(size_t payload) const = 0;

  uint64_t capacity_;
  double ns_per_byte_;
  double served_until_ = 0;
  uint64_t used_ = 0;
  uint64_t most_used_ = 0;
  uint64_t dropped_ = 0;
  std::deque<Entry> queue_;
};

// A node's socket, and the node that handles so many bytes of payload per second. The system
// charges a datagram with the memory that it takes, far more than its bytes.
class NodeSocket : public FiniteQueue {
 public:
  using FiniteQueue::FiniteQueue;
  static constexpr uint64_t kUsualSize = 212'992;
  // As measured on Linux 6.
  static constexpr uint64_t kFullCharge = 2304;
  static constexpr uint64_t kMediumCharge = 1280;
  static constexpr uint64_t kSmallCharge = 832;

 private:
  static constexpr size_t kSmall = 150;  // bytes of payload
  static constexpr size_t kMedium = 500;
  uint64_t stored_bytes(size_t payload) const override {
    return payload > kMedium ? kFullCharge : payload > kSmall ? kMediumCharge : kSmallCharge;
  }
  uint64_t served_bytes(size_t payload) const override { return payload; }
};

// A port of a switch, or of a host: frames in a buffer, which leave at the link's rate.
class LinkPort : public FiniteQueue {
 public:
  LinkPort(uint64_t buffer_bytes, double bits_per_second)
      : FiniteQueue(buffer_bytes, bits_per_second / 8) {}
  // A datagram's bytes on the link.
  static constexpr uint64_t wire_bytes(size_t payload) { return payload + kHeaders + kGap; }

 private:
  static constexpr size_t kHeaders = 28 + 18;  // IPv4 and UDP, Ethernet with its check sum
  static constexpr size_t kGap = 20;           // preamble and pause between frames
  uint64_t stored_bytes(size_t payload) const override { return payload + kHeaders; }
  uint64_t served_bytes(size_t payload) const override { return wire_bytes(payload); }
};

// Several models one after the other.
class Path {
 public:
  template <class Model, class... Args>
  Path& with(Args&&... args) {
    models_.push_back(std::make_shared<Model>(std::forward<Args>(args)...));
    return *this;
  }
  // The model itself, for those who ask it later.
  template <class Model, class... Args>
  std::shared_ptr<Model> add(Args&&... args) {
    auto model = std::make_shared<Model>(std::forward<Args>(args)...);
    models_.push_back(model);
    return model;
  }
  void clear() { models_.clear(); }
  Fate next(uint64_t at_ns = 0, size_t bytes = 0) {
    Fate fate;
    fate.at_ns = at_ns;
    fate.bytes = bytes;
    for (const auto& model : models_) model->decide(fate);
    return fate;
  }

 private:
  std::vector<std::shared_ptr<LossModel>> models_;
};

}  // namespace pkgdist::test
