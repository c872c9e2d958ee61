// A node that wants releases signed by two of three keys, and releases that several have signed.
#pragma once

#include <fcntl.h>

#include <memory>
#include <string>
#include <vector>

#include "file_io.h"
#include "installer_fixture.h"

namespace release_test {

inline const std::string kOne = "0101010101010101", kTwo = "0202020202020202",
                         kThree = "0303030303030303";

// Two of three, unless a test says otherwise.
class SeveralKeys : public Install {
 protected:
  SeveralKeys() {
    keys_ = {signer_.public_key(), two_.public_key(), three_.public_key()};
    threshold_ = 2;
  }
  using Signers = std::vector<const ReleaseSigner*>;
  // The first of them in the first file, and so on.
  static void sign(Built& built, const Signers& signers) {
    built.further.clear();
    built.signature = signers.front()->sign(built.text);
    for (size_t i = 1; i < signers.size(); ++i)
      built.further[signature_paths().at(i)] = signers[i]->sign(built.text);
  }
  std::unique_ptr<Built> make(uint64_t version, const Signers& signers, uint64_t floor = 0) const {
    auto built = std::make_unique<Built>(
        version, Files{{"a/one", std::to_string(version)}, {"same", kSame}}, signer_, floor);
    sign(*built, signers);
    return built;
  }
  // The names of the signature files in a directory of the place, without what they begin with.
  std::vector<std::string> kept_in(const std::string& directory) const {
    std::vector<std::string> endings;
    for (size_t i = 0; i < signature_paths().size(); ++i)
      if (std::filesystem::exists(place_ / (directory + "/" + signature_paths()[i])))
        endings.push_back(i == 0 ? "" : std::to_string(i + 1));
    return endings;
  }
  // The keys whose signatures are kept with the current release.
  std::vector<std::string> signers_of_current() const {
    const std::string directory = place_ / node_->link("current");
    const Fd at(open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    const std::string text = place_.read("current/.pkgdist/manifest");
    return signing_keys(
        verify_signatures(text, read_signatures(at.get()), keys_, 2, first_line(text)));
  }

  const ReleaseSigner two_{2}, three_{3}, stranger_{9};
  const Signers first_two_{&signer_, &two_}, last_two_{&two_, &three_};
};

}  // namespace release_test
