// SPDX-License-Identifier: Apache-2.0
// A WatchHub is one inotify instance with all watches of a thread. inotify knows directories by number, and
// two paths may lead to one directory; so each number has the list of those who use it.
//
// No event is trusted to be about the present: every one only makes its watch find the deepest directory
// anew, or call its owner. A directory that appears between the search and the watch on its parent is found
// by searching once more after the watch stands.
#include "Mem/DirectoryWatch.h"

#include "Lomi/Exception.h"
#include "Lomi/Fork.h"
#include "Lomi/PerThread.h"
#include "Lomi/TaskSchedulerRoot.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <exception>
#include <map>
#include <set>
#include <sys/epoll.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Mem {
namespace {

std::atomic<double> pollPeriod{5};
constexpr double pollWithoutInotify = 0.25; // seconds

// Names that come and go, and the directory's own end. Rights may change what can be opened. Writing is not
// asked for: a table at work makes no event at all.
constexpr std::uint32_t wantedEvents = IN_CREATE | IN_MOVED_TO | IN_MOVED_FROM | IN_DELETE | IN_ATTRIB |
                                       IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;
constexpr std::uint32_t directoryGone = IN_DELETE_SELF | IN_MOVE_SELF | IN_UNMOUNT | IN_IGNORED;

// More than one comes of a path that is being made while it is searched.
constexpr int mostSearches = 16;

FileIdentity directoryAt(std::string const& path, bool followLink) {
   struct stat status {};
   int const result = followLink ? ::stat(path.c_str(), &status) : ::lstat(path.c_str(), &status);
   if (result != 0 || !S_ISDIR(status.st_mode)) return {};
   return {static_cast<u64>(status.st_dev), static_cast<u64>(status.st_ino)};
}

std::string_view lastComponent(std::string_view path) { return path.substr(path.rfind('/') + 1); }

} // namespace

namespace Impl {

class WatchHub {
public:
   static std::shared_ptr<WatchHub> const& current() {
      struct Current {
         std::shared_ptr<WatchHub> hub;
         Current() { Lomi::TaskSchedulerRoot::root(); } // where its tasks are, so it ends after this
      };
      auto& hub = Lomi::perThread<Current>().hub;
      if (!hub || hub->foreign()) hub = std::make_shared<WatchHub>();
      return hub;
   }

   void add(DirectoryWatch& watch) {
      watches_.insert(&watch);
      try {
         search(watch);
         armPoll();
      } catch (...) {
         remove(watch);
         throw;
      }
   }
   void remove(DirectoryWatch& watch) {
      if (foreign()) return; // the instance is the parent's, too
      watches_.erase(&watch);
      release(watch, std::exchange(watch.wd_, -1));
      if (watches_.empty()) poll_.cancel();
   }
   std::size_t watched() const { return users_.size(); }

private:
   // Each watch whose owner is to be called, and whether to search first.
   using Calls = std::map<DirectoryWatch*, bool>;

   bool foreign() const { return forks_ != Lomi::forkGeneration(); }

   // Without an instance every watch is polled, and the next poll tries again.
   bool open() {
      if (inotify_) return true;
      Descriptor opened(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
      if (!opened) return false;
      readable_ = Lomi::TaskSchedulerRoot::root().descriptorTask(opened.get(), EPOLLIN,
                                                                 [this](std::uint32_t) { onReadable(); });
      inotify_ = std::move(opened);
      return true;
   }

   void release(DirectoryWatch& watch, int wd) {
      auto const found = users_.find(wd);
      if (found == users_.end()) return;
      found->second.erase(&watch);
      if (!found->second.empty()) return;
      users_.erase(found);
      ::inotify_rm_watch(inotify_.get(), wd);
   }

   /// Puts the watch on the deepest directory of its path, or leaves it to the poll.
   void search(DirectoryWatch& watch) {
      for (int i = 0; i < mostSearches; ++i) {
         std::size_t depth = 0;
         int const wd = open() ? addDeepest(watch, depth) : -1;
         if (wd < 0) {
            int const error = errno;
            release(watch, std::exchange(watch.wd_, -1));
            if (!std::exchange(watch.polled_, true))
               LOMI_TRACE(watch.handler_, 0, "DirectoryWatch", "{} can't be watched and is polled: {}",
                          watch.path_[0], std::strerror(error));
            return;
         }
         watch.polled_ = false;
         users_[wd].insert(&watch);
         if (int const old = std::exchange(watch.wd_, wd); old != wd) release(watch, old);
         watch.depth_ = depth;
         watch.watched_ = watch.directory(depth);
         if (depth == 0 || !watch.directory(depth - 1)) return;
      }
   }

   int addDeepest(DirectoryWatch const& watch, std::size_t& depth) {
      for (depth = 0; depth < watch.path_.size(); ++depth) {
         std::uint32_t const events = wantedEvents | (watch.followsLink(depth) ? 0 : IN_DONT_FOLLOW);
         int const wd = ::inotify_add_watch(inotify_.get(), watch.path_[depth].c_str(), events);
         if (wd >= 0 || (errno != ENOENT && errno != ENOTDIR && errno != ELOOP)) return wd;
      }
      return -1;
   }

   void onReadable() {
      Calls calls;
      alignas(inotify_event) char buffer[16384];
      // What a busy parent directory brings beyond this waits for the next round.
      for (int i = 0; i < 8; ++i) {
         ssize_t const got = ::read(inotify_.get(), buffer, sizeof buffer);
         if (got <= 0) break;
         for (char const* at = buffer; at < buffer + got;) {
            auto const& event = *reinterpret_cast<inotify_event const*>(at);
            at += sizeof event + event.len;
            note(event, calls);
         }
      }
      call(calls, false);
   }

   void note(inotify_event const& event, Calls& calls) {
      if (event.mask & IN_Q_OVERFLOW)
         for (auto* watch : watches_) calls[watch] = true;
      auto const found = users_.find(event.wd);
      if (found == users_.end()) return;
      for (auto* watch : found->second) {
         if (event.mask & directoryGone)
            calls[watch] = true;
         else if (watch->depth_ == 0)
            calls.emplace(watch, false);
         else if (event.len && lastComponent(watch->path_[watch->depth_ - 1]) == event.name)
            calls[watch] = true;
      }
      if (!(event.mask & IN_IGNORED)) return;
      for (auto* watch : found->second) watch->wd_ = -1; // the kernel has taken it back
      users_.erase(found);
   }

   void onPoll() {
      Calls calls;
      for (auto* watch : watches_)
         calls[watch] = watch->wd_ < 0 || watch->directory(watch->depth_) != watch->watched_ ||
                        (watch->depth_ > 0 && watch->directory(watch->depth_ - 1));
      call(calls, true);
   }

   void call(Calls const& calls, bool polled) {
      std::exception_ptr failure;
      for (auto const& [watch, searchFirst] : calls) {
         if (!watches_.contains(watch)) continue; // ended meanwhile
         try {
            if (searchFirst) search(*watch);
            watch->changed_(polled);
         } catch (...) {
            if (!failure) failure = std::current_exception();
         }
      }
      armPoll();
      if (failure) std::rethrow_exception(failure);
   }

   void armPoll() {
      if (watches_.empty()) return;
      bool const blind = std::any_of(watches_.begin(), watches_.end(), [](auto* w) { return w->polled_; });
      double const delay = blind ? std::min(pollWithoutInotify, pollPeriod.load()) : pollPeriod.load();
      if (poll_.active() && pollDelay_ <= delay) return;
      pollDelay_ = delay;
      poll_ = Lomi::TaskSchedulerRoot::root().timerTask(delay, [this] { onPoll(); });
   }

   std::uint32_t const forks_ = Lomi::forkGeneration();
   std::set<DirectoryWatch*> watches_;
   std::map<int, std::set<DirectoryWatch*>> users_; // by inotify's number
   Descriptor inotify_;
   Lomi::Task readable_;
   Lomi::Task poll_;
   double pollDelay_ = 0;
};

} // namespace Impl

DirectoryWatch::DirectoryWatch(Lomi::Platform::DebugHandler const& handler, NaoRootPath const& rootPath,
                               std::function<void(bool)> changed)
   : handler_(handler)
   , changed_(std::move(changed))
   , hub_(Impl::WatchHub::current()) {
   for (std::string path = rootPath.str();; path.resize(std::max<std::size_t>(path.rfind('/'), 1))) {
      if (path == rootPath.root()) rootDepth_ = path_.size();
      path_.push_back(path);
      if (path.size() == 1) break;
   }
   hub_->add(*this);
}

DirectoryWatch::~DirectoryWatch() { stop(); }

void DirectoryWatch::stop() {
   if (hub_) hub_->remove(*this);
   hub_.reset();
}

FileIdentity DirectoryWatch::directory(std::size_t depth) const {
   return directoryAt(path_[depth], followsLink(depth));
}

void DirectoryWatch::pollPeriodIs(double seconds) { pollPeriod = std::max(seconds, 0.001); }

std::size_t DirectoryWatch::watched() { return Impl::WatchHub::current()->watched(); }

} // namespace Mem
