// How many keys have signed: which files count, and what is said of those that do not.
#include "signatures.h"

#include <fcntl.h>

#include <algorithm>

#include "file_io.h"
#include "release_signer.h"
#include "release_support.h"

using namespace release_test;
using namespace pkgdist::release;

namespace {

class Signatures : public testing::Test {
 protected:
  // The first of these texts in the first file, and so on.
  std::vector<Signer> verify(const std::vector<std::string>& texts, size_t threshold,
                             const std::vector<PublicKey>& keys) const {
    std::vector<SignatureFile> files;
    files.reserve(texts.size());
    for (const std::string& text : texts)
      files.push_back({signature_paths().at(files.size()), text, std::nullopt});
    return verify_signatures(text_, files, keys, threshold, first_line(text_));
  }
  std::vector<Signer> verify(const std::vector<std::string>& texts, size_t threshold) const {
    return verify(texts, threshold, keys_);
  }
  // Why they are too few, "" when they are not.
  std::string why(const std::vector<std::string>& texts, size_t threshold) const {
    try {
      (void)verify(texts, threshold);
      return "";
    } catch (const Refused& refused) {
      EXPECT_EQ(Reason::kThreshold, refused.reason()) << refused.what();
      return refused.what();
    }
  }

  const ReleaseSigner one_{1}, two_{2}, three_{3}, stranger_{9};
  const std::vector<PublicKey> keys_ = {one_.public_key(), two_.public_key(), three_.public_key()};
  const std::string text_ = format(sample());
};

TEST_F(Signatures, have_nine_names) {
  EXPECT_EQ(".pkgdist/manifest.minisig", signature_paths().front());
  EXPECT_EQ(".pkgdist/manifest.minisig.2", signature_paths()[1]);
  EXPECT_EQ(".pkgdist/manifest.minisig.9", signature_paths().back());
  for (const std::string& path : signature_paths()) EXPECT_TRUE(is_signature_path(path)) << path;
  for (const std::string other : {"", ".1", ".0", ".10", ".02", ".2.", ".2.tmp", ".x", "2"})
    EXPECT_EQ(other.empty(), is_signature_path(kSignaturePath + other)) << other;
}

TEST_F(Signatures, each_key_is_named_once_in_the_order_of_the_files) {
  const auto signers = verify({two_.sign(text_), one_.sign(text_), two_.sign(text_)}, 2);
  EXPECT_EQ((std::vector<std::string>{"0202020202020202", "0101010101010101"}),
            signing_keys(signers));
  EXPECT_EQ(0u, signers[0].file);
  EXPECT_EQ(1u, signers[1].file);
}

TEST_F(Signatures, of_a_key_count_once_under_two_names_too) {
  PublicKey renamed = one_.public_key();
  renamed.id.fill(7);
  std::string second = one_.sign(text_);
  // The name of the key is in the second line, which is not part of what is signed.
  const size_t line = second.find('\n') + 1;
  auto bytes = from_base64(second.substr(line, second.find('\n', line) - line)).value();
  std::fill_n(bytes.begin() + 2, renamed.id.size(), uint8_t{7});
  second.replace(line, second.find('\n', line) - line, to_base64(bytes));
  const std::vector<PublicKey> keys{one_.public_key(), renamed, two_.public_key()};
  EXPECT_EQ(1u, verify({second}, 1, keys).size()) << "the renamed one holds";
  EXPECT_EQ(Reason::kThreshold, refusal([&] {
              (void)verify({one_.sign(text_), second}, 2, keys);
            }));
  EXPECT_EQ(2u, verify({one_.sign(text_), second, two_.sign(text_)}, 2, keys).size());
}

TEST_F(Signatures, that_are_too_few_are_told_with_what_is_wrong_with_the_others) {
  const std::string one = one_.sign(text_);
  EXPECT_EQ("signatures by 2 of 3 trusted keys are needed, 1 is there", why({one}, 2));
  EXPECT_EQ("signatures by 3 of 3 trusted keys are needed, 2 are there",
            why({one, two_.sign(text_)}, 3));
  const std::string first =
      "signatures by 2 of 3 trusted keys are needed, 1 is there; "
      ".pkgdist/manifest.minisig.2: ";
  EXPECT_EQ(first + "key 0101010101010101 has signed .pkgdist/manifest.minisig already",
            why({one, one}, 2));
  EXPECT_EQ(first + "the manifest is signed with key 0909090909090909, which is not trusted here",
            why({one, stranger_.sign(text_)}, 2));
  EXPECT_EQ(first + "the signature does not belong to the manifest",
            why({one, two_.sign(text_ + "x", first_line(text_))}, 2));
  EXPECT_EQ(first + "the trusted comment is not the first line of the manifest",
            why({one, two_.sign(text_, "another")}, 2));
  EXPECT_EQ(
      "a signature by a trusted key is needed, none is there; .pkgdist/manifest.minisig: the "
      "signature file lacks the line 'untrusted comment: ...'; .pkgdist/manifest.minisig.2: "
      "the signature does not belong to the manifest",
      why({"", ReleaseSigner(2).sign(text_)}, 1));
}

TEST_F(Signatures, of_one_file_and_one_that_is_needed_keep_the_reason) {
  const auto reason = [&](const std::string& text) {
    return refusal([&] { (void)verify({text}, 1); });
  };
  EXPECT_EQ(std::nullopt, reason(one_.sign(text_)));
  EXPECT_EQ(Reason::kSignature, reason(""));
  EXPECT_EQ(Reason::kUnknownKey, reason(stranger_.sign(text_)));
  EXPECT_EQ(Reason::kBadSignature, reason(ReleaseSigner(1).sign(text_)));
  EXPECT_EQ(Reason::kRelabelled, reason(one_.sign(text_, "another")));
  EXPECT_EQ(Reason::kAlgorithm, reason(one_.sign(text_, first_line(text_), "Ed")));
}

TEST_F(Signatures, that_are_wrong_hinder_nothing_where_there_are_enough) {
  const std::string one = one_.sign(text_), two = two_.sign(text_);
  const std::vector<std::string> texts{"", stranger_.sign(text_), one, one_.sign(text_, "x"), two};
  const auto signers = verify(texts, 2);
  ASSERT_EQ(2u, signers.size());
  EXPECT_EQ(2u, signers[0].file);
  EXPECT_EQ(4u, signers[1].file);
}

TEST_F(Signatures, every_flipped_bit_of_the_second_file_takes_it_out_of_the_count) {
  const std::string one = one_.sign(text_), two = two_.sign(text_);
  ASSERT_EQ(2u, verify({one, two}, 2).size());
  each_flipped_bit(two, [&](const std::string& flipped, const std::string& where) {
    ASSERT_NE("", why({one, flipped}, 2)) << where;
    ASSERT_EQ(1u, verify({one, flipped}, 1).size()) << where;
  });
}

TEST_F(Signatures, by_fewer_keys_than_are_needed_are_never_enough) {
  const std::vector<PublicKey> twice{one_.public_key(), one_.public_key(), two_.public_key()};
  EXPECT_EQ(std::nullopt, refusal([&] { require_keys(twice, 2); }));
  EXPECT_EQ(Reason::kThreshold, refusal([&] { require_keys(twice, 3); }));
  try {
    (void)verify({one_.sign(text_), two_.sign(text_)}, 2, {one_.public_key()});
    ADD_FAILURE() << "one key is no two";
  } catch (const Refused& refused) {
    EXPECT_STREQ("2 signatures by different keys are needed, and only 1 is trusted",
                 refused.what());
  }
}

TEST_F(Signatures, are_read_from_all_files_that_are_there) {
  const TempTree tree;
  const Fd at(open(tree.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  EXPECT_EQ(std::vector<std::string>{kSignaturePath}, signatures_in(at.get()));
  EXPECT_THROW((void)read_signatures(at.get()), std::runtime_error);
  tree.write(".pkgdist/manifest.minisig.3", "three");
  tree.write(".pkgdist/manifest.minisig.5", std::string(kMaxSignatureFileBytes + 1, 'x'));
  tree.write(".pkgdist/manifest.minisig.7/x", "in a directory");
  tree.write(".pkgdist/manifest.minisig.10", "ten");
  const auto files = read_signatures(at.get());
  ASSERT_EQ(3u, files.size());
  EXPECT_EQ("three", files[0].text);
  EXPECT_EQ(Reason::kTooLarge, files[1].unreadable->reason());
  EXPECT_EQ(Reason::kTree, files[2].unreadable->reason());
}

}  // namespace
