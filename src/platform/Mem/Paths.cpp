// SPDX-License-Identifier: Apache-2.0
#include "Mem/Paths.h"

#include "Lomi/Exception.h"
#include "Mem/FileCalls.h"

#include <fmt/format.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <mutex>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace Mem {
namespace {

// O_PATH: directories are only passed through, so the right to enter them is enough.
constexpr int directoryFlags = O_PATH | O_DIRECTORY | O_CLOEXEC;

struct Root {
   std::mutex mutex;
   std::string path = "/dev/shm/hoflow";
};

Root& root() {
   static Root& only = *new Root;
   return only;
}

/// One line, whatever the name holds.
std::string printable(std::string const& name) {
   std::string text;
   for (char const c : name) {
      if (c == 0)
         text.append("\\0");
      else if (static_cast<unsigned char>(c) < ' ' || c == 0x7f)
         text.append(fmt::format("\\x{:02x}", c));
      else
         text.push_back(c);
   }
   return text;
}

/// Why a name is no path below the root; null if it is one. `path` is the whole.
char const* faultOf(std::string const& name, std::string const& path) {
   constexpr std::size_t mostForFiles = 64; // a slash and a file's name
   if (path.size() + mostForFiles > PATH_MAX) return "the path is too long for the system";
   if (name.find('\0') != std::string::npos) return "it holds a NUL";
   std::size_t from = 0;
   while (true) {
      std::size_t const end = name.find('/', from);
      std::string const part = name.substr(from, end == std::string::npos ? end : end - from);
      if (part.empty()) return "a component is empty";
      if (part == "." || part == "..") return "a component is \".\" or \"..\"";
      if (part.size() > 255) return "a component is longer than 255 bytes";
      if (end == std::string::npos) return nullptr;
      from = end + 1;
   }
}

std::vector<std::string> components(std::string const& path) {
   std::vector<std::string> parts;
   for (auto const& part : std::filesystem::path(path).relative_path())
      if (!part.empty()) parts.push_back(part.string());
   return parts;
}

Descriptor openBelow(int parent, std::string const& name, int extraFlags) {
   return Descriptor(::openat(parent, name.c_str(), directoryFlags | extraFlags));
}

} // namespace

void Descriptor::reset() {
   if (fd_ < 0) return;
   int const error = errno; // often still to be reported
   ::close(std::exchange(fd_, -1));
   errno = error;
}

std::string RootPath::get() {
   std::lock_guard const hold(root().mutex);
   return root().path;
}

void RootPath::set(std::string const& path) {
   if (path.empty() || path.find('\0') != std::string::npos)
      throw Lomi::InvalidInitializeException(
          fmt::format("bad root of tables \"{}\": it is empty or holds a NUL", printable(path)));
   std::string absolute = std::filesystem::absolute(path).lexically_normal().string();
   while (absolute.size() > 1 && absolute.back() == '/') absolute.pop_back();
   std::lock_guard const hold(root().mutex);
   root().path = std::move(absolute);
}

NaoRootPath::NaoRootPath(Lomi::Platform::DebugHandler const& handler, std::string name, bool local)
   : root_(RootPath::get())
   , name_(std::move(name))
   , path_(fmt::format("{}/{}", root_ == "/" ? "" : root_, name_))
   , shared_(!local) {
   if (char const* const why = shared_ ? faultOf(name_, path_) : nullptr)
      throw Lomi::InvalidInitializeException(fmt::format("bad table name \"{}\": {}", printable(name_), why));
   LOMI_TRACE(handler, 8, "NaoRootPath", "{} local:{}", path_, local);
}

std::string NaoRootPath::dirName() const {
   std::size_t const slash = name_.rfind('/');
   return slash == std::string::npos ? name_ : name_.substr(slash + 1);
}

bool NaoRootPath::exists() const { return static_cast<bool>(openDirectory()); }

// Above the root's last component the system's own directories are trusted, links included. From there on,
// where others may be able to write, a symbolic link is refused.
Descriptor NaoRootPath::walk(std::string const& name, bool make, std::string& failedAt) const {
   auto const rootParts = components(root_);
   auto parts = rootParts;
   for (auto& part : components(name)) parts.push_back(std::move(part));
   Descriptor at(::open("/", directoryFlags));
   failedAt.assign(1, '/');
   std::string path;
   for (std::size_t i = 0; at && i < parts.size(); ++i) {
      path.append(1, '/').append(parts[i]);
      failedAt = path;
      int const flags = i + 1 < rootParts.size() ? 0 : O_NOFOLLOW;
      Descriptor next = openBelow(at.get(), parts[i], flags);
      if (!next && errno == ENOENT && make) {
         auto const made = FileCalls::makeDirectory(at.get(), parts[i].c_str(), path);
         if (made || made.error() == EEXIST)
            next = openBelow(at.get(), parts[i], flags);
         else
            errno = made.error();
      }
      int const error = errno;
      at = std::move(next);
      errno = error;
   }
   return at;
}

void NaoRootPath::makeDirectories() const {
   std::string failedAt;
   if (walk(name_, true, failedAt)) return;
   int const error = errno;
   char const* hint = error == ELOOP || error == ENOTDIR ? " (symbolic links are not followed here)" : "";
   throw Lomi::InvalidInitializeException(fmt::format("cannot make directory {} for table {}: {}{}", failedAt,
                                                      path_, std::strerror(error), hint));
}

Descriptor NaoRootPath::openDirectory() const {
   if (!shared_ && faultOf(name_, path_)) {
      errno = ENOENT;
      return {};
   }
   std::string failedAt;
   return walk(name_, false, failedAt);
}

Descriptor NaoRootPath::openRoot() const {
   std::string failedAt;
   return walk({}, false, failedAt);
}

} // namespace Mem
