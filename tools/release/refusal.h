// Why a release is refused. Each reason has a name of its own, so that a person, a test and a
// monitoring system can tell them apart.
#pragma once

#include <stdexcept>
#include <string>

namespace pkgdist::release {

enum class Reason {
  kFormat,         // the manifest is not written as manifests are
  kTooLarge,       // more bytes or entries than a manifest may have
  kPath,           // a path that could leave the tree, or stands in no directory of it
  kMode,           // set-user-ID or set-group-ID, which was not allowed
  kSignature,      // the signature file is not written as signature files are
  kAlgorithm,      // a signature over the file itself instead of its hash
  kUnknownKey,     // signed with a key that is not trusted here
  kBadSignature,   // the signature does not belong to this manifest
  kBadComment,     // the signature of the trusted comment is wrong
  kRelabelled,     // the trusted comment is not the first line of the manifest
  kThreshold,      // fewer trusted keys than are needed have signed
  kKey,            // a public key file is not written as key files are
  kName,           // another release than this node takes
  kNotNewer,       // the version is not above the installed one
  kOtherManifest,  // the installed version with another manifest
  kFloor,          // the version is below the floor of its key
  kKnownBad,       // it was activated before and failed or was rolled back
  kExpired,        // its expiry date has passed, and expiry is enforced
  kLeaves,         // the leaf file does not belong to the manifest
  kContent,        // a file does not have the content that the manifest says
  kTree,           // something stands in the tree that the manifest does not say, or is missing
  kNoRelease,      // there is no release to do this with
  kNotOrdered,     // the manifest that came is not that of the release that was announced
  kNoSpace,        // what is missing has no room on the disk
};

// One word for each reason: "bad-signature".
const char* reason_name(Reason reason);

class Refused : public std::runtime_error {
 public:
  Refused(Reason reason, const std::string& text) : std::runtime_error(text), reason_(reason) {}
  Reason reason() const { return reason_; }

 private:
  Reason reason_;
};

}  // namespace pkgdist::release
