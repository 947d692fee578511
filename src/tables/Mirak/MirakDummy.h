// SPDX-License-Identifier: Apache-2.0
// The placeholders that stand in a collection while there is no table. MirakDummy answers as an empty
// read-only table: a reader that waits for its writer, a collection after detach. MirakStrictDummy makes
// every access a programming error that stops the process: its owner has said that nobody may touch the
// collection any more.
//
// A placeholder may own the back end that it replaced, so that cleanup() still reaches it.
#pragma once

#include "Lomi/Trace.h"
#include "Mirak/KeyText.h"
#include "Mirak/MirakInterface.h"

#include <memory>
#include <utility>

namespace Mirak {

/// What both placeholders share: who they stand for, and the back end behind them.
template <class Ops> class HOFLOW_EXPORT PlaceholderBase : public MirakInterface<Ops> {
public:
   using typename MirakInterface<Ops>::Key;
   using typename MirakInterface<Ops>::Value;

   PlaceholderBase(Lomi::Platform::DebugHandler const& handler, std::string name, Ops const& ops,
                   std::unique_ptr<MirakInterfaceBase> prevBack)
      : ops_(ops)
      , debugHandler_(handler)
      , name_(std::move(name))
      , rootPath_(handler, name_, true) // a collection that no table can be mounted at has one, too
      , prevBack_(std::move(prevBack)) {}

   bool validate() override { return trace(__func__), true; }
   bool validateFiles() override { return trace(__func__), true; }
   void detach(bool) override { trace(__func__); }
   void cleanup() override {
      trace(__func__);
      if (prevBack_) prevBack_->cleanup();
   }
   Mem::NaoRootPath rootPath() const override { return rootPath_; }
   std::string mirakName() const override { return rootPath_.dirName(); }
   bool callsBack() const override { return prevBack_ && prevBack_->callsBack(); }
   /// Hands over the back end behind it, for another placeholder that takes this one's place.
   std::unique_ptr<MirakInterfaceBase> takePrevBack() { return std::move(prevBack_); }
   void prevBackIs(std::unique_ptr<MirakInterfaceBase> prevBack) { prevBack_ = std::move(prevBack); }

protected:
   void trace(char const* operation) const {
      // LOMI_TRACE would name this function.
      if (debugHandler_.traces(5))
         Lomi::fmtrace(debugHandler_, 5, "MirakDummy", operation, "{}", rootPath_.str());
   }

   Ops ops_;
   Lomi::Platform::DebugHandler const& debugHandler_;
   std::string name_;
   Mem::NaoRootPath rootPath_;
   std::unique_ptr<MirakInterfaceBase> prevBack_;
};

template <class Ops> class HOFLOW_EXPORT MirakDummy final : public PlaceholderBase<Ops> {
   using Base = PlaceholderBase<Ops>;
   using Base::trace;

public:
   using typename Base::Key;
   using typename Base::Value;

   MirakDummy(Lomi::Platform::DebugHandler const& handler, std::string name, Ops const& ops,
              std::unique_ptr<MirakInterfaceBase> prevBack = nullptr)
      : Base(handler, std::move(name), ops, std::move(prevBack)) {}

   bool initialize(std::string const& event) override {
      LOMI_TRACE(this->debugHandler_, 5, "MirakDummy", "{} event:{}", this->rootPath_.str(), event);
      return true;
   }
   u32 members() const override { return trace(__func__), 0; }
   u32 buckets() const override { return trace(__func__), 0; }
   u32 minSize() const override { return trace(__func__), 0; }
   u32 maxSize() const override { return trace(__func__), 0; }
   u32 capacity() const override { return trace(__func__), 0; }
   MirakType type() const override { return trace(__func__), MirakType::reader; }
   Reader::Counters readerCounters() const override { return trace(__func__), Reader::Counters{}; }
   Mem::MountStatus mountStatus() const override { return trace(__func__), Mem::MountStatus::notMounted; }
   void validateVersionAnchor() const override {
      // An anchor exists only after a successful read, and no read succeeds here.
      LOMI_ASSERT(false, this->debugHandler_, "{}",
                  "should never be called since it's impossible for a lookup to succeed");
   }
   Value const* lookup(Key const&, bool& found, void*) const override {
      trace(__func__);
      found = false;
      return &Ops::typeDefault();
   }
   bool first(Value& value, IterHint&) const override {
      trace(__func__);
      value = Ops::typeDefault();
      return false;
   }
   bool next(Key const&, Value& value, IterHint& hint) const override {
      trace(__func__);
      return first(value, hint);
   }
};

template <class Ops> class HOFLOW_EXPORT MirakStrictDummy final : public PlaceholderBase<Ops> {
   using Base = PlaceholderBase<Ops>;

public:
   using typename Base::Key;
   using typename Base::Value;

   /// @param orphanSuffix ends each message, to say why access is an error here
   MirakStrictDummy(Lomi::Platform::DebugHandler const& handler, std::string name, Ops const& ops,
                    std::string orphanSuffix, std::unique_ptr<MirakInterfaceBase> prevBack = nullptr)
      : Base(handler, std::move(name), ops, std::move(prevBack))
      , orphanSuffix_(std::move(orphanSuffix)) {}

   bool initialize(std::string const& event) override {
      LOMI_ASSERT(false, this->debugHandler_, "{} rootPath:{} event:{}{}", this->name_, this->rootPath_.str(),
                  event, orphanSuffix_);
      return false;
   }
   u32 members() const override { return refuse(0u); }
   u32 buckets() const override { return refuse(0u); }
   u32 minSize() const override { return refuse(0u); }
   u32 maxSize() const override { return refuse(0u); }
   u32 capacity() const override { return refuse(0u); }
   MirakType type() const override { return refuse(MirakType::reader); }
   Reader::Counters readerCounters() const override { return refuse(Reader::Counters{}); }
   Mem::MountStatus mountStatus() const override { return Mem::MountStatus::notMounted; }
   void validateVersionAnchor() const override { refuse(0); }
   Value const* lookup(Key const& key, bool&, void*) const override {
      return refuseKey(key), &Ops::typeDefault();
   }
   bool first(Value&, IterHint&) const override { return refuse(false); }
   bool next(Key const& key, Value&, IterHint&) const override { return refuseKey(key), false; }

private:
   template <class Result> Result refuse(Result result) const {
      LOMI_ASSERT(false, this->debugHandler_, "invoked, name:{} rootpath:{}{}", this->name_,
                  this->rootPath_.str(), orphanSuffix_);
      return result;
   }
   void refuseKey(Key const& key) const {
      LOMI_ASSERT(false, this->debugHandler_, "invoked, name:{} rootpath:{} key:{}{}", this->name_,
                  this->rootPath_.str(), keyText(key), orphanSuffix_);
   }

   std::string orphanSuffix_;
};

} // namespace Mirak
