// SPDX-License-Identifier: Apache-2.0
// One table with its writer, on real files, and the model of what it holds. An operation is recorded as the
// changes that it makes (Recorder.h), from which other tests build the table as it was at any moment of it.
#pragma once

#include "Recorder.h"
#include "TestRoot.h"
#include "TestTable.h"

#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <optional>
#include <unistd.h>

namespace Test {

inline std::string tableDirectory(std::string const& name) { return testRoot() + "/" + name; }

/// The id in a kestor file's bytes; 0 if there is none.
inline u32 kestorOf(Image const& image) {
   auto const found = image.files.find("kestor");
   if (found == image.files.end() || found->second.bytes.size() < 16) return 0;
   u32 id;
   std::memcpy(&id, found->second.bytes.data() + 8, 4);
   return id;
}

/// The mapped files of a writer, by their names.
template <class Writer> std::map<std::string, Mem::ParcelWrapper const*> filesOf(Writer& writer) {
   std::map<std::string, Mem::ParcelWrapper const*> files{{"slots", &writer.slotTable().wrapper()},
                                                          {"buckets", &writer.hashMap().buckets().wrapper()}};
   if constexpr (Writer::OpsType::hasChangeQueue)
      for (auto const* wrapper : writer.queue().tesselWriter.wrappers())
         files[std::filesystem::path(wrapper->getFilename()).filename()] = wrapper;
   return files;
}

template <class R> class Bench {
public:
   using Ops = OpsOf<R>;
   using Writer = Mirak::MirakWriter<Ops>;

   Bench(std::string name, Mirak::MapDescriptor const& descriptor)
      : name_(std::move(name))
      , descriptor_(descriptor) {
      std::filesystem::remove_all(directory());
   }

   std::string const& name() const { return name_; }
   std::string directory() const { return tableDirectory(name_); }
   Writer& writer() { return *writer_; }
   u32 seed() { return Mem::loadShared(writer_->slotTable().header().hashSeed); }

   /// The settings of the next start.
   void descriptorIs(Mirak::MapDescriptor const& descriptor) { descriptor_ = descriptor; }
   /// A writer on whatever lies in the directory.
   void start() {
      construct();
      writer_->initialize("test");
      if (writer_->members() == 0) content.clear();
   }
   /// The object alone.
   void construct() {
      writer_.reset();
      writer_ = std::make_unique<Writer>(quiet(), name_.c_str(), descriptor_);
      if (recorder_) watch();
   }
   /// The writer ends without a word: its files live on in another directory, without its lock.
   void die() {
      Image const left = Image::load(directory());
      name_ += "x";
      left.store(directory());
      writer_.reset();
   }
   void put(Key key, bool overwrite = true) {
      writer_->write(R::make(key, ++generation_), overwrite);
      if (overwrite || !content.count(key)) content[key] = generation_;
   }
   void remove(Key key) {
      R removed;
      if (writer_->remove(key, removed) != (content.erase(key) == 1))
         throw std::logic_error("remove is wrong");
   }
   /// Direct mode stores through the seam here, so that it is seen like any other store.
   void directPut(Key key) {
      fill(writer_->directWrite(R{key}), key);
      writer_->directCommit();
   }
   void directUpdate(Key key) {
      fill(writer_->directUpdate(key), key);
      writer_->directCommit();
   }
   /// Halves the bucket table down to `buckets`. Only without rows.
   void shrinkTo(u32 buckets) {
      Key const passing{0, 999};
      while (writer_->buckets() > buckets) {
         put(passing);
         remove(passing);
      }
   }
   /// Changes bytes of a file behind everybody's back.
   void poke(std::string const& file, std::size_t offset, std::string const& bytes) {
      std::fstream out(directory() + "/" + file, std::ios::in | std::ios::out | std::ios::binary);
      out.seekp(static_cast<long>(offset));
      out.write(bytes.data(), static_cast<long>(bytes.size()));
   }
   void unlink(std::string const& file) { std::filesystem::remove(directory() + "/" + file); }

   Recorder& record() {
      recorder_.emplace(directory());
      watch();
      return *recorder_;
   }
   void stopRecording() { recorder_.reset(); }

   Content content;

private:
   void fill(R* place, Key key) {
      R const row = R::make(key, ++generation_);
      Mem::storeShared(place, &row, sizeof row);
      content[key] = generation_;
   }
   void watch() {
      if (writer_)
         recorder_->watch(filesOf(*writer_));
      else
         recorder_->watch({});
   }

   std::string name_;
   Mirak::MapDescriptor descriptor_;
   std::unique_ptr<Writer> writer_;
   std::optional<Recorder> recorder_;
   u32 generation_ = 0;
};

/// What a writer does, as a test describes it.
template <class R> struct Scenario {
   using Act = std::function<void(Bench<R>&)>;
   std::string name;
   Mirak::MapDescriptor descriptor;
   Act setup;
   std::vector<Act> acts;
   /// The acts start a writer, or end a table: readers may be refused, rows may be lost.
   bool restarts = false;
   bool damaged = false; ///< what is there before the acts may be called corrupt
};

/// What it did, event by event, and what the table held between its acts.
template <class R> struct Recording {
   Image before, after;
   Events events;
   std::vector<Content> contents; ///< before the first act, after the first, ...
   std::vector<std::size_t> ends; ///< number of events when each act had ended
   std::size_t uncertain = 0;     ///< so many of the contents' successors may show before any event
   u32 seed = 0;                  ///< of the table before, 0 if there was none

   /// The acts whose outcome may show when `at` events have happened: from (all that have ended) to (begun).
   std::size_t lowest(std::size_t at) const {
      std::size_t n = 0;
      while (n < ends.size() && ends[n] <= at) ++n;
      return n;
   }
   std::size_t highest(std::size_t at) const {
      std::size_t n = 0;
      while (n < ends.size() && (n == 0 ? 0 : ends[n - 1]) < at) ++n;
      return std::max(n, uncertain);
   }
};

template <class R> Recording<R> record(Scenario<R> const& scenario, std::string const& directory) {
   Bench<R> bench(directory, scenario.descriptor);
   scenario.setup(bench);
   Recording<R> out;
   out.before = Image::load(bench.directory());
   out.contents.push_back(bench.content);
   if (auto const slots = out.before.files.find("slots"); slots != out.before.files.end())
      std::memcpy(&out.seed, slots->second.bytes.data() + offsetof(Mirak::SlotTableHeader, hashSeed), 4);
   Recorder& recorder = bench.record();
   for (auto const& act : scenario.acts) {
      act(bench);
      out.contents.push_back(bench.content);
      out.ends.push_back(recorder.events.size());
   }
   out.events = recorder.events;
   bench.stopRecording();
   out.after = Image::load(bench.directory());
   return out;
}

} // namespace Test
