// SPDX-License-Identifier: Apache-2.0
// A table that is followed, its rows' type known at run time only (AnyTable.h): a collection mounted as a
// shadow, whose client hears of rows as pointers. Who knows the type mounts a collection of its own.
//
// One thread an object, whose Lomi::TaskSchedulerRoot drives it. A pointer to a row is good until the call
// that got it returns.
#pragma once

#include "Mirak/MirakMap.h"

#include <cstring>
#include <string>

namespace Mirak {

class AnyFollower {
public:
   /// All calls come from start() and from the loop. They must not end the follower.
   class Client {
   public:
      /// A row is new or was written. Of a table's present rows, too, while the copy fills.
      virtual void changed(void const* row) = 0;
      /// A row was removed. `row` has its key; its other fields are those of a default row.
      virtual void removed(void const* row) = 0;
      /// Status or connection may be another one now.
      virtual void mountChanged() = 0;

   protected:
      ~Client() = default;
   };

   AnyFollower() = default;
   AnyFollower(AnyFollower const&) = delete;
   AnyFollower& operator=(AnyFollower const&) = delete;
   /// Lets the table go, and says nothing of it.
   virtual ~AnyFollower() = default;

   /// Mounts the table, or waits for it: the loop attaches it when it is there. Rows of a table that goes
   /// away, or is formatted anew, are removed one by one. @throws as ControlBase::init. Once only.
   virtual void start() = 0;
   virtual Mem::MountStatus mountStatus() const = 0;
   /// The writer is there and will say when something changes. Without it the queue is looked at every now
   /// and then.
   virtual bool connected() const = 0;
   /// All that the writer announced is taken in.
   virtual bool quiesced() const = 0;
   /// Rows of the copy.
   virtual u32 members() const = 0;
   virtual Reader::Counters counters() const = 0;
};

template <class Ops> class AnyFollowerOf final : public AnyFollower {
   using Key = typename Ops::Key;
   using Value = typename Ops::Value;
   struct Collection : MirakMap<Ops> {
      using MirakMap<Ops>::MirakMap;
      using MirakMap<Ops>::notify;
   };

public:
   AnyFollowerOf(std::string name, Client& client)
      : collection_(std::move(name)) {
      collection_.notify.changeFn = [&client](Value const& row) { client.changed(&row); };
      collection_.notify.keyDelFn = [&client](Key const& key) {
         Value row = Ops::typeDefault();
         std::memcpy(static_cast<void*>(&row), &key, sizeof key); // a row begins with its key
         client.removed(&row);
      };
      collection_.notify.mountStatusFn = [&client] { client.mountChanged(); };
   }
   ~AnyFollowerOf() override {
      collection_.notify = {};
      if (collection_.initialized()) collection_.controlDetach();
   }

   void start() override {
      MapDescriptor descriptor(0);
      descriptor.type = MirakType::shadow;
      descriptor.synchronous = true;  // rows are told of while the copy fills, too
      descriptor.shadowOption = true; // and removed ones when it is emptied
      collection_.init(descriptor);
   }
   Mem::MountStatus mountStatus() const override { return collection_.mountStatus(); }
   bool connected() const override { return collection_.connected(); }
   bool quiesced() const override { return collection_.quiesced(); }
   u32 members() const override { return collection_.back().members(); }
   Reader::Counters counters() const override { return collection_.readerCounters(); }

private:
   Collection collection_;
};

} // namespace Mirak
