// SPDX-License-Identifier: Apache-2.0
// Tells when something may have changed in a directory, which needn't exist yet: the deepest directory of its
// path that does is watched meanwhile. It says only "look again": what it tells may be nothing new, and
// several changes may be told at once, but after the last change there is always one more call.
//
// It stands on inotify: one instance for each thread, shared by all its watches and kept as long as the
// thread. While nothing happens it costs nothing but a slow poll, which sees what inotify can't: a parent
// that was moved away, a mount put over it. Where inotify refuses (its limits are reached, no right to read a
// directory), the poll becomes faster until it doesn't.
//
// One thread. In a forked child a watch of the parent is dead, and its end changes nothing for the parent.
#pragma once

#include "Lomi/Export.h"
#include "Lomi/Trace.h"
#include "Mem/Paths.h"
#include "Mem/TableState.h"

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace Mem {

namespace Impl {
class WatchHub;
}

class HOFLOW_EXPORT DirectoryWatch {
public:
   /// Calls `changed(polled)` from the thread's Lomi::TaskSchedulerRoot; `polled` is true when nothing was
   /// told and it is only time to look. What it throws leaves the loop as of any task.
   DirectoryWatch(Lomi::Platform::DebugHandler const& handler, NaoRootPath const& rootPath,
                  std::function<void(bool polled)> changed);
   ~DirectoryWatch();
   DirectoryWatch(DirectoryWatch const&) = delete;
   DirectoryWatch& operator=(DirectoryWatch const&) = delete;

   /// No call comes any more. May be said from within `changed`, where the watch must not end.
   void stop();

   /// Seconds between two looks without a reason, for all watches from their next look on. 5 unless set.
   static void pollPeriodIs(double seconds);
   /// Directories that this thread has under inotify.
   static std::size_t watched();

private:
   friend class Impl::WatchHub;

   // Above the tables' root the system's own links are followed, as in NaoRootPath.
   bool followsLink(std::size_t depth) const { return depth > rootDepth_; }
   FileIdentity directory(std::size_t depth) const;

   Lomi::Platform::DebugHandler const& handler_;
   std::vector<std::string> path_; ///< the directory and its parents, the deepest first
   std::size_t rootDepth_ = 0;     ///< which of them is the tables' root
   std::function<void(bool)> changed_;
   std::shared_ptr<Impl::WatchHub> hub_; ///< null when stopped
   // What is watched now.
   int wd_ = -1;           ///< its number at inotify; below 0 there is none
   bool polled_ = false;   ///< and the poll has to do it all
   FileIdentity watched_;  ///< the directory
   std::size_t depth_ = 0; ///< which of path_; 0 is the directory itself
};

} // namespace Mem
