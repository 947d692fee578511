// SPDX-License-Identifier: Apache-2.0
// One mapped file of a table, or private memory in its place for a local table.
//
// Writer. The blocks of every byte that may be stored to are reserved before it can be: over the whole range
// at attach, over the new range at each growth, also where the file is long enough already, since length says
// nothing of blocks. So a full file system is a failed resize and never a signal. The writer keeps 4 GiB of
// address space for the file, and the base stays where it is while the file grows; only where the kernel
// refuses that reservation may a growth move it. A shrink leaves length, blocks and mapping alone;
// releaseTailAfter gives the blocks back a moment later, when readers have seen the smaller count. The length
// never falls, except one beyond what anybody can map, which a start finds and cuts.
//
// From 2 MiB on mappings begin at a multiple of 2 MiB, so that huge pages serve them where the mount gives
// its files such (tmpfs: huge=always). They aren't asked for: the kernel makes one of small pages only after
// it has waited for every other processor, and a busy one would hold up the writer.
//
// Reader. O_RDONLY, PROT_READ, no system call that changes anything. A resize follows the file and refuses to
// map more than there is.
//
// What remains: a reader that is stopped between two loads for longer than the delay may read a page that has
// been given back. It gets zeros, its version check fails, it starts over. On tmpfs such a read takes a page
// again, and if the file system is full by then, the kernel answers with SIGBUS.
//
// One thread per object. A forked child doesn't have the writer's mapping, and must not use the object.
#pragma once

#include "Mem/Local.h"
#include "Mem/Paths.h"

#include <algorithm>
#include <string>
#include <string_view>

namespace Mem {

enum class Mode { writer = 0, reader = 1 };

class HOFLOW_EXPORT ParcelWrapper : public Lomi::Debuggable {
public:
   /// Touches no file. `address` is a wish for the base, null for none. For a local table nothing of the path
   /// is ever used.
   ParcelWrapper(Lomi::Platform::DebugHandler const& handler, NaoRootPath const& rootPath,
                 std::string fileName, bool local, void* address = nullptr);
   ParcelWrapper(ParcelWrapper const&) = delete;
   ParcelWrapper& operator=(ParcelWrapper const&) = delete;
   ~ParcelWrapper();

   /// Maps the first `size` bytes. A writer makes directories and file if they are missing. Null on failure,
   /// with lastError() set and nothing mapped. What was attached before is detached.
   char* attach(u64 size, Mode mode, void* address = nullptr);
   /// The mapping now covers `size` bytes. The base may differ. Null on failure, with everything left as it
   /// was; a file that was made longer is cut back. The bytes that a growth adds may hold what an earlier
   /// shrink left.
   char* resize(u64 size);
   /// Writer: does the slow part of a later resize to `size` now: blocks, and where the base can stay, pages.
   /// False with lastError() set if there is no room; the file's length is what it was then.
   /// @param coming what will be asked for piece by piece; private memory is taken at once
   bool reserve(u64 size, u64 coming = 0);
   void detach();

   bool isAttached() const { return base_ != nullptr; }
   char* base() const { return base_; }
   u64 mappedSize() const { return size_; } // as attach or resize was told
   /// Writer: bytes from the base on that may be stored to; more than mappedSize() after a reserve().
   u64 writableSize() const { return local_ ? size_ : std::min(extent_, reserved_); }
   /// The file's present length, also before attach; 0 if there is none. Private memory: its size.
   u64 memSize() const;
   u64 fileSize() const { return memSize(); }
   /// Bytes of memory that the file takes now, 0 if there is none.
   u64 blockBytes() const;
   std::string getFilename() const; // full path
   std::string const& lastError() const { return lastError_; }

   /// Writer: the blocks of [keepBytes rounded up to a page, end of file) may go, 100 ms from now at the
   /// earliest. A growth before that takes back its part. Less than a page is never worth a call.
   void releaseTailAfter(u64 keepBytes);
   bool releasePending() const { return releaseFrom_ != noRelease; }
   /// If the time has come, gives back a bounded piece, so that no call is long. With `now`, all of it at
   /// once.
   void releaseTailIfDue(bool now = false);

   /// Unlinks the file; an absent one is no failure. The mapping stays.
   bool remove();
   /// Whether the path still leads to the mapped file. False if the file was removed or replaced, or isn't
   /// attached.
   bool samePathFile() const;

   /// Whether a core file shall hold the mapping. The kernel's rule until set.
   void dumpToCoreIs(bool dump);
   /// Counts this mapping in trackedBytes() from now on.
   void trackMemoryIs(bool track);
   /// Bytes in all mappings of the process for which trackMemoryIs(true) was said.
   static u64 trackedBytes();
   /// Local tables: memory from the heap instead of pages. Before attach.
   void useHeapIs(bool heap) { localMemory_.useHeapIs(heap); }

#ifdef HOFLOW_TEST_SEAM
   static inline bool moveAlways = false; // each resize moves the base, and the old place is left unreadable
   // Gives the base of a writer of this process, by the file's path. Readers then map nothing and read there:
   // a race detector knows two accesses as one place only by their address.
   static inline char* (*sharedBase)(std::string const& path) = nullptr;
#endif

private:
   static constexpr u64 noRelease = ~u64{0};

   char* attachWriter(u64 size, void* address);
   char* attachReader(u64 size, void* address);
   char* resizeWriter(u64 size);
   char* resizeReader(u64 size);
   bool openForWriting();
   char* moveReader(u64 extent);
   bool reserveBlocks(u64 size);
   bool addressesFor(u64 extent);
   void cutBackTo(u64 length);
   void keepFromRelease(u64 size);
   bool mapUpTo(u64 extent);
   void advise(u64 from, u64 to);
   void populate(u64 from, u64 to);
   char* attached(char* base, u64 size);
   char* fail(std::string_view what, u64 size, std::string_view reason);

   NaoRootPath rootPath_;
   std::string fileName_;
   bool const local_;
   void* const wantedAddress_;
   Mode mode_ = Mode::writer;
   Descriptor file_;
   char* base_ = nullptr;
   u64 size_ = 0;     // what the owner asked for
   u64 extent_ = 0;   // what is mapped, whole pages
   u64 area_ = 0;     // address space held at base_, 0 if none is
   u64 reserved_ = 0; // blocks of [0, reserved_) are known to be there
   u64 releaseFrom_ = noRelease;
   u64 releaseTop_ = 0; // the release goes downwards from here
   double releaseDue_ = 0;
   int dump_ = -1; // -1 unset, else bool
   bool track_ = false;
   bool borrowed_ = false; // the mapping is a writer's
   u64 tracked_ = 0;
   std::uint32_t forks_ = 0;
   std::string lastError_;
   Local localMemory_;
#ifdef HOFLOW_TEST_SEAM
   bool moveMapping(u64 extent);
   char* oldPlace_ = nullptr;
   u64 oldPlaceBytes_ = 0;
#endif
};

} // namespace Mem
