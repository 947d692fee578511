// SPDX-License-Identifier: Apache-2.0
// See Image.h.
#include "Image.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <stdexcept>
#include <sys/stat.h>
#include <unistd.h>

namespace Test {
namespace {

namespace fs = std::filesystem;
constexpr std::size_t page = 4096;

[[noreturn]] void fail(std::string const& what) { throw std::logic_error(what); }

std::vector<bool> backedPages(int fd, std::size_t length) {
   std::vector<bool> blocks((length + page - 1) / page);
   for (off_t at = 0; (at = ::lseek(fd, at, SEEK_DATA)) >= 0;) {
      off_t const end = ::lseek(fd, at, SEEK_HOLE);
      for (auto p = static_cast<std::size_t>(at) / page;
           p * page < static_cast<std::size_t>(end) && p < blocks.size(); ++p)
         blocks[p] = true;
      at = end;
   }
   return blocks;
}

} // namespace

std::string Event::text() const {
   static char const* const names[] = {"store", "create", "allocate", "truncate",
                                       "punch", "write",  "rename",   "unlink"};
   return fmt::format("{} {} {} at {} length {}", names[static_cast<int>(kind)], file, target, offset,
                      length);
}

Image Image::load(std::string const& directory) {
   Image image;
   if (!fs::exists(directory)) return image;
   for (auto const& entry : fs::directory_iterator(directory)) {
      int const fd = ::open(entry.path().c_str(), O_RDONLY | O_CLOEXEC);
      struct stat status {};
      if (fd < 0 || ::fstat(fd, &status) != 0) fail("cannot read " + entry.path().string());
      File& file = image.files[entry.path().filename()];
      file.bytes.resize(static_cast<std::size_t>(status.st_size));
      // pread of a hole on tmpfs allocates nothing.
      file.blocks = backedPages(fd, file.bytes.size());
      if (::pread(fd, file.bytes.data(), file.bytes.size(), 0) != static_cast<ssize_t>(file.bytes.size()))
         fail("short read of " + entry.path().string());
      ::close(fd);
   }
   return image;
}

void Image::store(std::string const& directory) const {
   fs::create_directories(directory);
   for (auto const& entry : fs::directory_iterator(directory)) fs::remove(entry.path());
   for (auto const& [name, file] : files) {
      std::string const path = directory + "/" + name;
      int const fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
      if (fd < 0 || ::ftruncate(fd, static_cast<off_t>(file.bytes.size())) != 0) fail("cannot make " + path);
      for (std::size_t p = 0; p < file.blocks.size(); ++p) {
         std::size_t const length = std::min(page, file.bytes.size() - p * page);
         if (file.blocks[p] &&
             ::pwrite(fd, file.bytes.data() + p * page, length, static_cast<off_t>(p * page)) < 0)
            fail("cannot write " + path);
      }
      ::close(fd);
   }
}

std::string Image::difference(Image const& other) const {
   std::string text;
   for (auto const& [name, file] : files) {
      auto const found = other.files.find(name);
      if (found == other.files.end()) {
         text += fmt::format("only one has {}; ", name);
      } else if (!(found->second == file)) {
         auto const& a = file.bytes;
         auto const& b = found->second.bytes;
         auto const at = std::mismatch(a.begin(), a.end(), b.begin(), b.end()).first - a.begin();
         text += fmt::format("{} ({} and {} bytes) differs at {}; ", name, a.size(), b.size(), at);
      }
   }
   for (auto const& [name, file] : other.files)
      if (!has(name)) text += fmt::format("only the other has {}; ", name);
   return text;
}

} // namespace Test
