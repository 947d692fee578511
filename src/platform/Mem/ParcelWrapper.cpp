// SPDX-License-Identifier: Apache-2.0
// Three numbers describe a writer's mapping: size_ <= extent_ (mapped) and size_ <= reserved_ (blocks known
// to be there). Both of the latter may run ahead: after a shrink, or after reserve(). Only releaseTailIfDue
// lowers reserved_, and it works downwards, so that [0, reserved_) stays without holes.
#include "Mem/ParcelWrapper.h"

#include "Lomi/Exception.h"
#include "Lomi/Fork.h"
#include "Mem/FileCalls.h"

#include <fmt/format.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>

namespace Mem {
namespace {

constexpr u64 writerArea = u64{4} << 30;    // as far as an offset of 32 bits reaches
constexpr double releaseDelay = 0.1;        // seconds that a stopped reader has to notice the smaller count
constexpr u64 releasePiece = u64{16} << 20; // a few milliseconds at most
constexpr int populateWrite = 23;           // MADV_POPULATE_WRITE, unknown to older C libraries

std::atomic<u64> trackedTotal{0};

double monotonic(clockid_t clock) {
   timespec now{};
   clock_gettime(clock, &now);
   return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

std::string errnoText() { return std::strerror(errno); }

bool statFile(int fd, std::string const& path, struct stat& status) {
   return (fd >= 0 ? ::fstat(fd, &status) : ::lstat(path.c_str(), &status)) == 0;
}

char* mapFile(void* at, u64 bytes, int protection, int flags, int fd, u64 offset) {
   void* const base = ::mmap(at, bytes, protection, flags, fd, static_cast<off_t>(offset));
   return base == MAP_FAILED ? nullptr : static_cast<char*>(base);
}

constexpr u64 hugePageSize = u64{2} << 20;

// Holds `bytes` (whole pages) of address space from a multiple of hugePageSize on, or from `wish` if that is
// free. Null if the kernel refuses.
char* reserveAligned(u64 bytes, void* wish) {
   u64 const more = wish ? 0 : hugePageSize - pageSize_;
   char* const from =
       mapFile(wish, bytes + more, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
   if (!from || wish) return from;
   u64 const skip = (hugePageSize - reinterpret_cast<std::uintptr_t>(from) % hugePageSize) % hugePageSize;
   if (skip) ::munmap(from, skip);
   if (skip < more) ::munmap(from + skip + bytes, more - skip);
   return from + skip;
}

char* reserveAddresses(void* wish) {
   char* const base = reserveAligned(writerArea, wish);
   if (base) ::madvise(base, writerArea, MADV_DONTFORK);
   return base;
}

} // namespace

ParcelWrapper::ParcelWrapper(Lomi::Platform::DebugHandler const& handler, NaoRootPath const& rootPath,
                             std::string fileName, bool local, void* address)
   : Debuggable(handler)
   , rootPath_(rootPath)
   , fileName_(std::move(fileName))
   , local_(local)
   , wantedAddress_(address)
   , localMemory_(handler) {}

ParcelWrapper::~ParcelWrapper() { detach(); }

std::string ParcelWrapper::getFilename() const { return rootPath_.str() + "/" + fileName_; }

char* ParcelWrapper::fail(std::string_view what, u64 size, std::string_view reason) {
   lastError_ = fmt::format("cannot {} {} for {} bytes: {}", what, getFilename(), size, reason);
   return nullptr;
}

char* ParcelWrapper::attached(char* base, u64 size) {
   base_ = base;
   size_ = base ? size : 0;
   u64 const counts = track_ ? size_ : 0;
   trackedTotal.fetch_add(counts - tracked_, std::memory_order_relaxed);
   tracked_ = counts;
   return base;
}

char* ParcelWrapper::attach(u64 size, Mode mode, void* address) {
   detach();
   mode_ = mode;
   forks_ = Lomi::forkGeneration();
   if (!address) address = wantedAddress_;
   if (size == 0 || size > Local::maxMappingSize()) return fail("attach", size, "the size is out of range");
   if (local_) {
      if (!localMemory_.attach(size, address)) return fail("attach", size, localMemory_.lastError());
      return attached(localMemory_.base(), size);
   }
   char* const base = mode == Mode::writer ? attachWriter(size, address) : attachReader(size, address);
   if (!base) {
      std::string reason = std::move(lastError_);
      detach();
      lastError_ = std::move(reason);
   }
   return base;
}

bool ParcelWrapper::openForWriting() {
   try {
      rootPath_.makeDirectories();
   } catch (Lomi::Exception const& error) {
      return fail("open", size_, error.what());
   }
   Descriptor const directory = rootPath_.openDirectory();
   if (!directory) return fail("open the directory of", 0, errnoText());
   FileCalls::Outcome outcome;
   file_ = Descriptor(FileCalls::openCreate(directory.get(), fileName_.c_str(), getFilename(), outcome));
   if (!file_) fail("open", 0, outcome.text());
   return static_cast<bool>(file_);
}

char* ParcelWrapper::attachWriter(u64 size, void* address) {
   if (!openForWriting()) return nullptr;
   u64 const before = memSize();
   base_ = reserveAddresses(address);
   area_ = base_ ? writerArea : 0;
   if (!reserveBlocks(size)) return nullptr;
   if (!mapUpTo(roundUpToPage(size))) {
      cutBackTo(before);
      return nullptr;
   }
   if (before < size) populate(before / pageSize_ * pageSize_, extent_);
   return attached(base_, size);
}

char* ParcelWrapper::attachReader(u64 size, void* address) {
   Descriptor const directory = rootPath_.openDirectory();
   if (!directory) return fail("open the directory of", size, errnoText());
   file_ = Descriptor(
       ::openat(directory.get(), fileName_.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK));
   if (!file_) return fail("open", size, errnoText());
   struct stat status {};
   if (::fstat(file_.get(), &status) != 0) return fail("look at", size, errnoText());
   if (!S_ISREG(status.st_mode)) return fail("attach", size, "it is not a regular file");
   if (static_cast<u64>(status.st_size) < size)
      return fail("attach", size, fmt::format("the file has {}", status.st_size));
#ifdef HOFLOW_TEST_SEAM
   if (sharedBase) {
      borrowed_ = true;
      return attached(base_ = sharedBase(getFilename()), size);
   }
#endif
   extent_ = roundUpToPage(size);
   char* const place = extent_ >= hugePageSize ? reserveAligned(extent_, address) : nullptr;
   char* const base = mapFile(place ? place : address, extent_, PROT_READ,
                              MAP_SHARED | (place ? MAP_FIXED : 0), file_.get(), 0);
   if (!base) return fail("map", size, errnoText());
   base_ = base;
   advise(0, extent_);
   return attached(base, size);
}

// [0, reserved_) has its blocks; asks for those up to `size`. On failure the file is as long as before.
bool ParcelWrapper::reserveBlocks(u64 size) {
   if (size <= reserved_) return true;
   u64 const before = memSize();
   u64 const from = reserved_ / pageSize_ * pageSize_;
   auto const outcome = FileCalls::allocate(file_.get(), getFilename(), from, size - from);
   if (!outcome) {
      cutBackTo(before);
      return fail("reserve room in", size, outcome.text());
   }
   reserved_ = size;
   return true;
}

// Pieces within the old length aren't given back here: whether they had blocks before isn't known, and they
// may be rows that are about to be adopted.
void ParcelWrapper::cutBackTo(u64 length) {
   if (memSize() <= length) return;
   auto const outcome = FileCalls::truncate(file_.get(), getFilename(), length);
   if (!outcome) LOMI_TRACE(debugHandler(), 0, "ParcelWrapper", "{}: {}", getFilename(), outcome.text());
   reserved_ = std::min(reserved_, length);
}

void ParcelWrapper::advise(u64 from, u64 to) {
   if (mode_ == Mode::writer) ::madvise(base_ + from, to - from, MADV_DONTFORK);
   if (dump_ >= 0) ::madvise(base_ + from, to - from, dump_ ? MADV_DODUMP : MADV_DONTDUMP);
}

// Takes the page faults now and in one call. Only a matter of speed: the blocks are there.
void ParcelWrapper::populate(u64 from, u64 to) {
   to = std::min(to, extent_);
   if (from < to) ::madvise(base_ + from, to - from, populateWrite);
}

bool ParcelWrapper::mapUpTo(u64 extent) {
   if (extent <= extent_) return true;
   if (area_) {
      if (!mapFile(base_ + extent_, extent - extent_, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_FIXED,
                   file_.get(), extent_))
         return fail("map", extent, errnoText());
   } else if (extent_) {
      void* const moved = ::mremap(base_, extent_, extent, MREMAP_MAYMOVE);
      if (moved == MAP_FAILED) return fail("remap", extent, errnoText());
      base_ = static_cast<char*>(moved);
   } else {
      char* const base = mapFile(wantedAddress_, extent, PROT_READ | PROT_WRITE, MAP_SHARED, file_.get(), 0);
      if (!base) return fail("map", extent, errnoText());
      base_ = base;
   }
   advise(extent_, extent);
   extent_ = extent;
   return true;
}

char* ParcelWrapper::resize(u64 size) {
   if (!base_) return fail("resize", size, "it is not attached");
   if (size == 0 || size > Local::maxMappingSize()) return fail("resize", size, "the size is out of range");
   if (local_) {
      if (!localMemory_.resize(size)) return fail("resize", size, localMemory_.lastError());
      return attached(localMemory_.base(), size);
   }
   return mode_ == Mode::writer ? resizeWriter(size) : resizeReader(size);
}

char* ParcelWrapper::resizeWriter(u64 size) {
   u64 const before = memSize();
   u64 const reserved = reserved_;
   if (!reserveBlocks(size)) return nullptr;
   u64 const extent = std::max(extent_, roundUpToPage(size));
#ifdef HOFLOW_TEST_SEAM
   bool const mapped = moveAlways ? moveMapping(extent) : mapUpTo(extent);
#else
   bool const mapped = mapUpTo(extent);
#endif
   if (!mapped) {
      cutBackTo(before);
      return nullptr;
   }
   keepFromRelease(size);
   if (size > reserved) populate(reserved / pageSize_ * pageSize_, roundUpToPage(size));
   return attached(base_, size);
}

char* ParcelWrapper::resizeReader(u64 size) {
   u64 const length = memSize();
   if (length < size) return fail("resize", size, fmt::format("the file has {}", length));
   u64 const extent = roundUpToPage(size);
#ifdef HOFLOW_TEST_SEAM
   if (borrowed_) return attached(base_ = sharedBase(getFilename()), size);
   if (moveAlways) return moveMapping(extent) ? attached(base_, size) : nullptr;
#endif
   if (extent != extent_) {
      char* const moved = moveReader(extent);
      if (!moved) return fail("remap", size, errnoText());
      base_ = moved;
      extent_ = extent;
   }
   return attached(base_, size);
}

// Stays where it is if it can. Otherwise, and when it becomes large, it goes to an aligned place, where the
// writer's huge pages, if it has any, serve this mapping, too.
char* ParcelWrapper::moveReader(u64 extent) {
   bool const aligned = reinterpret_cast<std::uintptr_t>(base_) % hugePageSize == 0;
   if (extent < extent_ || extent < hugePageSize || aligned) {
      void* const same = ::mremap(base_, extent_, extent, 0);
      if (same != MAP_FAILED) return base_;
   }
   char* const place = extent >= hugePageSize ? reserveAligned(extent, nullptr) : nullptr;
   void* moved = place ? ::mremap(base_, extent_, extent, MREMAP_MAYMOVE | MREMAP_FIXED, place)
                       : ::mremap(base_, extent_, extent, MREMAP_MAYMOVE);
   if (moved != MAP_FAILED) return static_cast<char*>(moved);
   int const error = errno;
   if (place) ::munmap(place, extent);
   errno = error;
   return nullptr;
}

#ifdef HOFLOW_TEST_SEAM
// Maps the file at a new place, and leaves the old one unreadable until the next move: a stale pointer is a
// fault at once and not a matter of luck.
bool ParcelWrapper::moveMapping(u64 extent) {
   bool const writer = mode_ == Mode::writer;
   char* const fresh = writer && area_ ? reserveAddresses(nullptr) : nullptr;
   char* const base = mapFile(fresh, extent, writer ? PROT_READ | PROT_WRITE : PROT_READ,
                              MAP_SHARED | (fresh ? MAP_FIXED : 0), file_.get(), 0);
   if (!base) return fail("map", extent, errnoText());
   u64 const old = area_ ? area_ : extent_;
   mapFile(base_, old, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE | MAP_FIXED, -1, 0);
   if (oldPlace_) ::munmap(oldPlace_, oldPlaceBytes_);
   oldPlace_ = base_;
   oldPlaceBytes_ = old;
   base_ = base;
   extent_ = extent;
   if (area_ && !fresh) area_ = 0;
   advise(0, extent);
   return true;
}
#endif

bool ParcelWrapper::reserve(u64 size, u64 coming) {
   if (local_) {
      // Not in pieces: each would be another block beside the present one.
      return localMemory_.reserve(std::max(size, coming)) ||
             fail("reserve room in", size, localMemory_.lastError());
   }
   if (!base_ || mode_ != Mode::writer)
      return fail("reserve room in", size, "it is not attached for writing");
   if (size > Local::maxMappingSize()) return fail("reserve room in", size, "the size is out of range");
   u64 const reserved = reserved_;
   if (!reserveBlocks(size)) return false;
   keepFromRelease(size);
   u64 const extent = roundUpToPage(size);
   if (!area_) return extent <= extent_ || addressesFor(extent);
   if (size > reserved && mapUpTo(extent)) populate(reserved / pageSize_ * pageSize_, extent);
   return true;
}

// The mapping will move when it grows, and can't move now: somebody holds pointers into it.
bool ParcelWrapper::addressesFor(u64 extent) {
   void* const place = ::mmap(nullptr, extent, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
   if (place == MAP_FAILED) return fail("find addresses for", extent, errnoText());
   ::munmap(place, extent);
   return true;
}

void ParcelWrapper::detach() {
   bool const ours = mode_ == Mode::reader || forks_ == Lomi::forkGeneration();
   if (local_) {
      localMemory_.detach();
   } else if (base_ && ours && !borrowed_) {
      // In a forked child a writer's mapping doesn't exist, and its addresses may be in use for something
      // else.
      ::munmap(base_, area_ ? area_ : extent_);
   }
#ifdef HOFLOW_TEST_SEAM
   if (oldPlace_ && ours) ::munmap(oldPlace_, oldPlaceBytes_);
   oldPlace_ = nullptr;
#endif
   borrowed_ = false;
   attached(nullptr, 0);
   file_.reset();
   extent_ = area_ = reserved_ = 0;
   releaseFrom_ = noRelease;
}

u64 ParcelWrapper::memSize() const {
   if (local_) return localMemory_.mappedSize();
   struct stat status {};
   return statFile(file_.get(), getFilename(), status) ? static_cast<u64>(status.st_size) : 0;
}

u64 ParcelWrapper::blockBytes() const {
   if (local_) return roundUpToPage(localMemory_.mappedSize());
   struct stat status {};
   return statFile(file_.get(), getFilename(), status) ? static_cast<u64>(status.st_blocks) * 512 : 0;
}

void ParcelWrapper::releaseTailAfter(u64 keepBytes) {
   if (local_ || !base_ || mode_ != Mode::writer) return;
   // A length that nobody could map is cut at once: no reader is there, and headers with it are refused.
   cutBackTo(Local::maxMappingSize() - pageSize_);
   // Rows that are mapped as the table's own are never given back, whatever the caller says.
   releaseFrom_ = roundUpToPage(std::max(keepBytes, size_));
   releaseTop_ = memSize();
   releaseDue_ = monotonic(CLOCK_MONOTONIC) + releaseDelay;
   if (releaseFrom_ >= releaseTop_) releaseFrom_ = noRelease;
}

void ParcelWrapper::keepFromRelease(u64 size) {
   if (!releasePending()) return;
   releaseFrom_ = std::max(releaseFrom_, roundUpToPage(size));
   if (releaseFrom_ >= releaseTop_) releaseFrom_ = noRelease;
}

void ParcelWrapper::releaseTailIfDue(bool now) {
   // The coarse clock runs behind the other one, never ahead: the delay isn't cut short.
   if (!releasePending() || (!now && monotonic(CLOCK_MONOTONIC_COARSE) < releaseDue_)) return;
   u64 const piece = now ? releaseTop_ : releasePiece;
   u64 const from =
       std::max(releaseFrom_, releaseTop_ > piece ? (releaseTop_ - piece) / pageSize_ * pageSize_ : 0);
   reserved_ = std::min(reserved_, from);
   auto const outcome = FileCalls::punch(file_.get(), getFilename(), from, roundUpToPage(releaseTop_) - from);
   if (!outcome)
      LOMI_TRACE(debugHandler(), 0, "ParcelWrapper", "punch {}: {}", getFilename(), outcome.text());
   releaseTop_ = from;
   if (releaseTop_ <= releaseFrom_ || !outcome) releaseFrom_ = noRelease;
}

bool ParcelWrapper::remove() {
   if (local_) return true;
   Descriptor const directory = rootPath_.openDirectory();
   if (!directory) return errno == ENOENT || fail("open the directory of", 0, errnoText());
   auto const outcome = FileCalls::unlink(directory.get(), fileName_.c_str(), getFilename());
   return outcome || fail("unlink", 0, outcome.text());
}

bool ParcelWrapper::samePathFile() const {
   if (local_) return isAttached();
   struct stat mapped {
   }, named{};
   return file_ && ::fstat(file_.get(), &mapped) == 0 && ::lstat(getFilename().c_str(), &named) == 0 &&
          mapped.st_dev == named.st_dev && mapped.st_ino == named.st_ino;
}

void ParcelWrapper::dumpToCoreIs(bool dump) {
   dump_ = dump;
   if (base_ && !local_) advise(0, extent_);
}

void ParcelWrapper::trackMemoryIs(bool track) {
   track_ = track;
   attached(base_, size_);
}

u64 ParcelWrapper::trackedBytes() { return trackedTotal.load(std::memory_order_relaxed); }

} // namespace Mem
