// Names in the place of an installation.
#pragma once

namespace pkgdist::release {

inline constexpr char kCurrent[] = "current";
inline constexpr char kPrevious[] = "previous";
inline constexpr char kIncoming[] = ".pkgdist/incoming";
inline constexpr char kStaging[] = ".pkgdist/staging";
inline constexpr char kReleases[] = ".pkgdist/releases";

// Of the directories on the way: nobody else looks into what is not complete.
inline constexpr unsigned kPrivateDirectory = 0700;

}  // namespace pkgdist::release
