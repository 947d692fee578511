// SPDX-License-Identifier: Apache-2.0
// A table as its queue sees one: slots that rows come to, leave and are moved between, growth, compaction and
// formatting, in the order in which a real table stores and notifies. It has no files of its own, no hash and
// no readers.
#pragma once

#include "Tessel/TesselWriter.h"

#include <algorithm>
#include <bit>
#include <functional>
#include <map>
#include <random>
#include <string>
#include <vector>

namespace Test {

using Tessel::u32;
using Tessel::u64;
using Queue = Tessel::TesselWriter<Tessel::BasicSlot, u32>;

struct Row {
   bool occupied = false;
   int key = 0;
   int value = 0;
   int life = 0; // a key that comes back has another one
};

class Rows {
public:
   Rows(Mem::NaoRootPath const& path, Tessel::PruneMode mode, u32 minSlots, std::function<void()> step)
      : queue(*Lomi::Platform::getDebugHandler("test", true), path, false, mode)
      , step_(std::move(step))
      , minSlots_(minSlots) {
      format();
   }

   void write(int key, int value) {
      if (auto found = truth.find(key); found != truth.end()) {
         found->second.value = value;
         step_();
         rows[found->second.slot].value = value;
         queue.notify(found->second.slot);
         return;
      }
      if (free_.empty()) grow();
      u32 const slot = free_.back();
      free_.pop_back();
      Row const row{true, key, value, ++lives_};
      step_();
      rows[slot] = row;
      truth[key] = {value, row.life, slot};
      queue.notify(slot);
   }

   void remove(int key) {
      auto const found = truth.find(key);
      if (found == truth.end()) return;
      u32 const slot = found->second.slot;
      truth.erase(found);
      step_();
      rows[slot].occupied = false;
      free_.push_back(slot);
      queue.notify(slot);
      compact();
   }

   /// All rows are lost; the files stay.
   void format() {
      step_();
      kestor = {};
      truth.clear();
      for (Row& row : rows) {
         step_();
         row.occupied = false;
      }
      capacity = mostSlots = minSlots_;
      rows.resize(std::max<std::size_t>(rows.size(), capacity));
      free_.clear();
      for (u32 slot = capacity; slot-- > 0;) free_.push_back(slot);
      static Parcel::u16 formats = 0;
      Parcel::KestorId const fresh(7, ++formats);
      attached = queue.attach(fresh);
      queue.reserve(capacity);
      step_();
      kestor = fresh;
   }
   /// As a new process finds the table.
   void restart() {
      queue.detach();
      attached = queue.attach(kestor);
      queue.reserve(capacity);
   }

   void compact() {
      u32 const threshold = capacity > minSlots_ ? std::bit_floor(capacity - 1) : 0;
      u32 const members = static_cast<u32>(truth.size());
      if (members >= threshold / 2) return;
      if (queue.shrinkMarker() != 0) {
         ++skips;
         return;
      }
      u32 const wanted = members == 0 ? 0 : 4 * std::bit_floor(members);
      u32 const target = std::max(minSlots_, wanted);
      if (target >= capacity) return;
      std::erase_if(free_, [&](u32 slot) { return slot >= target; });
      queue.markShrinkStart();
      for (u32 from = target; from < capacity; ++from)
         if (rows[from].occupied) move(from);
      queue.markShrinkEnd();
      u32 const old = std::exchange(capacity, target);
      queue.trim(capacity);
      for (u32 slot = target; slot < old; ++slot) {
         step_();
         rows[slot].occupied = false; // a hole
      }
      ++compactions;
   }

   /// The rules by which a table and its queue are checked at a start. Empty if they hold.
   std::string complaint() const {
      std::string error;
      if (!queue.validate(kestor, mostSlots, error) || !queue.validateBeyond(capacity, error)) return error;
      u32 const count = queue.count();
      std::vector<bool> claimed(count);
      for (auto const& [key, place] : truth) {
         u32 const at = queue.tesselSlot(place.slot);
         if (at == Tessel::noPosition) continue;
         if (at >= count || queue.notification(at).slot != place.slot) return "occupied slot: bad position";
         if (claimed[at]) return "duplicate position";
         claimed[at] = true;
      }
      for (u32 slot : free_)
         if (u32 const at = queue.tesselSlot(slot); at != Tessel::noPosition)
            if (at >= count || queue.notification(at).slot != slot) return "free slot: bad position";
      for (u32 at = 0; at < count; ++at) {
         auto const [offset, slot] = queue.notification(at);
         u64 const sequence = queue.baseSequence() + offset;
         u32 const position = queue.tesselSlot(slot);
         u64 const start = queue.corralStart(), end = queue.corralEnd();
         if (start != 0 && sequence >= start && (end == 0 || sequence <= end)) {
            if (position == at) return "current entry inside a compaction";
         } else if (slot == Tessel::tombstoneSlot) {
            if (claimed[at]) return "claimed tombstone";
         } else {
            if (!claimed[at] && slot < capacity && rows[slot].occupied) return "unclaimed entry of a row";
            if (position != at) return "entry that isn't its slot's current one";
         }
      }
      return {};
   }

   struct Place {
      int value, life;
      u32 slot;
   };
   Queue queue;
   std::vector<Row> rows; // never shorter: what lies behind `capacity` is a hole
   std::map<int, Place> truth;
   Parcel::KestorId kestor; // none while the table is formatted
   u32 capacity = 0, mostSlots = 0;
   int attached = 0; // result of the last attach
   u64 compactions = 0, skips = 0;
   bool omitTombstone = false; // a mistake, to be found

private:
   void grow() {
      u32 const from = capacity, to = 2 * capacity;
      queue.reserve(to);
      if (rows.size() < to) rows.resize(to);
      for (u32 slot = to; slot-- > from;) {
         rows[slot] = {};
         free_.push_back(slot);
      }
      mostSlots = std::max(mostSlots, to);
      step_();
      capacity = to;
   }
   void move(u32 from) {
      u32 const to = free_.back();
      free_.pop_back();
      step_();
      rows[to] = rows[from];
      truth[rows[from].key].slot = to;
      queue.notify(to);
      if (!omitTombstone) queue.tombstone(from);
      step_();
      rows[from].occupied = false;
      queue.notify(from);
   }

   std::function<void()> step_;
   u32 const minSlots_;
   std::vector<u32> free_;
   int lives_ = 0;
};

/// The queue's tables are as small as that while this lives.
struct SmallTables {
   explicit SmallTables(u32 entries) { std::swap(Tessel::leastEntries, saved = entries); }
   ~SmallTables() { Tessel::leastEntries = saved; }
   u32 saved;
};

/// Random numbers that are the same everywhere.
class Dice {
public:
   explicit Dice(u64 seed)
      : engine_(seed * 0x9e3779b97f4a7c15 + 1) {}
   u32 below(u32 limit) { return static_cast<u32>(engine_() % limit); }
   bool oneIn(u32 n) { return below(n) == 0; }

private:
   std::mt19937_64 engine_;
};

/// One random change: phases of growth, of emptying, of overwrites, so that all kinds of turns come about.
class Habit {
public:
   Habit(Rows& rows, Dice& dice, u32 keys)
      : rows_(rows)
      , dice_(dice)
      , keys_(keys) {}
   void change() {
      if (dice_.oneIn(20)) mood_ = dice_.below(4);
      int const key = static_cast<int>(dice_.below(keys_));
      static constexpr u32 writesOfTen[] = {8, 2, 5, 10};
      auto const present = [&] {
         if (rows_.truth.empty()) return key;
         return std::next(rows_.truth.begin(), dice_.below(static_cast<u32>(rows_.truth.size())))->first;
      };
      if (dice_.below(10) < writesOfTen[mood_])
         rows_.write(mood_ == 3 ? present() : key, ++value_);
      else
         rows_.remove(mood_ == 1 ? present() : key);
      if (rows_.queue.choresPending()) rows_.queue.chores();
   }

private:
   Rows& rows_;
   Dice& dice_;
   u32 const keys_;
   u32 mood_ = 0;
   int value_ = 0;
};

} // namespace Test
