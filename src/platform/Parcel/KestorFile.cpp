// SPDX-License-Identifier: Apache-2.0
#include "Parcel/KestorFile.h"

#include "Lomi/Exception.h"
#include "Lomi/HashMix.h"
#include "Mem/FileCalls.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Parcel {
namespace {

constexpr char const* temporaryName = "kestor.new";

struct Content {
   char magic[8];
   u32 id;
   u32 check;
};
static_assert(sizeof(Content) == KestorFile::fileSize, "part of the file format");

u32 checkOf(Content const& content) {
   Lomi::Impl::HashMix<unsigned int> hash(0x811c9dc5);
   hash.mix(&content, offsetof(Content, check));
   return hash.value();
}

Mem::Descriptor openForReading(Mem::NaoRootPath const& rootPath) {
   Mem::Descriptor const directory = rootPath.openDirectory();
   if (!directory) return {};
   return Mem::Descriptor(
       ::openat(directory.get(), KestorFile::KESTOR_NAME, O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK));
}

[[noreturn]] void throwFor(std::string const& what, Mem::FileCalls::Outcome const& outcome) {
   std::string const text = what + ": " + outcome.text();
   if (outcome.error() == ENOSPC || outcome.error() == ENOMEM || outcome.error() == EDQUOT)
      throw Lomi::MemoryResourceException(text);
   throw Lomi::RuntimeException(text);
}

// What a writer left that was killed while it wrote is no good to anybody.
void removeTemporary(Mem::Descriptor const& directory, std::string const& path, std::string const& failure) {
   if (::faccessat(directory.get(), temporaryName, F_OK, AT_SYMLINK_NOFOLLOW) != 0) return;
   auto const outcome = Mem::FileCalls::unlink(directory.get(), temporaryName, path);
   if (!outcome) throwFor(failure, outcome);
}

} // namespace

KestorFile::KestorFile(Lomi::Platform::DebugHandler const& handler, Mem::NaoRootPath const& rootPath,
                       bool local)
   : handler_(handler)
   , rootPath_(rootPath)
   , local_(local) {}

std::string KestorFile::getFilename() const { return rootPath_.str() + "/" + KESTOR_NAME; }

KestorId KestorFile::read() const {
   int error;
   return read(error);
}

KestorId KestorFile::readOrThrow() const {
   int error;
   KestorId const id = read(error);
   if (error != 0 && error != ENOENT) throwFor(fmt::format("cannot read {}", getFilename()), error);
   return id;
}

KestorId KestorFile::read(int& error) const {
   error = 0;
   if (local_) return {};
   auto const file = openForReading(rootPath_);
   Content content{};
   char extra = 0;
   ssize_t const got = file ? ::pread(file.get(), &content, sizeof(content), 0) : -1;
   if (got < 0) error = errno;
   // A byte behind the record makes the file foreign.
   if (got != sizeof(content) || ::pread(file.get(), &extra, 1, sizeof(content)) != 0) return {};
   if (std::memcmp(content.magic, "HOKESTOR", 8) != 0 || content.check != checkOf(content)) {
      LOMI_TRACE(handler_, 0, "KestorFile", "{} is malformed", getFilename());
      return {};
   }
   return KestorId(content.id);
}

void KestorFile::write(KestorId id) {
   if (local_) return;
   LOMI_ASSERT(id.value() != 0, handler_, "an id of 0 must not be written to {}", getFilename());
   rootPath_.makeDirectories();
   Mem::Descriptor const directory = rootPath_.openDirectory();
   std::string const temporary = rootPath_.str() + "/" + temporaryName;
   std::string const failure = fmt::format("cannot write {}", getFilename());
   if (!directory) throwFor(failure, errno);
   removeTemporary(directory, temporary, failure);
   Mem::FileCalls::Outcome outcome;
   Mem::Descriptor const file(
       Mem::FileCalls::createExclusive(directory.get(), temporaryName, temporary, outcome));
   if (!file) throwFor(failure, outcome);
   Content content{{'H', 'O', 'K', 'E', 'S', 'T', 'O', 'R'}, id.value(), 0};
   content.check = checkOf(content);
   outcome = Mem::FileCalls::write(file.get(), temporary, 0, &content, sizeof(content));
   if (outcome)
      outcome = Mem::FileCalls::rename(directory.get(), rootPath_.str(), temporaryName, KESTOR_NAME);
   if (!outcome) {
      static_cast<void>(Mem::FileCalls::unlink(directory.get(), temporaryName, temporary));
      throwFor(failure, outcome);
   }
   LOMI_TRACE(handler_, 5, "KestorFile", "{} {}", getFilename(), id);
}

bool KestorFile::validate(KestorId id) const {
   if (local_) return true;
   KestorId const stored = read();
   if (stored.value() == 0)
      throw Lomi::CorruptionDetectedException(
          fmt::format("{} is absent, unreadable or malformed, wanted kestor:{}", getFilename(), id));
   if (stored != id)
      throw Lomi::CorruptionDetectedException(
          fmt::format("{}: bad kestor:{} wanted:{}", getFilename(), stored, id));
   return true;
}

double KestorFile::mtime() const {
   if (local_) return 0;
   auto const file = openForReading(rootPath_);
   struct stat status {};
   if (!file || ::fstat(file.get(), &status) != 0) return 0;
   return static_cast<double>(status.st_mtim.tv_sec) + static_cast<double>(status.st_mtim.tv_nsec) * 1e-9;
}

void KestorFile::remove() {
   if (local_) return;
   Mem::Descriptor const directory = rootPath_.openDirectory();
   std::string const failure = fmt::format("cannot remove {}", getFilename());
   if (!directory && errno == ENOENT) return;
   if (!directory) throwFor(failure, errno);
   auto const outcome = Mem::FileCalls::unlink(directory.get(), KESTOR_NAME, getFilename());
   if (!outcome) throwFor(failure, outcome);
   removeTemporary(directory, rootPath_.str() + "/" + temporaryName, failure);
}

} // namespace Parcel
