#include "refusal.h"

namespace pkgdist::release {

const char* reason_name(Reason reason) {
  switch (reason) {
    case Reason::kFormat:
      return "format";
    case Reason::kTooLarge:
      return "too-large";
    case Reason::kPath:
      return "path";
    case Reason::kMode:
      return "mode";
    case Reason::kSignature:
      return "signature-format";
    case Reason::kAlgorithm:
      return "signature-algorithm";
    case Reason::kUnknownKey:
      return "unknown-key";
    case Reason::kBadSignature:
      return "bad-signature";
    case Reason::kBadComment:
      return "bad-trusted-comment";
    case Reason::kRelabelled:
      return "re-labelled";
    case Reason::kThreshold:
      return "too-few-signatures";
    case Reason::kKey:
      return "key-format";
    case Reason::kName:
      return "wrong-name";
    case Reason::kNotNewer:
      return "not-newer";
    case Reason::kOtherManifest:
      return "other-manifest";
    case Reason::kFloor:
      return "below-floor";
    case Reason::kKnownBad:
      return "known-bad";
    case Reason::kExpired:
      return "expired";
    case Reason::kLeaves:
      return "bad-leaves";
    case Reason::kContent:
      return "bad-content";
    case Reason::kTree:
      return "bad-tree";
    case Reason::kNoRelease:
      return "no-release";
    case Reason::kNotOrdered:
      return "not-ordered";
    case Reason::kNoSpace:
      return "no-space";
  }
  return "unknown";
}

}  // namespace pkgdist::release
