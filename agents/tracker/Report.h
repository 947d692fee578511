// SPDX-License-Identifier: Apache-2.0
// What a tracker has to say at its end: a table of figures for people, or one JSON object for programs. Also
// the progress bar. Says nothing on its own; hoflow-tracker.cpp decides when.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

namespace Tracker {

struct FamilyFigures {
   std::string table;         // its path below the root
   std::uint64_t flows = 0;   // rows that the table holds
   std::uint64_t packets = 0; // that the rows amount to
   std::uint64_t bytes = 0;
   std::uint64_t packetsKept = 0; // counted by an earlier run and taken over
   std::uint64_t rowsRemoved = 0; // found in the table and not accounted for by this capture
   std::uint64_t stores = 0;      // rows stored by this run
};

struct Figures {
   std::string capture, root;
   FamilyFigures ip4, ip6;
   std::uint64_t packetsRead = 0;
   std::uint64_t notIp = 0, malformed = 0, linkType = 0; // not counted, by reason
   double seconds = 0;
   std::optional<std::string> damage; // of packet `packetsRead + 1`
   bool complete = true;              // the whole capture was read, or all of it up to a damage
};

std::string toText(Figures const& figures);
std::string toJson(Figures const& figures);

/// A number with a comma between thousands.
std::string grouped(std::uint64_t number);

/// A bar on stderr, redrawn at most ten times a second. Silent unless stderr is a terminal. In colour unless
/// NO_COLOR is set and not empty.
class ProgressBar {
public:
   explicit ProgressBar(std::string label);
   ~ProgressBar() { clear(); }
   ProgressBar(ProgressBar const&) = delete;
   ProgressBar& operator=(ProgressBar const&) = delete;
   /// @param share of the work that is done, from 0 to 1; 0 where it isn't known
   void show(double share, std::uint64_t packets);
   void clear();

private:
   std::string label_;
   bool terminal_, colour_, drawn_ = false;
   std::chrono::steady_clock::time_point start_, next_;
};

} // namespace Tracker
