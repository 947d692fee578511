// SPDX-License-Identifier: Apache-2.0
// A collection whose client writes down what it is told, and a process that writes a table on command.
#pragma once

#include "Mem/DirectoryWatch.h"
#include "Mirak/MirakMap.h"
#include "Servant.h"
#include "TestRoot.h"
#include "TestTable.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <filesystem>
#include <memory>
#include <string>
#include <unistd.h>
#include <vector>

// Instantiated once, in Support.cpp.
extern template class Mirak::MirakReader<Test::OpsOf<Test::Row<5, true>>>;
extern template class Mirak::MirakWriter<Test::OpsOf<Test::Row<5, true>>>;
extern template class Mirak::MirakMap<Test::OpsOf<Test::Row<5, true>>>;
extern template class Mirak::MirakReader<Test::OpsOf<Test::Row<5>>>;
extern template class Mirak::MirakWriter<Test::OpsOf<Test::Row<5>>>;
extern template class Mirak::MirakMap<Test::OpsOf<Test::Row<5>>>;

namespace Test {

namespace fs = std::filesystem;
using Mirak::MapDescriptor;
using Mirak::MirakType;
using QueuedOps = OpsOf<Row<5, true>>;
using PlainOps = OpsOf<Row<5>>;
using Log = std::vector<std::string>;

/// Only inotify can be what makes something happen while this lives.
struct NoPoll {
   NoPoll() { Mem::DirectoryWatch::pollPeriodIs(3600); }
   ~NoPoll() { Mem::DirectoryWatch::pollPeriodIs(5); }
};

/// Traces of all levels up to `level`, instead of stderr; kept to be looked at.
class Traces {
public:
   explicit Traces(unsigned level, bool keep = true) {
      Lomi::Platform::defaultMaskIs((2u << level) - 1);
      Lomi::Platform::traceSinkIs(
          [this, keep](unsigned, std::string_view, std::string_view, std::string_view text) {
             if (keep) lines.emplace_back(text);
          });
   }
   ~Traces() {
      Lomi::Platform::traceSinkIs({});
      Lomi::Platform::defaultMaskIs(1);
   }
   std::size_t count(std::string_view part) const {
      std::size_t found = 0;
      for (auto const& line : lines) found += line.find(part) != std::string::npos;
      return found;
   }
   std::vector<std::string> lines;
};

inline MapDescriptor settings(MirakType type, u32 size = 100) {
   MapDescriptor descriptor(size);
   descriptor.type = type;
   descriptor.synchronous = true;
   return descriptor;
}

template <class Ops> class Client : public Mirak::MirakMap<Ops> {
   using Base = Mirak::MirakMap<Ops>;

public:
   using Base::assertOnOrphanAccess;
   using Base::mounter_;
   using Base::notify;
   using typename Base::BackEnd;
   using typename Base::Value;

   explicit Client(std::string const& table)
      : Base(table) {
      testRoot();
      notify.quiescedFn = [this](bool quiesced) { hear(quiesced ? "quiesced" : "not quiesced"); };
      notify.mountStatusFn = [this] {
         hear(fmt::format("status {}", static_cast<int>(this->mountStatus())));
      };
      notify.keyDelFn = [this](Key const& key) { hear("removed " + key.str()); };
      this->backIs(this->createDefaultLocalWriter(*this->debugHandler));
   }
   bool mounted() const { return this->readerFullyAttached(); }
   bool put(u32 number, u32 generation) {
      return this->safeWrite(Value::make({number, number}, generation)) != nullptr;
   }
   /// The generation of a row, 0 if there is none.
   u32 get(u32 number) const {
      bool found = true;
      Value buffer;
      auto const* const row = this->safeLookup({number, number}, found, &buffer);
      return found ? (row->sound() ? row->generation() : ~0u) : 0;
   }
   /// Takes what was heard.
   Log heard() { return std::exchange(log, {}); }

   Log log;
   std::function<void(std::string const&)> inCall; ///< run in each callback

private:
   void hear(std::string const& what) {
      log.push_back(what);
      if (inCall) inCall(what);
   }
};

inline Log const mountedLog{"quiesced", "status 1"};
inline Log const detachedLog{"not quiesced", "status 0"};

/// A process with one collection that does what it is told:
///   i init   w write a row with generation N   d controlDetach   c cleanupAndDetach   o nothing
class WriterProcess {
public:
   explicit WriterProcess(std::string name)
      : name_(std::move(name)) {}

   /// A new process, which has mounted the table.
   void start() {
      servant_.emplace([this] {
         static Traces const quietly(0);
         auto const table = std::make_shared<Client<QueuedOps>>(name_);
         return [table](Command const& command) {
            if (command.what == 'i') table->init(settings(MirakType::writer));
            if (command.what == 'w') table->put(command.number, command.number);
            if (command.what == 'd') table->controlDetach();
            if (command.what == 'c') table->cleanupAndDetach();
         };
      });
      ask('i');
   }
   void ask(char what, u32 number = 0) { servant_->ask({what, number}); }
   void kill() { servant_.reset(); }
   Child& process() { return servant_->process(); }

private:
   struct Command {
      char what;
      u32 number;
   };
   std::string name_;
   std::optional<Servant<Command>> servant_;
};

inline std::string fileOf(std::string const& table, char const* file) {
   return testRoot() + "/" + table + "/" + file;
}

} // namespace Test
