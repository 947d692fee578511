// SPDX-License-Identifier: Apache-2.0
// Fields of rows and keys, out of the registry. See Schema.h.
#include "Schema.h"

#include <algorithm>
#include <deque>
#include <strings.h>

namespace Tool {

using Zeb::AttributeKind;
using Zeb::ZebType;
using Zeb::GenericIf::AttributeOp;

namespace {

/// Room for a field or a key on the way out of a row.
struct Room {
   alignas(std::max_align_t) std::byte bytes[512];
};

void readAttribute(ZebType type, Zeb::AttributeId id, void const* object, Room& room) {
   type.info().implementation.genericIfAttributeOp(room.bytes, const_cast<void*>(object), id,
                                                   AttributeOp::get, nullptr, nullptr, nullptr);
}

bool isComposite(ZebType type) { return !type.info().attributes.empty(); }

/// "ipProtocolNumber" says again what "ipProtocol" says.
Field* saidAgain(std::vector<Field>& fields, Field const& field) {
   constexpr std::string_view ending = "Number";
   if (!field.name.ends_with(ending)) return nullptr;
   auto const name = field.name.substr(0, field.name.size() - ending.size());
   auto const at =
       std::find_if(fields.begin(), fields.end(), [&](Field const& other) { return other.name == name; });
   return at == fields.end() ? nullptr : &*at;
}

bool hasUsualValue(Kind kind) {
   return kind == Kind::number || kind == Kind::direction || kind == Kind::interface;
}

/// Appends the fields of the row or of its key that aren't values of several parts. A key that is no such
/// value is a field itself.
void addFields(std::vector<Field>& fields, ZebType row, Zeb::AttributeId keyId, ZebType owner) {
   for (Zeb::Attribute const& a : owner.info().attributes) {
      bool const stored = a.isStored() || a.kind == AttributeKind::readOnlyField;
      if (!stored || isComposite(a.type)) continue;
      bool const inKey = !(owner == row) || a.id == keyId;
      CellType const type = cellTypeOf(a.type);
      Field const field{a.name, type,  inKey, false, inKey && !hasUsualValue(type.kind),
                        row,    keyId, owner, a.id};
      if (Field* const said = saidAgain(fields, field)) {
         auto const at = fields.insert(fields.begin() + (said - fields.data()) + 1, field);
         at->jsonOnly = true;
         at->mustGive = false;
      } else {
         fields.push_back(field);
      }
   }
}

constexpr std::pair<std::string_view, std::string_view> shortForms[] = {
    {"src", "srcAddr"},      {"dst", "dstAddr"},   {"proto", "ipProtocol"}, {"protocol", "ipProtocol"},
    {"sport", "srcPort"},    {"dport", "dstPort"}, {"vlan", "vlanId"},      {"vrf", "vrfId"},
    {"dir", "direction"},    {"intf", "intfId"},   {"interface", "intfId"}, {"state", "key"},
    {"state", "hoFlowState"}};

void appendName(fmt::memory_buffer& out, std::string_view name) {
   out.push_back('"');
   out.append(name.data(), name.data() + name.size());
   out.push_back('"');
   out.push_back(':');
}

/// A key, or a part of one, out of the cells of its fields.
std::unique_ptr<Value> build(ZebType type, std::vector<Field const*> const& fields,
                             std::span<Cell const> cells) {
   auto value = std::make_unique<Value>(type);
   if (!isComposite(type)) {
      assignCell(fields.front()->type, cells.front(), value->get());
      return value;
   }
   std::vector<std::unique_ptr<Value>> parts;
   std::vector<void*> arguments;
   for (Zeb::Attribute const& a : type.info().attributes) {
      if (a.kind != AttributeKind::constructedField) continue;
      if (isComposite(a.type)) {
         parts.push_back(build(a.type, fields, cells));
      } else {
         parts.push_back(std::make_unique<Value>(a.type));
         auto const at =
             std::find_if(fields.begin(), fields.end(), [&](Field const* f) { return f->name == a.name; });
         assignCell((*at)->type, cells[static_cast<std::size_t>(at - fields.begin())], parts.back()->get());
      }
      arguments.push_back(parts.back()->get());
   }
   type.info().implementation.genericIfConstructFromCtorArgs(value->get(), arguments.data());
   return value;
}

} // namespace

bool equalIgnoringCase(std::string_view a, std::string_view b) {
   return a.size() == b.size() && strncasecmp(a.data(), b.data(), a.size()) == 0;
}

bool isTypeName(std::string_view word, std::string_view name) {
   auto const colons = name.rfind("::");
   return equalIgnoringCase(name, word) ||
          (colons != std::string_view::npos && equalIgnoringCase(name.substr(colons + 2), word));
}

Cell Field::get(void const* at) const {
   Room keyRoom, room;
   if (!(owner == row)) {
      readAttribute(row, keyId, at, keyRoom);
      at = keyRoom.bytes;
   }
   readAttribute(owner, id, at, room);
   return cellOf(type, room.bytes);
}

Value::Value(ZebType type)
   : type_(type)
   , memory_(type.info().size / sizeof(std::max_align_t) + 1) {
   type_.info().implementation.values->genericIfConstruct(get(), nullptr);
}

Value::~Value() { type_.info().implementation.values->genericIfDestruct(get()); }

Schema::Schema(ZebType rowType)
   : row(rowType) {
   auto const attributes = row.info().attributes;
   auto const at = std::find_if(attributes.begin(), attributes.end(), [](Zeb::Attribute const& a) {
      return a.kind == AttributeKind::constructedField;
   });
   key = at->type;
   if (isComposite(key)) addFields(fields, row, at->id, key);
   addFields(fields, row, at->id, row);
}

Field const* Schema::find(std::string_view word) const {
   auto const named = [this](std::string_view name) -> Field const* {
      auto const at = std::find_if(fields.begin(), fields.end(),
                                   [&](Field const& f) { return equalIgnoringCase(f.name, name); });
      return at == fields.end() ? nullptr : &*at;
   };
   // "key.srcAddr" is how the field is called in the rows' JSON.
   if (word.size() > 4 && equalIgnoringCase(word.substr(0, 4), "key.")) word.remove_prefix(4);
   if (auto const* field = named(word)) return field;
   for (auto const& [shortForm, name] : shortForms)
      if (equalIgnoringCase(shortForm, word))
         if (auto const* field = named(name)) return field;
   return nullptr;
}

bool Schema::isFlow() const { return key.attribute("srcAddr") && key.attribute("dstAddr"); }

std::unique_ptr<Value> Schema::keyOf(std::span<Cell const> cells) const {
   std::vector<Field const*> given;
   for (Field const& field : fields)
      if (field.inKey && !field.jsonOnly) given.push_back(&field);
   return build(key, given, cells);
}

Schema const& schemaOf(ZebType row) {
   static std::deque<Schema> schemas;
   for (Schema const& schema : schemas)
      if (schema.row == row) return schema;
   return schemas.emplace_back(row);
}

void appendJsonRow(fmt::memory_buffer& out, Schema const& schema, void const* row) {
   out.push_back('{');
   appendName(out, "key");
   out.push_back('{');
   bool inKey = true, first = true;
   for (Field const& field : schema.fields) {
      if (inKey && !field.inKey) {
         inKey = false;
         out.push_back('}');
      }
      if (!first) out.push_back(',');
      first = false;
      appendName(out, field.name);
      appendJson(out, field.get(row));
   }
   if (inKey) out.push_back('}');
   out.push_back('}');
}

Zeb::String strepOf(Schema const& schema, void const* row) {
   return schema.row.info().implementation.values->genericIfStrRep(row, schema.row);
}

} // namespace Tool
