// SPDX-License-Identifier: Apache-2.0
// What the tests of the writer and of damage share: a root directory of the process's own, the traces that a
// start leaves, a writer with the model of its rows, and the check of the one against the other by every way
// in.
#pragma once

#include "Judge.h"
#include "TestRoot.h"
#include "TestTable.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <unistd.h>
#include <vector>

namespace Test {

/// Keeps the traces of all levels while it lives.
class Traces {
public:
   Traces() {
      ++live;
      Lomi::Platform::traceSinkIs(
          [this](unsigned level, std::string_view, std::string_view, std::string_view text) {
             lines_.push_back(fmt::format("{}: {}", level, text));
          });
   }
   ~Traces() {
      Lomi::Platform::traceSinkIs({});
      --live;
   }
   static inline int live = 0;
   /// Whether a line of this level holds the text.
   bool has(unsigned level, std::string_view text) const {
      std::string const mark = fmt::format("{}: ", level);
      return std::any_of(lines_.begin(), lines_.end(), [&](std::string const& line) {
         return line.starts_with(mark) && line.find(text) != std::string::npos;
      });
   }
   std::string text() const { return fmt::format("{}\n", fmt::join(lines_, "\n")); }

private:
   std::vector<std::string> lines_;
};

/// A handler that traces lifecycle and failures where somebody looks at them, and nothing elsewhere.
inline Lomi::Platform::DebugHandler& talking() {
   static Lomi::Platform::DebugHandler handler("talking");
   handler.maskIs(Traces::live ? 0xf : 0);
   return handler;
}

template <class R> using WriterOf = Mirak::MirakWriter<OpsOf<R>>;

template <class R>
std::unique_ptr<WriterOf<R>> open(std::string const& name, Mirak::MapDescriptor const& descriptor,
                                  Lomi::Platform::DebugHandler& handler = talking()) {
   testRoot();
   auto writer = std::make_unique<WriterOf<R>>(handler, name.c_str(), descriptor);
   writer->initialize("test");
   return writer;
}

/// Compares a table with what it must hold: by every way in, by its count and by the table's own audit. Empty
/// if all is right, else the first difference.
template <class R>
std::string difference(WriterOf<R>& writer, Content const& content, std::vector<Key> const& universe) {
   if (writer.members() != content.size())
      return fmt::format("members:{} wanted:{}", writer.members(), content.size());
   u32 const seed = Mem::loadShared(writer.slotTable().header().hashSeed);
   if (std::string wrong = judgeAll<R>(writer, content, seed, universe); !wrong.empty()) return wrong;
   std::string error;
   return writer.validate(writer.kestorId(), error, true) ? std::string() : "validate: " + error;
}

} // namespace Test
