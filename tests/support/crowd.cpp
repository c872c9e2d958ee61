#include "crowd.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace pkgdist::test {

// --- Content ---

namespace {

constexpr size_t kPatternBytes = 64 * 1024;

}  // namespace

class FormulaStore::Reader : public lead::Content {
 public:
  Reader(const FormulaStore& store, uint32_t file) : store_(store), file_(file) {}
  int read(uint64_t offset, std::span<uint8_t> out) override {
    if (offset + out.size() > store_.size_) return EIO;
    store_.fill(file_, offset, out);
    return 0;
  }

 private:
  const FormulaStore& store_;
  const uint32_t file_;
};

FormulaStore::FormulaStore(uint32_t files, uint64_t size)
    : files_(files), size_(size), pattern_(2 * kPatternBytes) {
  std::mt19937_64 random(1);
  for (size_t i = 0; i < kPatternBytes; ++i)
    pattern_[i] = pattern_[i + kPatternBytes] = static_cast<uint8_t>(random());
}

// A file is a row of blocks, each of them the pattern begun at a place of its own.
void FormulaStore::fill(uint32_t file, uint64_t offset, std::span<uint8_t> out) const {
  for (size_t done = 0; done < out.size();) {
    const uint64_t block = (offset + done) / kPatternBytes;
    const uint64_t inside = (offset + done) % kPatternBytes;
    const size_t length = std::min<size_t>(out.size() - done, kPatternBytes - inside);
    const uint64_t from = (file * uint64_t{7919} + block * 104'729 + inside) % kPatternBytes;
    std::memcpy(out.data() + done, pattern_.data() + from, length);
    done += length;
  }
}

uint32_t FormulaStore::number_of(const std::string& name) const {
  if (name.size() < 2 || name[0] != 'f') return UINT32_MAX;
  const unsigned long number = std::strtoul(name.c_str() + 1, nullptr, 10);
  return number < files_ ? static_cast<uint32_t>(number) : UINT32_MAX;
}

int FormulaStore::open(uint32_t, const std::string& name, lead::FileAttributes& attributes,
                       std::unique_ptr<lead::Content>& content) {
  const uint32_t file = number_of(name);
  if (file == UINT32_MAX) return ENOENT;
  attributes = {size_, 0644, 1'600'000'000, false};
  content = std::make_unique<Reader>(*this, file);
  return 0;
}

bool FormulaStore::matches(const std::string& name, uint64_t offset,
                           std::span<const uint8_t> bytes) const {
  std::array<uint8_t, 2048> expected{};
  const uint32_t file = number_of(name);
  if (file == UINT32_MAX || bytes.size() > expected.size()) return false;
  fill(file, offset, {expected.data(), bytes.size()});
  return std::memcmp(expected.data(), bytes.data(), bytes.size()) == 0;
}

lead::PushRequest FormulaStore::push_all() const {
  lead::PushRequest request;
  for (uint32_t i = 0; i < files_; ++i) request.files.push_back({"f" + std::to_string(i), size_});
  return request;
}

// --- Loss ---

void CrowdLoss::set(size_t receiver, double rate, uint64_t start) {
  states_[receiver].rate = rate;
  states_[receiver].random.seed(start);
  until_[receiver] = draw(receiver);
}

uint64_t CrowdLoss::draw(size_t receiver) {
  State& state = states_[receiver];
  if (state.rate <= 0) return kNever;
  return 1 + std::geometric_distribution<uint64_t>(state.rate)(state.random);
}

// --- The crowd ---

Crowd::Crowd(const lead::Settings& settings, FormulaStore& store, uint32_t nodes, LeadWatch* watch,
             const NodeTimeouts& timeouts)
    : nodes_(nodes),
      watch_(watch != nullptr ? watch : &no_watch_),
      down_loss_(nodes),
      up_loss_(nodes),
      control_(nodes),
      files_(
          nodes, kFirstAddress, timeouts,
          [this](uint32_t node, Bytes bytes) {
            from_node(node, lead::Channel::kData, std::move(bytes));
          },
          [&store](const std::string& name, uint64_t offset, std::span<const uint8_t> bytes) {
            return store.matches(name, offset, bytes);
          }),
      got_(nodes),
      next_scan_(now_),
      file_scan_period_(timeouts.scan),
      next_file_scan_(now_) {
  watch_->begin();
  lead::DatagramSink& sink = *this;
  lead::Events& events = *this;
  lead_ = std::make_unique<lead::Lead>(settings, sink, store, events);
  watch_->end();
}

lead::Settings Crowd::default_settings(uint64_t rate_bits) {
  lead::Settings settings;
  settings.address = kFirstAddress - 1;
  settings.pid = 1;
  settings.seed = 1;
  settings.rate_bits = rate_bits;
  return settings;
}

void Crowd::set_loss(uint32_t node, double down, double up, uint64_t start) {
  down_loss_.set(node, down, 2 * start);
  up_loss_.set(node, up, 2 * start + 1);
}

void Crowd::start_node(uint32_t node) {
  const ModelNode::Identity identity{kFirstAddress + node, 100 + node, (node + 1) << 8, 7, {}};
  control_[node] =
      std::make_unique<ModelNode>(identity, disk_, [this, node](ModelNode::To, Bytes bytes) {
        from_node(node, lead::Channel::kControl, std::move(bytes));
      });
  control_[node]->divert_file_lists(
      [this, node](std::span<const uint8_t> bytes) { files_.on_list(node, bytes, now_); });
}

void Crowd::start_all() {
  for (uint32_t i = 0; i < nodes_; ++i) start_node(i);
}

const char* Crowd::start_push(lead::PushRequest request) {
  watch_->begin();
  const lead::PushRequest copy = request;  // its memory is the lead's
  const char* problem = lead_->start_push(copy, now_);
  watch_->end();
  return problem;
}

void Crowd::send(lead::Channel channel, uint32_t destination, size_t length) {
  watch_->pause();
  next_->at = now_ + latency_;
  next_->channel = channel;
  next_->destination = destination;
  next_->length = length;
  ++traffic_.datagrams_out;
  traffic_.bytes_out += length;
  downs_.push_back(std::move(next_));
  if (spare_.empty()) {
    next_ = std::make_unique<Down>();
  } else {
    next_ = std::move(spare_.back());
    spare_.pop_back();
  }
  watch_->resume();
}

void Crowd::from_node(uint32_t node, lead::Channel channel, Bytes bytes) {
  if (!up_loss_.next(node)) ups_.push_back({now_ + latency_, node, channel, std::move(bytes)});
}

void Crowd::deliver(const Down& down) {
  const std::span<const uint8_t> bytes(down.bytes.data(), down.length);
  if (down.channel == lead::Channel::kData) {
    for (uint32_t i = 0; i < nodes_; ++i)
      got_[i] = !down_loss_.next(i) && control_[i] != nullptr && control_[i]->lead() != 0;
    return files_.on_data(bytes, got_, now_);
  }
  for (uint32_t i = 0; i < nodes_; ++i) {
    const bool unicast = down.destination != lead::kGroup;
    if (unicast && down.destination != kFirstAddress + i) continue;
    if (!down_loss_.next(i) && control_[i]) control_[i]->on_control(bytes, now_, unicast);
  }
}

// Nodes look at their clocks one after the other, evenly spread over the period and never sooner.
void Crowd::run_nodes() {
  for (; next_scan_ <= now_; next_scan_ += (kScanPeriod + nodes_ - 1) / nodes_)
    if (const auto& node = control_[scans_++ % nodes_]) node->run(now_);
  scan_files();
}

void Crowd::scan_files() {
  for (; next_file_scan_ <= now_; next_file_scan_ += (file_scan_period_ + nodes_ - 1) / nodes_) {
    const auto node = static_cast<uint32_t>(file_scans_++ % nodes_);
    if (control_[node]) files_.scan(node, now_);
  }
}

void Crowd::run_lead() {
  watch_->begin();
  while (!ups_.empty() && ups_.front().at <= now_) {
    const Up& up = ups_.front();
    lead_->on_datagram(up.channel, up.bytes, kFirstAddress + up.node, now_);
    ++traffic_.datagrams_in;
    watch_->pause();
    ups_.pop_front();
    watch_->resume();
  }
  lead_->run(now_);
  const uint64_t deadline = lead_->next_deadline(now_);
  watch_->end();
  // A lead that is due without getting on would stop the clock.
  if (deadline <= now_) ++now_;
}

void Crowd::step(uint64_t end) {
  const uint64_t due = lead_->next_deadline(now_);
  uint64_t next = std::min({end, due, next_scan_, next_file_scan_});
  if (!downs_.empty()) next = std::min(next, downs_.front()->at);
  if (!ups_.empty()) next = std::min(next, ups_.front().at);
  now_ = std::max(next, now_);
  while (!downs_.empty() && downs_.front()->at <= now_) {
    deliver(*downs_.front());
    spare_.push_back(std::move(downs_.front()));
    downs_.pop_front();
  }
  run_nodes();
  if (due <= now_ || (!ups_.empty() && ups_.front().at <= now_)) run_lead();
}

}  // namespace pkgdist::test
