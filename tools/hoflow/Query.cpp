// SPDX-License-Identifier: Apache-2.0
// Parsing of keys and comparisons. See Query.h.
#include "Query.h"

#include "Output.h"

#include <algorithm>
#include <charconv>
#include <nlohmann/json.hpp>
#include <optional>
#include <sstream>

namespace Tool {

namespace {

[[noreturn]] void usage(std::string text, std::string hint = {}) {
   throw Failure{Exit::usage, std::move(text), std::move(hint)};
}

[[noreturn]] void badValue(std::string_view word, std::string_view field, std::string_view expected) {
   usage(fmt::format("\"{}\": {} expects {}", word, field, expected));
}

/// The key that is being put together.
class KeyParts {
public:
   explicit KeyParts(Schema const& schema)
      : schema_(schema) {
      for (Field const& field : schema.fields)
         if (field.inKey && !field.jsonOnly) fields_.push_back(&field);
      values_.resize(fields_.size());
   }

   Field const* find(std::string_view name) const {
      Field const* const field = schema_.find(name);
      return field && field->inKey ? field : nullptr;
   }
   bool has(std::string_view name) const { return at(name).has_value(); }

   /// @param word what the person wrote, for messages
   void set(Field const& field, std::string_view text, std::string_view word) {
      Cell cell;
      std::string expected;
      if (!parseCell(field.type, text, cell, expected)) badValue(word, field.name, expected);
      if (field.jsonOnly) {
         // It says the field before it (the number on the wire the protocol), unless that was said itself.
         Field const& said = *(&field - 1);
         auto& place = at(said.name);
         if (!place && parseCell(said.type, text, cell, expected)) place = cell;
         return;
      }
      auto& place = at(field.name);
      if (place) usage(fmt::format("\"{}\": {} is given twice", word, field.name));
      place = cell;
   }

   /// The names of fields that must be said and weren't.
   std::string missing() const {
      std::string names;
      for (std::size_t i = 0; i < fields_.size(); ++i)
         if (!values_[i] && fields_[i]->mustGive)
            names += fmt::format("{}{}", names.empty() ? "" : ", ", fields_[i]->name);
      return names;
   }
   std::vector<Cell> whole() const {
      std::vector<Cell> cells;
      for (std::size_t i = 0; i < fields_.size(); ++i)
         cells.push_back(values_[i].value_or(absent(fields_[i]->type.kind)));
      return cells;
   }
   /// Takes the value of a key of one field. @return false if it is none
   bool setOnly(std::string_view text) {
      Cell cell;
      std::string expected;
      if (fields_.size() != 1 || !parseCell(fields_[0]->type, text, cell, expected)) return false;
      set(*fields_[0], text, text);
      return true;
   }
   void addTests(Filter& filter) const {
      for (std::size_t i = 0; i < fields_.size(); ++i)
         if (values_[i]) filter.emplace_back(*fields_[i], *values_[i]);
   }

private:
   static Cell absent(Kind kind) {
      if (kind == Kind::direction) return FlowTracking::TrafficDirection::unspecified;
      if (kind == Kind::interface) return Nimbet::IntfId();
      return uint64_t{0};
   }
   std::optional<Cell>& at(std::string_view name) {
      for (std::size_t i = 0;; ++i)
         if (fields_.at(i)->name == name) return values_[i];
   }
   std::optional<Cell> const& at(std::string_view name) const {
      return const_cast<KeyParts*>(this)->at(name);
   }

   Schema const& schema_;
   std::vector<Field const*> fields_;
   std::vector<std::optional<Cell>> values_;
};

/// "10.0.0.1:80" and "[2001:db8::1]:80" as address and port; the port is empty without one.
std::pair<std::string_view, std::string_view> splitEndpoint(std::string_view text) {
   if (text.starts_with('[')) {
      auto const close = text.find(']');
      if (close == std::string_view::npos) return {text, {}};
      auto const rest = text.substr(close + 1);
      return {text.substr(1, close - 1), rest.starts_with(':') ? rest.substr(1) : rest};
   }
   auto const colon = text.find(':');
   if (colon == std::string_view::npos || text.find(':', colon + 1) != std::string_view::npos)
      return {text, {}};
   return {text.substr(0, colon), text.substr(colon + 1)};
}

bool isEndpoint(std::string_view text) {
   auto const address = splitEndpoint(text).first;
   return Ip::IpAddr::fromText(address) || Ip::Ip6Addr::fromText(address);
}

void setEndpoint(KeyParts& key, bool source, std::string_view text, std::string_view word) {
   auto const [address, port] = splitEndpoint(text);
   key.set(*key.find(source ? "srcAddr" : "dstAddr"), address, word);
   if (!port.empty()) key.set(*key.find(source ? "srcPort" : "dstPort"), port, word);
}

void setNamed(KeyParts& key, Schema const& schema, std::string_view name, std::string_view value,
              std::string_view word) {
   Field const* const field = key.find(name);
   if (!field)
      usage(fmt::format("\"{}\": this table's key has no field \"{}\"", word, name),
            "it has: " + fieldNames(schema, true));
   bool const source = field->name == "srcAddr";
   if ((source || field->name == "dstAddr") && isEndpoint(value))
      return setEndpoint(key, source, value, word);
   key.set(*field, value, word);
}

/// Whether the word compares something in another way than a key's NAME=VALUE.
bool isTest(Schema const& schema, std::string_view word) {
   auto const at = word.find_first_of("=!<>");
   if (at == std::string_view::npos || at == 0 || word.find('{') != std::string_view::npos ||
       word.substr(0, at).find(' ') != std::string_view::npos)
      return false;
   Field const* const field = schema.find(word.substr(0, at));
   return !field || !field->inKey || word[at] != '=' || word.substr(at).starts_with("==") ||
          word.find('/', at) != std::string_view::npos;
}

void setJson(KeyParts& key, Schema const& schema, std::string const& text) {
   auto const whole = nlohmann::json::parse(text, nullptr, false);
   if (!whole.is_object()) usage(fmt::format("\"{}\": expected a JSON object", text));
   bool const isRow = whole.contains("key") && whole["key"].is_object();
   for (auto const& [name, value] : (isRow ? whole["key"] : whole).items()) {
      std::string const word = fmt::format("{}: {}", name, value.dump());
      setNamed(key, schema, name,
               value.is_null()     ? "none"
               : value.is_string() ? value.get<std::string>()
                                   : value.dump(),
               word);
   }
}

} // namespace

std::string fieldNames(Schema const& schema, bool keyOnly) {
   std::string names;
   for (Field const& field : schema.fields)
      if (field.inKey || !keyOnly) names += fmt::format("{}{}", names.empty() ? "" : " ", field.name);
   return names;
}

namespace {

/// Takes the words of a key. @return whether each was NAME=VALUE
bool readKey(KeyParts& key, Schema const& schema, std::vector<std::string> const& words) {
   bool allNamed = true;
   std::vector<std::string> parts;
   for (std::string const& word : words) {
      if (word.find('{') != std::string::npos) {
         setJson(key, schema, word);
         allNamed = false;
         continue;
      }
      std::istringstream in(word);
      for (std::string part; in >> part;) parts.push_back(part);
   }
   for (std::size_t i = 0; i < parts.size(); ++i) {
      std::string_view const part = parts[i];
      if (part == "->") continue;
      if (auto const equals = part.find('='); equals != std::string_view::npos) {
         setNamed(key, schema, part.substr(0, equals), part.substr(equals + 1), part);
         continue;
      }
      allNamed = false;
      if (key.find(part) && i + 1 < parts.size()) {
         setNamed(key, schema, part, parts[i + 1], fmt::format("{} {}", part, parts[i + 1]));
         ++i;
      } else if (schema.isFlow() && isEndpoint(part)) {
         setEndpoint(key, !key.has("srcAddr"), part, part);
      } else if (schema.isFlow() && Ip::protocolFromText(part) &&
                 !std::isdigit(static_cast<unsigned char>(part.front()))) {
         key.set(*key.find("ipProtocol"), part, part);
      } else if (!key.setOnly(part)) {
         usage(fmt::format("\"{}\" says nothing about a key", part),
               schema.isFlow()
                   ? "expected NAME=VALUE, a protocol or an endpoint; names are " + fieldNames(schema, true)
                   : "expected NAME=VALUE or the key itself; names are " + fieldNames(schema, true));
      }
   }
   return allNamed;
}

} // namespace

Query parseQuery(Schema const& schema, std::vector<std::string> const& words) {
   Query query;
   std::vector<std::string> keyWords;
   for (std::string const& word : words) {
      if (isTest(schema, word))
         query.filter.emplace_back(schema, word);
      else
         keyWords.push_back(word);
   }
   KeyParts key(schema);
   bool const allNamed = readKey(key, schema, keyWords);
   std::string const missing = key.missing();
   if (missing.empty())
      query.key = key.whole();
   else if (allNamed)
      key.addTests(query.filter);
   else
      usage("the key lacks " + missing,
            "a lookup needs the whole key; NAME=VALUE alone finds rows by a part of it");
   return query;
}

Comparison::Comparison(Schema const& schema, std::string_view text) {
   auto const at = text.find_first_of("=!<>");
   if (at == std::string_view::npos || at == 0)
      usage(fmt::format("\"{}\": expected FIELD=VALUE, or !=, <, <=, >, >= in between", text));
   std::string_view const name = text.substr(0, at);
   field_ = schema.find(name);
   if (!field_)
      usage(fmt::format("\"{}\": the rows have no field \"{}\"", text, name),
            "they have: " + fieldNames(schema, false));
   std::string_view rest = text.substr(at);
   auto const take = [&](std::string_view sign) {
      if (!rest.starts_with(sign)) return false;
      rest.remove_prefix(sign.size());
      return true;
   };
   op_ = take("!=")   ? Op::unequal
         : take("<=") ? Op::lessEqual
         : take(">=") ? Op::greaterEqual
         : take("==") ? Op::equal
         : take("<")  ? Op::less
         : take(">")  ? Op::greater
                      : Op::equal;
   if (op_ == Op::equal && !take("=") && rest.starts_with('!'))
      usage(fmt::format("\"{}\": expected != or =", text));

   bool const address = field_->type.kind == Kind::address4 || field_->type.kind == Kind::address6;
   std::string expected;
   if (auto const slash = rest.find('/'); address && slash != std::string_view::npos) {
      int const most = field_->type.kind == Kind::address4 ? 32 : 128;
      std::string_view const bits = rest.substr(slash + 1);
      auto const read = std::from_chars(bits.data(), bits.data() + bits.size(), prefix_);
      if (bits.empty() || read.ec != std::errc() || read.ptr != bits.data() + bits.size() || prefix_ < 0 ||
          prefix_ > most)
         badValue(text, field_->name, fmt::format("a prefix length from 0 to {} behind the slash", most));
      if (op_ != Op::equal && op_ != Op::unequal)
         usage(fmt::format("\"{}\": a prefix is compared with = or !=", text));
      rest = rest.substr(0, slash);
   }
   if (!parseCell(field_->type, rest, value_, expected)) badValue(text, field_->name, expected);
   if (field_->type.kind == Kind::other && op_ != Op::equal && op_ != Op::unequal)
      usage(fmt::format("\"{}\": {} is compared with = or !=", text, field_->name));
}

namespace {

template <class Address> bool sameFront(Address const& a, Address const& b, int bits) {
   auto const x = a.bytes(), y = b.bytes();
   for (std::size_t i = 0; bits > 0; ++i, bits -= 8) {
      unsigned const mask = bits >= 8 ? 0xff : 0xff << (8 - bits) & 0xff;
      if ((x[i] ^ y[i]) & mask) return false;
   }
   return true;
}

} // namespace

bool Comparison::holds(void const* row) const {
   Cell const cell = field_->get(row);
   if (prefix_ >= 0) {
      bool const same = field_->type.kind == Kind::address4
                            ? sameFront(std::get<Ip::IpAddr>(cell), std::get<Ip::IpAddr>(value_), prefix_)
                            : sameFront(std::get<Ip::Ip6Addr>(cell), std::get<Ip::Ip6Addr>(value_), prefix_);
      return same == (op_ == Op::equal);
   }
   std::partial_ordering const order = compareCells(cell, value_);
   switch (op_) {
   case Op::equal:
      return order == 0;
   case Op::unequal:
      return order != 0;
   case Op::less:
      return order < 0;
   case Op::lessEqual:
      return order <= 0;
   case Op::greater:
      return order > 0;
   case Op::greaterEqual:
      return order >= 0;
   }
   return false;
}

Filter parseFilter(Schema const& schema, std::vector<std::string> const& texts) {
   Filter filter;
   for (std::string const& text : texts) filter.emplace_back(schema, text);
   return filter;
}

bool passes(Filter const& filter, void const* row) {
   return std::all_of(filter.begin(), filter.end(), [&](Comparison const& c) { return c.holds(row); });
}

} // namespace Tool
