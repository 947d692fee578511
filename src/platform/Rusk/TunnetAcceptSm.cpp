// SPDX-License-Identifier: Apache-2.0
#include "Rusk/TunnetAcceptSm.h"

#include "Lomi/Fork.h"
#include "Lomi/PerThread.h"
#include "Rusk/TunnetName.h"
#include "Rusk/WriterRuskSm.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <dirent.h>
#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Rusk {
namespace {

constexpr int backlog = 128;
constexpr int acceptsInATurn = 16;
constexpr double acceptsInASecond = 1000;
constexpr double acceptsAtOnce = 256;
constexpr u32 mostConnections = 512; // and no more than a quarter of the descriptors of this process
constexpr u32 mostOfOneUser = 128;   // of users other than this process's and the superuser
constexpr std::size_t mostVisitors = 32;
constexpr double pauseWithoutDescriptors = 0.25;
constexpr double pauseInAFlood = 0.02;
constexpr int sendBuffer = 8192;     // about twenty messages that a peer may leave unread
constexpr std::time_t staleAge = 10; // seconds; between bind and listen nobody answers either
constexpr u32 mostNames = 64;

u32 connectionLimit() {
   rlimit files{};
   ::getrlimit(RLIMIT_NOFILE, &files);
   return static_cast<u32>(std::clamp<rlim_t>(files.rlim_cur / 4, 4, mostConnections));
}

// Numbers of a process's sockets: one thread never takes another's name for a dead one.
std::atomic<u32> nextNumber{0};

} // namespace

std::shared_ptr<TunnetAcceptSm> TunnetAcceptSm::tunnetAcceptSm(Mem::NaoRootPath const& rootPath) {
   auto& all = Lomi::perThread<std::map<std::string, std::weak_ptr<TunnetAcceptSm>>>();
   auto& known = all[rootPath.root()];
   auto acceptor = known.lock();
   if (!acceptor || acceptor->forks_ != Lomi::forkGeneration())
      known = acceptor = std::make_shared<TunnetAcceptSm>(rootPath);
   return acceptor;
}

TunnetAcceptSm::TunnetAcceptSm(Mem::NaoRootPath const& rootPath)
   : handler_(Lomi::Platform::getDebugHandler("Rusk", true))
   , rootPath_(rootPath)
   , forks_(Lomi::forkGeneration())
   , allowance_(acceptsInASecond, acceptsAtOnce) {}

TunnetAcceptSm::~TunnetAcceptSm() {
   if (name_.empty() || forks_ != Lomi::forkGeneration()) return;
   struct stat status {};
   if (::fstatat(root_.get(), name_.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0 && status.st_dev == device_ &&
       status.st_ino == inode_)
      ::unlinkat(root_.get(), name_.c_str(), 0);
}

std::string const& TunnetAcceptSm::socketName() {
   if (name_.empty() && !open()) {
      LOMI_TRACE(*handler_, 0, "TunnetAcceptSm",
                 "no wake-up socket in {}, readers of its tables will poll: {}", rootPath_.root(),
                 std::strerror(errno));
      listener_.reset();
   }
   return name_;
}

bool TunnetAcceptSm::open() {
   root_ = rootPath_.openRoot();
   listener_ = Socket::make();
   if (!root_ || !listener_) return false;
   removeStale();
   if (!bindName()) return false;
   if (::listen(listener_.get(), backlog) == 0) return true;
   ::unlinkat(root_.get(), name_.c_str(), 0);
   name_.clear();
   return false;
}

bool TunnetAcceptSm::bindName() {
   TunnetName name{true, static_cast<u32>(::getpid()), 0};
   for (u32 attempt = 0; attempt < mostNames; ++attempt) {
      name.number = nextNumber.fetch_add(1);
      std::string const text = name.text();
      int error = bindInRoot(listener_, rootPath_, text);
      // Left by a dead process that had this number, if nobody answers. Someone may: containers have process
      // numbers of their own, and share a root.
      if (error == EADDRINUSE && stale(text)) {
         ::unlinkat(root_.get(), text.c_str(), 0);
         error = bindInRoot(listener_, rootPath_, text);
      }
      if (error == EADDRINUSE) continue;
      if (error == 0) {
         name_ = text;
         openToAll();
         return true;
      }
      errno = error;
      return false;
   }
   errno = EADDRINUSE;
   return false;
}

// The mode of the name lets everybody in, whatever the umask is: a reader is judged by the table's files,
// once it has said which table it means.
void TunnetAcceptSm::openToAll() {
   Mem::Descriptor const made(::openat(root_.get(), name_.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
   struct stat status {};
   if (!made || ::fstat(made.get(), &status) != 0 || !S_ISSOCK(status.st_mode)) return;
   device_ = status.st_dev;
   inode_ = status.st_ino;
   if (status.st_uid == ::geteuid()) ::chmod(fmt::format("/proc/self/fd/{}", made.get()).c_str(), 0666);
}

bool TunnetAcceptSm::stale(std::string const& name) const {
   struct stat status {};
   if (::fstatat(root_.get(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0 || !S_ISSOCK(status.st_mode))
      return false;
   Socket const probe = Socket::make();
   return probe && connectInRoot(probe, rootPath_, name) == ECONNREFUSED;
}

void TunnetAcceptSm::removeStale() {
   int const copy = ::openat(root_.get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
   DIR* const directory = copy < 0 ? nullptr : ::fdopendir(copy);
   if (!directory) {
      if (copy >= 0) ::close(copy);
      return;
   }
   while (dirent const* entry = ::readdir(directory)) {
      struct stat status {};
      if (!TunnetNameIs(entry->d_name).valid ||
          ::fstatat(root_.get(), entry->d_name, &status, AT_SYMLINK_NOFOLLOW) != 0)
         continue;
      if (::time(nullptr) - status.st_mtime < staleAge || !stale(entry->d_name)) continue;
      LOMI_TRACE(*handler_, 3, "TunnetAcceptSm", "removing {}/{}, nobody listens", rootPath_.root(),
                 entry->d_name);
      ::unlinkat(root_.get(), entry->d_name, 0);
   }
   ::closedir(directory);
}

void TunnetAcceptSm::tableIs(u32 tableId, WriterRuskSm& table) {
   tables_[tableId] = &table;
   if (socketName().empty() || accept_.active()) return;
   // The first timer of a loop needs a descriptor. When they run out it is too late for that.
   resume_ = Lomi::TaskSchedulerRoot::root().timerTask(
       0, [] {}, Lomi::TaskPriority::critical);
   listen();
}

void TunnetAcceptSm::tableDel(u32 tableId) {
   tables_.erase(tableId);
   if (!tables_.empty()) return;
   accept_.cancel();
   resume_.cancel();
   visitors_.clear();
}

u32 TunnetAcceptSm::connections() const {
   auto count = static_cast<u32>(visitors_.size());
   for (auto const& [id, table] : tables_) count += table->readers();
   return count;
}

void TunnetAcceptSm::listen() {
   accept_ = Lomi::TaskSchedulerRoot::root().descriptorTask(
       listener_.get(), EPOLLIN, [this](std::uint32_t) { onAcceptable(); }, Lomi::TaskPriority::critical);
}

void TunnetAcceptSm::pause(double seconds) {
   ++counters_.paused;
   resume_ = Lomi::TaskSchedulerRoot::root().timerTask(
       seconds, [this] { resume(); }, Lomi::TaskPriority::critical);
   accept_.cancel();
}

void TunnetAcceptSm::resume() try { listen(); } catch (std::exception const& error) {
   LOMI_TRACE(*handler_, 0, "TunnetAcceptSm", "not listening for a while: {}", error.what());
   pause(pauseWithoutDescriptors);
}

void TunnetAcceptSm::onAcceptable() try {
   for (int i = 0; i < acceptsInATurn; ++i) {
      if (!allowance_.take()) return pause(pauseInAFlood);
      Socket socket = Socket::accept(listener_);
      if (socket) {
         ++counters_.accepted;
         receiveVisitor(std::move(socket));
         continue;
      }
      if (errno == EAGAIN) return;
      if (errno == EINTR || errno == ECONNABORTED) continue;
      LOMI_TRACE(*handler_, 1, "TunnetAcceptSm", "accept: {}", std::strerror(errno));
      return pause(pauseWithoutDescriptors);
   }
} catch (std::exception const& error) {
   LOMI_TRACE(*handler_, 0, "TunnetAcceptSm", "connection lost: {}", error.what());
}

bool TunnetAcceptSm::admitted(Credentials const& credentials) {
   if (connections() >= connectionLimit()) return false;
   if (credentials.uid == 0 || credentials.uid == ::geteuid()) return true;
   auto count =
       static_cast<u32>(std::count_if(visitors_.begin(), visitors_.end(), [&](Visitor const& visitor) {
          return visitor.credentials.uid == credentials.uid;
       }));
   for (auto const& [id, table] : tables_) count += table->readersOf(credentials.uid);
   return count < mostOfOneUser;
}

void TunnetAcceptSm::receiveVisitor(Socket socket) {
   Credentials credentials;
   if (!Credentials::of(socket, credentials) || !admitted(credentials)) {
      ++counters_.drops[Drop::tooMany];
      return;
   }
   ::setsockopt(socket.get(), SOL_SOCKET, SO_SNDBUF, &sendBuffer, sizeof(sendBuffer));
   if (visitors_.size() >= mostVisitors) {
      ++counters_.drops[Drop::silent];
      visitors_.pop_front();
   }
   visitors_.push_back({std::move(socket), std::move(credentials), {}});
   auto const visitor = std::prev(visitors_.end());
   try {
      visitor->task = Lomi::TaskSchedulerRoot::root().descriptorTask(
          visitor->socket.get(), EPOLLIN, [this, visitor](std::uint32_t) { onVisitor(visitor); },
          Lomi::TaskPriority::critical);
   } catch (...) {
      visitors_.erase(visitor);
      throw;
   }
   onVisitor(visitor); // a reader says HELLO as soon as it is connected: mostly it is there
}

void TunnetAcceptSm::onVisitor(Visitors::iterator visitor) try {
   Message hello;
   Received const received = receive(visitor->socket.get(), hello);
   if (received == Received::nothing) return;
   Visitors done; // outlives the handover, gone at the end of this call
   done.splice(done.end(), visitors_, visitor);
   if (received == Received::descriptors)
      ++counters_.drops[Drop::descriptors];
   else if (received == Received::message && hello.type == MessageType::hello) {
      visitor->task.cancel();
      greet(std::move(visitor->socket), visitor->credentials, hello);
   } else if (received != Received::closed)
      ++counters_.drops[Drop::badMessage];
} catch (std::exception const& error) {
   LOMI_TRACE(*handler_, 0, "TunnetAcceptSm", "connection lost: {}", error.what());
}

void TunnetAcceptSm::greet(Socket socket, Credentials const& credentials, Message const& hello) {
   auto const found = tables_.find(hello.tableId);
   if (found == tables_.end())
      ++counters_.drops[Drop::wrongTable];
   else
      found->second->join(std::move(socket), credentials, hello);
}

} // namespace Rusk
