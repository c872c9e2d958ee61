// Signatures: ours are refused for any change, and minisign and this library agree in both
// directions.
#include "minisign.h"

#include <fcntl.h>

#include "file_io.h"
#include "release_signer.h"
#include "release_support.h"
#include "signatures.h"

using namespace release_test;
using namespace pkgdist::release;

namespace {

class Minisign : public testing::Test {
 protected:
  std::optional<Reason> verify(const std::string& text, const std::string& signature,
                               const std::vector<PublicKey>& keys) const {
    return refusal([&] { (void)verify_signature(text, signature, keys, first_line(text)); });
  }
  std::optional<Reason> verify(const std::string& text, const std::string& signature) const {
    return verify(text, signature, {signer_.public_key()});
  }

  const ReleaseSigner signer_{1};
  const std::string text_ = format(sample());
  const std::string signature_ = signer_.sign(text_);
};

TEST_F(Minisign, names_the_key_that_signed) {
  const ReleaseSigner other(2);
  const std::vector<PublicKey> keys = {other.public_key(), signer_.public_key()};
  const PublicKey& key = verify_signature(text_, signature_, keys, first_line(text_));
  EXPECT_EQ(signer_.public_key().id, key.id);
  EXPECT_EQ("0101010101010101", key_text(key.id));
}

TEST_F(Minisign, every_flipped_bit_of_the_manifest_is_found) {
  ASSERT_EQ(std::nullopt, verify(text_, signature_));
  for (size_t at = 0; at < text_.size(); ++at) {
    for (int bit = 0; bit < 8; ++bit) {
      std::string flipped = text_;
      flipped[at] = static_cast<char>(flipped[at] ^ (1 << bit));
      EXPECT_EQ(Reason::kBadSignature, verify(flipped, signature_)) << at;
    }
  }
}

TEST_F(Minisign, every_flipped_bit_of_the_signature_file_is_found) {
  each_flipped_bit(signature_, [&](const std::string& flipped, const std::string& where) {
    EXPECT_NE(std::nullopt, verify(text_, flipped)) << where;
  });
}

TEST_F(Minisign, a_signature_with_more_or_less_text_is_refused) {
  for (size_t length = 0; length < signature_.size(); ++length)
    EXPECT_EQ(Reason::kSignature, verify(text_, signature_.substr(0, length))) << length;
  EXPECT_EQ(Reason::kSignature, verify(text_, signature_ + "\n"));
  EXPECT_EQ(Reason::kSignature, verify(text_, signature_ + signature_));
  EXPECT_EQ(Reason::kSignature, verify(text_, std::string(kMaxSignatureFileBytes + 1, 'x')));
}

TEST_F(Minisign, another_key_is_refused) {
  const ReleaseSigner other(2);
  EXPECT_EQ(Reason::kUnknownKey, verify(text_, other.sign(text_)));
  // It claims to be the trusted one.
  const ReleaseSigner impostor(1);
  EXPECT_EQ(Reason::kBadSignature, verify(text_, impostor.sign(text_)));
}

TEST_F(Minisign, a_signature_with_another_label_is_refused) {
  EXPECT_EQ(Reason::kRelabelled,
            verify(text_, signer_.sign(text_, "pkgdist-release 1 name=base version=8 leaf=65536")));
  std::string exchanged = signature_;
  exchanged.replace(exchanged.find("version=7"), 9, "version=8");
  EXPECT_EQ(Reason::kBadComment, verify(text_, exchanged));
}

TEST_F(Minisign, a_signature_over_the_file_itself_is_refused) {
  EXPECT_EQ(Reason::kAlgorithm, verify(text_, signer_.sign(text_, first_line(text_), "Ed")));
  // One over a hash, told to be over a file that is this hash.
  const auto hash = blake2b512(bytes_of(text_));
  const std::string as_file(hash.begin(), hash.end());
  EXPECT_EQ(Reason::kAlgorithm, verify(as_file, signer_.sign(text_, "x", "Ed")));
}

TEST_F(Minisign, key_files_are_read_and_damaged_ones_refused) {
  EXPECT_EQ(signer_.public_key().key, parse_public_key(signer_.public_key_file()).key);
  for (const std::string text : {"", "x", "untrusted comment: x\n", "RWQ=", "RUQ="})
    EXPECT_EQ(Reason::kKey, refusal([&] { (void)parse_public_key(text); })) << text;
}

TEST_F(Minisign, a_directory_of_keys_is_read) {
  const TempTree keys;
  EXPECT_EQ(Reason::kKey, refusal([&] { (void)read_public_keys(keys.path()); }));
  keys.write("one.pub", signer_.public_key_file());
  keys.write("two.pub", ReleaseSigner(2).public_key_file());
  keys.write("two.key", "secret");
  EXPECT_EQ(2u, read_public_keys(keys.path()).size());
  EXPECT_EQ(1u, read_public_keys(keys / "one.pub").size());
  keys.write("three.pub", "nothing");
  EXPECT_EQ(Reason::kKey, refusal([&] { (void)read_public_keys(keys.path()); }));
}

// With the program itself.
class MinisignProgram : public Minisign {
 protected:
  void SetUp() override {
    if (std::system("minisign -v >/dev/null 2>&1") != 0)
      GTEST_SKIP() << "minisign is not installed";
  }
  int run(const std::string& arguments) const {
    return std::system(
        ("cd " + tree_.path() + " && minisign " + arguments + " >/dev/null 2>&1 </dev/null")
            .c_str());
  }
  const TempTree tree_;
};

TEST_F(MinisignProgram, what_it_signs_is_accepted_here) {
  tree_.write("manifest", text_);
  ASSERT_EQ(0, run("-G -W -p key.pub -s key.sec"));
  ASSERT_EQ(0, run("-S -s key.sec -m manifest -t \"$(head -n 1 manifest)\""));
  const auto keys = read_public_keys(tree_ / "key.pub");
  EXPECT_EQ(std::nullopt, verify(text_, tree_.read("manifest.minisig"), keys));
  // With its default comment, which says nothing of the release.
  ASSERT_EQ(0, run("-S -s key.sec -m manifest"));
  EXPECT_EQ(Reason::kRelabelled, verify(text_, tree_.read("manifest.minisig"), keys));
  ASSERT_EQ(0, run("-S -l -s key.sec -m manifest -t \"$(head -n 1 manifest)\""));
  EXPECT_EQ(Reason::kAlgorithm, verify(text_, tree_.read("manifest.minisig"), keys));
}

TEST_F(MinisignProgram, two_people_sign_one_manifest_into_two_files) {
  tree_.write(kManifestPath, text_);
  for (const std::string name : {"one", "two"})
    ASSERT_EQ(0, run("-G -W -p " + name + ".pub -s " + name + ".key"));
  const std::string sign = " -m .pkgdist/manifest -t \"$(head -n 1 .pkgdist/manifest)\"";
  ASSERT_EQ(0, run("-S -s one.key" + sign));
  ASSERT_EQ(0, run("-S -s two.key -x .pkgdist/manifest.minisig.2" + sign));
  ASSERT_EQ(0, run("-V -p two.pub -m .pkgdist/manifest -x .pkgdist/manifest.minisig.2"));
  const auto keys = read_public_keys(tree_.path());
  const Fd at(open(tree_.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  EXPECT_EQ(2u,
            verify_signatures(text_, read_signatures(at.get()), keys, 2, first_line(text_)).size());
}

TEST_F(MinisignProgram, it_accepts_what_is_accepted_here_and_refuses_what_is_refused) {
  tree_.write("manifest", text_);
  tree_.write("manifest.minisig", signature_);
  tree_.write("key.pub", signer_.public_key_file());
  EXPECT_EQ(0, run("-V -p key.pub -m manifest"));
  tree_.write("manifest", text_ + "x");
  EXPECT_NE(0, run("-V -p key.pub -m manifest"));
  EXPECT_EQ(Reason::kBadSignature, verify(text_ + "x", signature_));
}

TEST_F(MinisignProgram, it_accepts_what_is_signed_here_with_its_own_key) {
  ASSERT_EQ(0, run("-G -W -p key.pub -s key.sec"));
  const SecretKey key = read_secret_key(tree_ / "key.sec");
  tree_.write("manifest", text_);
  tree_.write("manifest.minisig", sign(text_, key, "a comment"));
  EXPECT_EQ(0, run("-V -p key.pub -m manifest"));
  const auto keys = read_public_keys(tree_ / "key.pub");
  EXPECT_EQ(keys[0].id, key.id);
  // It is no signature of a release.
  EXPECT_EQ(Reason::kRelabelled, verify(text_, tree_.read("manifest.minisig"), keys));
  EXPECT_EQ(std::nullopt, verify(text_, sign(text_, key, first_line(text_)), keys));
}

TEST_F(MinisignProgram, secret_keys_that_cannot_be_used_are_refused) {
  ASSERT_EQ(0, run("-G -W -p key.pub -s key.sec"));
  const auto refused = [&](const std::string& name) {
    return refusal([&] { (void)read_secret_key(tree_ / name); });
  };
  const std::string text = tree_.read("key.sec");
  for (const size_t at : {text.find('\n') + 1, text.size() - 70}) {
    std::string damaged = text;
    damaged[at] = damaged[at] == 'A' ? 'B' : 'A';
    tree_.write("damaged", damaged);
    ASSERT_EQ(0, chmod((tree_ / "damaged").c_str(), 0600));
    EXPECT_EQ(Reason::kKey, refused("damaged")) << at;
  }
  EXPECT_EQ(Reason::kKey, refused("key.pub"));
  ASSERT_EQ(0, chmod((tree_ / "key.sec").c_str(), 0604));
  EXPECT_EQ(Reason::kKey, refused("key.sec"));
}

}  // namespace
