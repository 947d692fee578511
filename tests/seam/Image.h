// SPDX-License-Identifier: Apache-2.0
// A table's directory as bytes in memory, and the changes that a writer makes to it, one by one. A writer's
// operation is recorded as a list of events (Recorder.h); making the first k of them to the files of before
// (Live.h) gives what a writer that died there leaves behind. An image keeps holes as holes.
#pragma once

#include "Mem/Seam.h"

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace Test {

struct Event {
   enum class Kind { store, create, allocate, truncate, punch, write, rename, unlink } kind;
   std::string file;        // within the directory
   std::string target = {}; // rename
   std::uint64_t offset = 0;
   std::uint64_t length = 0;
   std::string bytes = {}; // store, write

   std::string text() const;
};
using Events = std::vector<Event>;

class Image {
public:
   struct File {
      std::vector<char> bytes;
      std::vector<bool> blocks; // one for each page
      bool operator==(File const& other) const { return bytes == other.bytes; }
   };

   /// Reads a directory's files. Pages count as backed where the file system says so.
   static Image load(std::string const& directory);
   /// Makes the directory hold exactly this, each file with a new inode.
   void store(std::string const& directory) const;

   bool has(std::string const& file) const { return files.count(file) != 0; }
   /// The files that differ, in words; empty if none does.
   std::string difference(Image const& other) const;

   std::map<std::string, File> files;
};

} // namespace Test
