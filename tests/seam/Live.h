// SPDX-License-Identifier: Apache-2.0
// A table's files while a writer's recorded changes are made to them, one by one, under the eyes of a reader
// that has them open; and taken back again, as often as one likes. The files keep their inodes, so the
// reader's mappings stay valid from schedule to schedule.
//
// A strict one refuses what no sound writer does: a store beyond the file, or into a hole, which could be a
// SIGBUS on a full file system.
#pragma once

#include "Image.h"

#include <memory>
#include <set>

namespace Test {

class Live {
public:
   /// The directory holds `before` from now on. `events` must outlive this.
   Live(std::string directory, Image before, Events const& events, bool strict = false);
   ~Live();
   Live(Live const&) = delete;
   Live& operator=(Live const&) = delete;

   /// Makes the changes up to number `at` (not included). Never goes back. Throws std::logic_error if strict.
   void applyTo(std::size_t at);
   std::size_t applied() const { return applied_; }
   /// The files as they are now.
   Image image() const { return Image::load(directory_); }
   /// Everything is again as before.
   void restore();

private:
   struct File;
   File* open(std::string const& name, bool make);
   void apply(Event const& event);
   std::string path(std::string const& name) const { return directory_ + "/" + name; }
   std::string kept(std::string const& name) const { return directory_ + ".kept/" + name; }

   std::string directory_;
   Image before_;
   Events const& events_;
   bool const strict_;
   std::map<std::string, std::size_t> extents_; // the longest that each file becomes
   std::map<std::string, std::unique_ptr<File>> files_;
   std::map<std::string, File*> named_; // the files under their present names
   std::vector<std::unique_ptr<File>> made_;
   std::vector<File*> target_; // of each store event, as far as known in advance
   std::size_t applied_ = 0;
   std::set<std::string> changedNames_;
   bool lengthsChanged_ = false;
};

} // namespace Test
