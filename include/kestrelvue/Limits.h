#pragma once
// How much a service reply may make the library hold. A reply beyond these bounds is refused
// with the failure report its call already has, before any record of it is built, so a hostile
// or broken service cannot make the host hold more than about
//   kMaxHistoryTrips x ~1 KB     for the trip history (25 MB), and
//   ~16 x the reply's size       while a reply is being read (released afterwards).

#include <cstddef>

namespace kestrelvue {

/// The trip history: at most this many trips (about 70 years of a trip a day) ...
inline constexpr std::size_t kMaxHistoryTrips = 25'000;
/// ... in a reply of at most this many bytes (a trip takes about 640 bytes of reply text).
inline constexpr std::size_t kMaxHistoryReplyBytes = std::size_t{16} << 20;

/// Replies that arrive through the call layer (account, friends, leaderboard, summary, route):
/// at most this many bytes ...
inline constexpr std::size_t kMaxCallReplyBytes = std::size_t{16} << 20;
/// ... and at most this many elements in a reply whose root is a list (leaderboard rows, route
/// points: a day's driving at one point a second).
inline constexpr std::size_t kMaxCallReplyElements = 100'000;

}  // namespace kestrelvue
