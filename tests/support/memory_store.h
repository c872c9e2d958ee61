// Content of a lead in memory, with files that fail on demand.
#pragma once

#include <cerrno>
#include <map>

#include "model_node.h"
#include "pkgdist_lead/content.h"

namespace pkgdist::test {

class MemoryStore : public lead::ContentStore {
 public:
  void add(const std::string& name, Bytes content, uint32_t mode = 0644,
           uint32_t mtime = 1'600'000'000, uint32_t location = 1) {
    files_[disk_key(location, name)] = {std::move(content), mode, mtime, false};
  }
  // A link's time does not travel: it is 0 wherever links are compared.
  void add_link(const std::string& name, const std::string& target, uint32_t location = 1) {
    files_[disk_key(location, name)] = {Bytes(target.begin(), target.end()), 0777, 0, true};
  }
  void remove(const std::string& name, uint32_t location = 1) {
    files_.erase(disk_key(location, name));
  }
  // Opening the file fails with this error.
  void break_open(const std::string& name, int error, uint32_t location = 1) {
    open_errors_[disk_key(location, name)] = error;
  }
  // Reading the file fails from this offset on.
  void break_read(const std::string& name, uint64_t offset, uint32_t location = 1) {
    broken_from_[disk_key(location, name)] = offset;
  }
  // Everything can be opened and read again.
  void mend() {
    open_errors_.clear();
    broken_from_.clear();
  }
  const std::map<std::string, StoredFile>& files() const { return files_; }
  size_t opened() const { return opened_; }

  int open(uint32_t location, const std::string& name, lead::FileAttributes& attributes,
           std::unique_ptr<lead::Content>& content) override {
    const std::string key = disk_key(location, name);
    if (const auto error = open_errors_.find(key); error != open_errors_.end())
      return error->second;
    const auto found = files_.find(key);
    if (found == files_.end()) return ENOENT;
    const StoredFile& file = found->second;
    attributes = {file.content.size(), file.mode, file.mtime, file.symlink};
    const auto broken = broken_from_.find(key);
    content = std::make_unique<Reader>(file.content,
                                       broken != broken_from_.end() ? broken->second : UINT64_MAX);
    ++opened_;
    return 0;
  }

 private:
  class Reader : public lead::Content {
   public:
    // A copy: what is open stays as it was when the file is replaced.
    Reader(Bytes bytes, uint64_t broken_from)
        : bytes_(std::move(bytes)), broken_from_(broken_from) {}
    int read(uint64_t offset, std::span<uint8_t> out) override {
      if (offset >= broken_from_ || offset + out.size() > bytes_.size()) return EIO;
      std::copy_n(bytes_.begin() + static_cast<ptrdiff_t>(offset), out.size(), out.begin());
      return 0;
    }

   private:
    const Bytes bytes_;
    uint64_t broken_from_;
  };

  std::map<std::string, StoredFile> files_;
  std::map<std::string, int> open_errors_;
  std::map<std::string, uint64_t> broken_from_;
  size_t opened_ = 0;
};

}  // namespace pkgdist::test
