// SPDX-License-Identifier: Apache-2.0
// What the tests of shadows share: a table of small rows, and a client that adds up what it is told.
#pragma once

#include "Loop.h"
#include "Mirak/MirakMap.h"
#include "Poke.h"
#include "TestTable.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace Test {

using R = Row<61, true>; // 8 slots in the first page
using ShadowOps = OpsOf<R>;
using Writer = Mirak::MirakWriter<ShadowOps>;
using Mirak::MapDescriptor;
using Mirak::MirakType;
using Log = std::vector<std::string>;

} // namespace Test

extern template class Mirak::MirakReader<Test::ShadowOps>;
extern template class Mirak::MirakWriter<Test::ShadowOps>;
extern template class Mirak::MirakMap<Test::ShadowOps>;

namespace Test {

inline Key keyOf(u32 number) { return {number * 0x9e3779b1u, number}; }

inline std::unique_ptr<Writer> newWriter(std::string const& table,
                                         MapDescriptor const& descriptor = MapDescriptor(64)) {
   auto writer = std::make_unique<Writer>(quiet(), table.c_str(), descriptor, ShadowOps{});
   if (!writer->initialize("test")) throw std::runtime_error("no writer for " + table);
   return writer;
}

template <class BackEnd> Content contentOf(BackEnd const& table) {
   Content rows;
   R row;
   Mirak::IterHint hint;
   for (bool more = table.first(row, hint); more; more = table.next(row.key(), row, hint)) {
      if (!row.sound()) throw std::logic_error("torn row " + row.str());
      if (!rows.emplace(row.key(), row.generation()).second)
         throw std::logic_error("met twice: " + row.str());
   }
   return rows;
}

/// The first difference, or empty.
inline std::string difference(Content const& got, Content const& wanted) {
   for (auto const& [key, generation] : wanted) {
      auto const at = got.find(key);
      if (at == got.end()) return fmt::format("{}@{} is missing", key.str(), generation);
      if (at->second != generation)
         return fmt::format("{}@{} instead of @{}", key.str(), at->second, generation);
   }
   for (auto const& [key, generation] : got)
      if (!wanted.contains(key)) return fmt::format("{}@{} is too much", key.str(), generation);
   return {};
}

inline MapDescriptor shadowSettings(bool keyOnly, bool tellFlush = true, bool synchronous = true) {
   MapDescriptor descriptor(0);
   descriptor.type = keyOnly ? MirakType::keyshadow : MirakType::shadow;
   descriptor.shadowOption = tellFlush;
   descriptor.synchronous = synchronous;
   return descriptor;
}

/// Each resize of memory moves it.
struct MovingMemory {
   MovingMemory() { Mem::ParcelWrapper::moveAlways = true; }
   ~MovingMemory() { Mem::ParcelWrapper::moveAlways = false; }
};

/// No traces while it lives: readers that are overtaken say so by the thousand.
struct Silence {
   Silence() { Lomi::Platform::defaultMaskIs(0); }
   ~Silence() { Lomi::Platform::defaultMaskIs(1); }
};

/// A collection whose client adds up what it is told of rows, and notes the rest.
class Client : public Mirak::MirakMap<ShadowOps> {
   using Base = Mirak::MirakMap<ShadowOps>;

public:
   using Base::mounter_;
   using Base::notify;

   explicit Client(std::string const& table)
      : Base(table) {
      testRoot();
      notify.changeFn = [this](R const& row) { tellRow(row.key(), row.generation(), row.sound()); };
      notify.keyFn = [this](Key const& key) {
         bool found = false;
         R row;
         safeLookup(key, found, &row);
         // Gone by now: its removal will be told.
         tellRow(key, found ? row.generation() : 0, !found || (row.sound() && row.key() == key));
      };
      notify.keyDelFn = [this](Key const& key) {
         ++removals;
         if (heard.erase(key) == 0) complain("removal of a row that was never told: " + key.str());
         if (inCall) inCall("removed " + key.str());
      };
      notify.quiescedFn = [this](bool quiesced) { note(quiesced ? "quiesced" : "not quiesced"); };
      notify.mountStatusFn = [this] {
         note(fmt::format("status {}", static_cast<int>(this->mountStatus())));
      };
      backIs(createDefaultLocalWriter(*debugHandler));
   }

   u64 calls() const { return changes + removals; }
   Log takeLog() { return std::exchange(log, {}); }
   void complain(std::string text) {
      if (complaint.empty()) complaint = std::move(text);
   }

   Content heard; ///< what the callbacks on rows add up to
   u64 changes = 0, removals = 0;
   std::string complaint;
   Log log;                                        ///< all other callbacks
   std::function<void(std::string const&)> inCall; ///< run in each callback; may throw

private:
   void tellRow(Key const& key, u32 generation, bool sound) {
      ++changes;
      if (!sound) complain("torn row " + key.str());
      heard[key] = generation;
      if (inCall) inCall("row " + key.str());
   }
   void note(std::string what) {
      log.push_back(std::move(what));
      if (inCall) inCall(log.back());
   }
};

} // namespace Test
