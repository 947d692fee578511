// SPDX-License-Identifier: Apache-2.0
// See Live.h.
#include "Live.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <stdexcept>
#include <sys/mman.h>
#include <unistd.h>

namespace Test {
namespace fs = std::filesystem;
using Kind = Event::Kind;

struct Live::File {
   int fd = -1;
   char* map = nullptr;
   std::size_t mapped = 0;
   Image::File const* before = nullptr;
   bool touched = false;

   ~File() {
      if (map) ::munmap(map, mapped);
      if (fd >= 0) ::close(fd);
   }
};

static void check(bool good, char const* what) {
   if (!good) throw std::runtime_error(std::string(what) + ": " + std::strerror(errno));
}

static void checkStore(int fd, Event const& event) {
   auto const offset = static_cast<off_t>(event.offset);
   if (offset + static_cast<off_t>(event.length) > ::lseek(fd, 0, SEEK_END))
      throw std::logic_error(event.text() + ": beyond the end of the file");
   if (::lseek(fd, offset, SEEK_DATA) != offset) throw std::logic_error(event.text() + ": into a hole");
}

/// Room that nobody has written to yet looks like a hole; one byte in each page makes it data.
static void makeVisible(int fd, off_t from, off_t to) {
   for (off_t at = from / 4096 * 4096; at < to; at += 4096)
      if (::lseek(fd, at, SEEK_DATA) != at) check(::pwrite(fd, "", 1, at) == 1, "pwrite");
}

Live::Live(std::string directory, Image before, Events const& events, bool strict)
   : directory_(std::move(directory))
   , before_(std::move(before))
   , events_(events)
   , strict_(strict) {
   fs::remove_all(directory_ + ".kept");
   fs::create_directories(directory_ + ".kept");
   before_.store(directory_);
   for (auto const& [name, file] : before_.files) extents_[name] = file.bytes.size();
   for (Event const& event : events_)
      if (event.kind != Kind::rename && !event.file.empty())
         extents_[event.file] = std::max<std::size_t>(extents_[event.file], event.offset + event.length);
   for (auto& [name, file] : before_.files) {
      fs::create_hard_link(path(name), kept(name));
      File* const opened = open(name, false);
      opened->before = &file;
   }
   std::set<std::string> fleeting; // names that lead to one file now, to another then
   for (Event const& event : events_)
      if (event.kind == Kind::create || event.kind == Kind::unlink || event.kind == Kind::rename) {
         fleeting.insert(event.file);
         fleeting.insert(event.target);
      }
   for (Event const& event : events_)
      target_.push_back(event.kind == Kind::store && !fleeting.count(event.file) ? named_.at(event.file)
                                                                                 : nullptr);
}

Live::~Live() = default;

Live::File* Live::open(std::string const& name, bool make) {
   auto file = std::make_unique<File>();
   file->fd = ::open(path(name).c_str(), O_RDWR | O_CLOEXEC | (make ? O_CREAT | O_EXCL : 0), 0644);
   check(file->fd >= 0, name.c_str());
   file->mapped = (extents_[name] + 4095) / 4096 * 4096;
   if (file->mapped) {
      void* const at = ::mmap(nullptr, file->mapped, PROT_READ | PROT_WRITE, MAP_SHARED, file->fd, 0);
      check(at != MAP_FAILED, "mmap");
      file->map = static_cast<char*>(at);
   }
   File* const opened = named_[name] = file.get();
   if (make)
      made_.push_back(std::move(file));
   else
      files_[name] = std::move(file);
   return opened;
}

void Live::applyTo(std::size_t at) {
   for (; applied_ < at; ++applied_) {
      Event const& event = events_[applied_];
      if (File* const file = target_[applied_]; file && !strict_) {
         file->touched = true;
         std::memcpy(file->map + event.offset, event.bytes.data(), event.length);
      } else {
         apply(event);
      }
   }
}

void Live::apply(Event const& event) {
   if (event.file.empty()) return; // a directory
   if (event.kind == Kind::create) {
      changedNames_.insert(event.file);
      open(event.file, true);
      return;
   }
   auto const found = named_.find(event.file);
   if (event.kind == Kind::unlink) {
      if (found == named_.end()) return;
      check(::unlink(path(event.file).c_str()) == 0, "unlink");
      named_.erase(found);
      changedNames_.insert(event.file);
      return;
   }
   if (found == named_.end()) throw std::logic_error(event.text() + ": no such file");
   File& file = *found->second;
   file.touched = true;
   auto const offset = static_cast<off_t>(event.offset), length = static_cast<off_t>(event.length);
   switch (event.kind) {
   case Kind::store:
      if (strict_) checkStore(file.fd, event);
      std::memcpy(file.map + offset, event.bytes.data(), event.length);
      return;
   case Kind::allocate:
      check(::fallocate(file.fd, 0, offset, length) == 0, "fallocate");
      if (strict_) makeVisible(file.fd, offset, offset + length);
      lengthsChanged_ = true;
      return;
   case Kind::punch:
      check(::fallocate(file.fd, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, offset, length) == 0, "punch");
      return;
   case Kind::truncate:
      check(::ftruncate(file.fd, length) == 0, "ftruncate");
      lengthsChanged_ = true;
      return;
   case Kind::write:
      check(::pwrite(file.fd, event.bytes.data(), event.length, offset) == length, "pwrite");
      return;
   case Kind::rename:
      check(::rename(path(event.file).c_str(), path(event.target).c_str()) == 0, "rename");
      named_[event.target] = &file;
      named_.erase(event.file);
      changedNames_.insert(event.file);
      changedNames_.insert(event.target);
      return;
   default:
      return;
   }
}

void Live::restore() {
   for (auto& [name, file] : files_) {
      if (!file->touched) continue;
      auto const& bytes = file->before->bytes;
      if (lengthsChanged_) check(::ftruncate(file->fd, static_cast<off_t>(bytes.size())) == 0, "ftruncate");
      if (!bytes.empty()) std::memcpy(file->map, bytes.data(), bytes.size());
      file->touched = false;
   }
   for (auto const& name : changedNames_) {
      ::unlink(path(name).c_str());
      named_.erase(name);
      if (auto const found = files_.find(name); found != files_.end()) {
         check(::link(kept(name).c_str(), path(name).c_str()) == 0, "link");
         named_[name] = found->second.get();
      }
   }
   changedNames_.clear();
   made_.clear();
   lengthsChanged_ = false;
   applied_ = 0;
}

} // namespace Test
