// SPDX-License-Identifier: Apache-2.0
// Every schedule of one reader's operation and one recorded run of a writer: the reader stops before its load
// i while the writer makes its changes up to number j, for all i and j; and with two such stops. The reader
// then goes on alone. Verdict: an answer that a table of that while could give; or, if the writer formats the
// table anew, the exception that says so, after which the reader opens the table again and is right.
#pragma once

#include "Judge.h"
#include "Live.h"
#include "Scenarios.h"

namespace Test {

struct Report {
   std::size_t schedules = 0, reformats = 0, refusals = 0;
   std::vector<std::string> violations;
   Mirak::Reader::Counters counters;

   void count(Mirak::Reader::Counters const& c) {
      counters.retries += c.retries;
      counters.lookasideReads += c.lookasideReads;
      counters.wrapperRetries += c.wrapperRetries;
      counters.nextSlowPath += c.nextSlowPath;
      counters.slotResizes += c.slotResizes;
      counters.buckets.resizes += c.buckets.resizes;
   }
   void add(Report const& other) {
      schedules += other.schedules;
      reformats += other.reformats;
      refusals += other.refusals;
      violations.insert(violations.end(), other.violations.begin(), other.violations.end());
      count(other.counters);
   }
};

/// Where a reader is stopped, and what the writer has done by then.
struct Stop {
   std::size_t load, events;
};

/// Stops the reader of this thread at given loads, and ends one that goes on for ever or changes anything.
class Preemption final : public Mem::Seam::Observer {
public:
   Preemption(Live& live, std::vector<Stop> const& stops)
      : live_(live)
      , stops_(stops) {
      Mem::Seam::observer = this;
   }
   ~Preemption() override { Mem::Seam::observer = nullptr; }
   void beforeLoad(void const* at, std::size_t) override {
      // A header's private copy is read through the same functions; it lies on the stack.
      auto const* here = static_cast<char const*>(__builtin_frame_address(0));
      if (at > here - 4096 && at < here + 65536) return;
      while (next_ < stops_.size() && stops_[next_].load == loads) live_.applyTo(stops_[next_++].events);
      if (++loads > 100000) throw Endless("the reader doesn't end");
   }
   void beforeStore(void*, void const*, std::size_t) override { throw std::logic_error("a reader stores"); }
   void beforeFileCall(Mem::Seam::FileCall const& call) override {
      throw std::logic_error("a reader changes " + call.path);
   }
   bool allReached() const { return next_ == stops_.size(); }
   std::size_t loads = 0;

private:
   Live& live_;
   std::vector<Stop> const& stops_;
   std::size_t next_ = 0;
};

template <class R> class Campaign {
public:
   using Reader = Mirak::MirakReader<OpsOf<R>>;
   /// Runs one operation and returns a check of what it gave.
   using Check = std::function<std::string(Judge<R> const&)>;
   struct Operation {
      std::string name;
      std::function<Check(Reader&)> run;
      bool opens = false; ///< initialize() itself: the reader is a new one each time
   };

   Campaign(Scenario<R> const& scenario, Recording<R> const& recording)
      : scenario_(scenario)
      , recording_(recording)
      , live_(tableDirectory("live"), recording.before, recording.events) {}

   /// Every operation on rows that makes sense on what the recording holds.
   std::vector<Operation> operations();
   /// Opening the table, and then reading it as it stands.
   Operation opening();
   /// One stop: all i and every `step`th j (and each j at a file call).
   void oneStop(Operation const& operation, std::size_t step = 1);
   /// What all of that came to.
   Report finish() {
      if (reader_) report.count(reader_->readerCounters());
      reader_.reset();
      return report;
   }
   /// Two stops: all i1 <= i2, j1 < j2, of an operation that takes few loads; or those with i1 <
   /// `firstStops`.
   void twoStops(Operation const& operation, std::size_t firstStops = 100000);

private:
   static Check checkLookup(Reader& reader, Key key);
   static Check checkNext(Reader& reader, Key after, Mirak::IterHint hint);
   void freshReader();
   std::size_t run(Operation const& operation, std::vector<Stop> const& stops);
   void judge(Operation const& operation, std::vector<Stop> const& stops, std::string const& wrong);
   void reopen(Operation const& operation, std::vector<Stop> const& stops);
   std::vector<std::size_t> moments(std::size_t step) const;

   Report report;
   Scenario<R> const& scenario_;
   Recording<R> const& recording_;
   Live live_;
   std::unique_ptr<Reader> reader_;
};

template <class R> auto Campaign<R>::checkLookup(Reader& reader, Key key) -> Check {
   bool found = false;
   R buffer;
   R const row = *reader.lookup(key, found, &buffer);
   return [=](Judge<R> const& judge) { return judge.lookup(key, found, row); };
}

template <class R> auto Campaign<R>::checkNext(Reader& reader, Key after, Mirak::IterHint hint) -> Check {
   R row;
   bool const found = reader.next(after, row, hint);
   return [=](Judge<R> const& judge) { return judge.step(&after, found, row); };
}

template <class R> auto Campaign<R>::operations() -> std::vector<Operation> {
   std::vector<Operation> all;
   for (Key key : keysOf(recording_.contents))
      all.push_back({"lookup " + key.str(), [=](Reader& r) { return checkLookup(r, key); }});
   all.push_back({"first", [](Reader& r) -> Check {
                     R row;
                     Mirak::IterHint hint;
                     bool const found = r.first(row, hint);
                     return [=](Judge<R> const& judge) { return judge.step(nullptr, found, row); };
                  }});
   // The hints of a walk before: the files and the reader's view are then the same again for each schedule.
   freshReader();
   R row;
   Mirak::IterHint hint;
   for (bool more = reader_->first(row, hint); more; more = reader_->next(row.key(), row, hint)) {
      Key const key = row.key();
      Mirak::IterHint const at = hint;
      all.push_back({"next by hint after " + key.str(), [=](Reader& r) { return checkNext(r, key, at); }});
      all.push_back({"next by key after " + key.str(), [=](Reader& r) { return checkNext(r, key, {}); }});
   }
   all.push_back({"walk", [](Reader& r) -> Check {
                     auto const rows = walkAll<R>(r);
                     return [=](Judge<R> const& judge) { return judge.walk(rows); };
                  }});
   all.push_back({"get every slot", [](Reader& r) -> Check {
                     std::vector<R> rows;
                     for (u32 slot = 0; slot < r.capacity(); ++slot)
                        if (R seen; r.getValue(slot, seen, nullptr)) rows.push_back(seen);
                     return [=](Judge<R> const& judge) {
                        for (R const& seen : rows)
                           if (std::string wrong = judge.known(seen); !wrong.empty()) return wrong;
                        return std::string();
                     };
                  }});
   return all;
}

template <class R> auto Campaign<R>::opening() -> Operation {
   auto const run = [this](Reader& reader) -> Check {
      bool const opened = reader.initialize("test");
      return [this, opened, &reader](Judge<R> const&) -> std::string {
         if (std::filesystem::remove(tableDirectory("live") + "/corruption-detected") && !scenario_.damaged)
            return "called corrupt";
         std::size_t const at = live_.applied();
         if (!opened) {
            if (!scenario_.restarts) return reader.initializeError();
            if (++report.refusals % 16 == 1 && recording_.after.has("slots")) reopen(opening(), {});
            return {};
         }
         Judge<R> const now(recording_.contents, recording_.lowest(at), recording_.highest(at),
                            reader.headerCopy().hashSeed);
         try {
            for (Key key : keysOf(recording_.contents))
               if (std::string wrong = checkLookup(reader, key)(now); !wrong.empty()) return wrong;
            return now.walk(walkAll<R>(reader));
         } catch (Mirak::TableReformattedException const& e) {
            return scenario_.restarts ? std::string() : e.what();
         } catch (Lomi::CorruptionDetectedException const& e) {
            return e.what();
         }
      };
   };
   return {"open", run, true};
}

template <class R> void Campaign<R>::freshReader() {
   if (reader_) report.count(reader_->readerCounters());
   live_.restore();
   reader_ = std::make_unique<Reader>(quiet(), "live", OpsOf<R>{});
   if (!reader_->initialize("test"))
      throw std::logic_error("the table of before is bad: " + reader_->initializeError());
   bool found;
   reader_->lookup({}, found, nullptr); // maps the slots
}

template <class R>
void Campaign<R>::judge(Operation const& operation, std::vector<Stop> const& stops,
                        std::string const& wrong) {
   if (wrong.empty()) return;
   std::string text = fmt::format("{} against {}: {}; stops:", operation.name, scenario_.name, wrong);
   for (Stop stop : stops)
      text += fmt::format(" load {} events {}/{}", stop.load, stop.events, recording_.events.size());
   report.violations.push_back(std::move(text));
}

/// One schedule. @return the loads that it took, or 0 if the operation ended before its last stop
template <class R> std::size_t Campaign<R>::run(Operation const& operation, std::vector<Stop> const& stops) {
   live_.restore();
   if (operation.opens) {
      if (reader_) report.count(reader_->readerCounters());
      reader_ = std::make_unique<Reader>(quiet(), "live", OpsOf<R>{});
   } else {
      bool found;
      if (!reader_) freshReader();
      reader_->lookup({}, found, nullptr); // back to the sizes of before
   }
   std::string wrong;
   Check check;
   bool reformatted = false, reached = true;
   std::size_t loads = 0;
   {
      Preemption preemption(live_, stops);
      try {
         check = operation.run(*reader_);
      } catch (Mirak::TableReformattedException const& e) {
         reformatted = true;
         if (!scenario_.restarts) wrong = e.what();
      } catch (std::exception const& e) {
         wrong = e.what();
      }
      loads = preemption.loads;
      reached = preemption.allReached();
   }
   if (!reached) return 0;
   ++report.schedules;
   std::size_t const from = recording_.lowest(stops.empty() || stops[0].load > 0 ? 0 : stops[0].events);
   if (check)
      wrong =
          check(Judge<R>(recording_.contents, from, recording_.highest(live_.applied()), recording_.seed));
   judge(operation, stops, wrong);
   if (reformatted) {
      ++report.reformats;
      // The way out is the same each time; it is gone now and then.
      if (report.reformats % 16 == 1) reopen(operation, stops);
   }
   return loads;
}

/// The writer ends its work; the reader opens the table again, with the same object, and all is right.
template <class R> void Campaign<R>::reopen(Operation const& operation, std::vector<Stop> const& stops) {
   live_.applyTo(recording_.events.size());
   std::string wrong;
   try {
      reader_->detach(false);
      wrong = !reader_->initialize("test")
                  ? reader_->initializeError()
                  : judgeAll<R>(*reader_, recording_.contents.back(), reader_->headerCopy().hashSeed);
   } catch (std::exception const& e) {
      wrong = e.what();
   }
   judge(operation, stops, wrong.empty() ? wrong : "opened again: " + wrong);
   report.count(reader_->readerCounters());
   reader_.reset();
}

template <class R> std::vector<std::size_t> Campaign<R>::moments(std::size_t step) const {
   std::vector<std::size_t> all;
   auto const& events = recording_.events;
   for (std::size_t j = 1; j <= events.size(); ++j)
      if (j % step == 0 || j == events.size() || events[j - 1].kind != Event::Kind::store) all.push_back(j);
   return all;
}

template <class R> void Campaign<R>::oneStop(Operation const& operation, std::size_t step) {
   auto const all = moments(step);
   std::size_t const loads = run(operation, {});
   for (std::size_t i = 0; i < loads; ++i)
      for (std::size_t j : all) run(operation, {{i, j}});
}

template <class R> void Campaign<R>::twoStops(Operation const& operation, std::size_t firstStops) {
   auto const all = moments(1);
   std::size_t const loads = std::min(run(operation, {}), firstStops);
   for (std::size_t i = 0; i < loads; ++i)
      for (std::size_t a = 0; a < all.size(); ++a)
         for (std::size_t b = a + 1; b < all.size(); ++b)
            for (std::size_t second = i + 1; run(operation, {{i, all[a]}, {second, all[b]}}) != 0; ++second) {
            }
}

} // namespace Test
