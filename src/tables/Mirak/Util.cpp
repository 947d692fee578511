// SPDX-License-Identifier: Apache-2.0
// Helpers around a table's directory. See Util.h.
#include "Mirak/Util.h"

#include "Lomi/Exception.h"
#include "Mem/FileCalls.h"
#include "Mirak/SlotTable.h"
#include "MirakCore/BucketTable.h"
#include "Parcel/KestorFile.h"

#include <atomic>
#include <cerrno>
#include <cpuid.h>
#include <cstring>
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Mirak::Util {

namespace {
std::atomic<bool> strict{false};
std::atomic<bool> markers{true};
} // namespace

void writeCorruptionFile(Lomi::Platform::DebugHandler const& handler, std::string const& directory,
                         std::string const& error) {
   if (!markers) return;
   std::string const path = directory + "/" + corruptionFileName;
   // O_NONBLOCK: opening a pipe of that name must not wait, nor may the text go into one.
   Mem::Descriptor const file(
       open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0644));
   struct stat status;
   if (!file || fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode)) return;
   std::string const text = error + "\n";
   // A marker that is cut short still marks; there is nobody to tell.
   if (write(file.get(), text.data(), text.size()) < 0)
      LOMI_TRACE(handler, 3, "Util", "cannot write {}: {}", path, std::strerror(errno));
}

bool isDamage(Lomi::Platform::DebugHandler const& handler, Mem::NaoRootPath const& rootPath,
              Parcel::KestorId kestor, std::string const* reason) {
   Parcel::KestorFile const file(handler, rootPath, false);
   if (file.read() != kestor) return false;
   if (!reason) return true;
   writeCorruptionFile(handler, rootPath.str(), *reason);
   if (file.read() == kestor) return true;
   // A format began in between: the marker would be taken for a word on the new table.
   try {
      removeCorruptionFile(rootPath);
   } catch (Lomi::RuntimeException const& e) {
      LOMI_TRACE(handler, 3, "Util", "{}", e.what());
   }
   return false;
}

void removeFile(Mem::NaoRootPath const& rootPath, char const* fileName) {
   Mem::Descriptor const directory = rootPath.openDirectory();
   if (!directory) return;
   std::string const path = rootPath.str() + "/" + fileName;
   if (auto const outcome = Mem::FileCalls::unlink(directory.get(), fileName, path); !outcome)
      throw Lomi::RuntimeException(fmt::format("cannot remove {}: {}", path, outcome.text()));
}

void removeCorruptionFile(Mem::NaoRootPath const& rootPath) { removeFile(rootPath, corruptionFileName); }

void validateFile(Lomi::Platform::DebugHandler const& handler, std::string const& fileName, u64 size) {
   struct stat status;
   std::string failure;
   if (lstat(fileName.c_str(), &status) != 0)
      failure = fmt::format("cannot stat {}: {}", fileName, std::strerror(errno));
   else if (!S_ISREG(status.st_mode))
      failure = fmt::format("{} is not a regular file", fileName);
   else if (static_cast<u64>(status.st_size) < size)
      failure = fmt::format("{} has {} bytes, wanted at least {}", fileName, status.st_size, size);
   if (failure.empty()) return;
   LOMI_TRACE(handler, 0, "Util", "{}", failure);
   throw Lomi::CorruptionDetectedException(failure);
}

Parcel::KestorId newKestorId() {
   static std::atomic<Mem::u16> counter{0};
   for (;;) {
      Parcel::KestorId const id(static_cast<Mem::u16>(getpid()), counter.fetch_add(1));
      if (id.value() != 0) return id;
   }
}

u32 storedKestor(Mem::NaoRootPath const& rootPath, char const* fileName) {
   constexpr off_t offset = offsetof(SlotTableHeader, kestor);
   static_assert(offset == offsetof(MirakCore::BucketTableHeader, kestor));
   Mem::Descriptor const directory = rootPath.openDirectory();
   if (!directory) return 0;
   Mem::Descriptor const file(
       openat(directory.get(), fileName, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
   u32 kestor = 0;
   if (!file || pread(file.get(), &kestor, sizeof kestor, offset) != sizeof kestor) return 0;
   return kestor;
}

bool runningOnPhysicalDut() {
   unsigned a, b, c, d;
   constexpr unsigned hypervisorPresent = 1u << 31;
   return __get_cpuid(1, &a, &b, &c, &d) && !(c & hypervisorPresent);
}

void corruptionMarkersIs(bool leave) { markers = leave; }

bool strictValidation() { return strict; }
void strictValidationIs(bool on) { strict = on; }

} // namespace Mirak::Util
