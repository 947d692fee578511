// SPDX-License-Identifier: Apache-2.0
// types and schema: what the registry knows of types, without a table.
#include "Commands.h"
#include "FlowTracking/TableTypes.h"
#include "Json.h"
#include "Schema.h"
#include "Zeb/Registry.h"

#include <algorithm>

namespace Tool {

using Zeb::AttributeKind;
using Zeb::ZebType;

namespace {

std::vector<ZebType> allTypes() {
   std::vector<ZebType> types;
   for (Zeb::Module const* const module : Zeb::modules())
      for (unsigned index = 0; index < module->types.size(); ++index)
         if (module->types[index]) types.emplace_back(module, index);
   std::sort(types.begin(), types.end(),
             [](ZebType a, ZebType b) { return std::string_view(a.name()) < b.name(); });
   return types;
}

bool isKey(ZebType type) {
   auto const tables = FlowTracking::tableTypes();
   return std::any_of(tables.begin(), tables.end(), [=](Mirak::TableType const& table) {
      return schemaOf(Zeb::typeNamed(table.valueType)).key == type;
   });
}

char const* sortOf(ZebType type) {
   if (type.isPolymorphic()) return "entity";
   if (FlowTracking::tableTypeNamed(type.name())) return "row";
   return isKey(type) ? "key" : "value";
}

char const* kindText(AttributeKind kind) {
   switch (kind) {
   case AttributeKind::constructedField:
      return "constructed";
   case AttributeKind::field:
      return "field";
   case AttributeKind::readOnlyField:
      return "read-only";
   case AttributeKind::function:
      return "function";
   case AttributeKind::staticFunction:
      return "static-function";
   case AttributeKind::collection:
      return "collection";
   case AttributeKind::collectionControl:
      return "control";
   }
   return "?";
}

std::vector<char const*> operationsOf(AttributeKind kind) {
   switch (kind) {
   case AttributeKind::constructedField:
   case AttributeKind::readOnlyField:
      return {"get"};
   case AttributeKind::field:
   case AttributeKind::collectionControl:
      return {"get", "set"};
   case AttributeKind::function:
   case AttributeKind::staticFunction:
      return {"call"};
   case AttributeKind::collection:
      return {"get", "set", "del", "members", "zero", "has"};
   }
   return {};
}

std::string typeText(ZebType type) { return type ? type.name() : "-"; }
ordered_json typeJson(ZebType type) { return type ? ordered_json(type.name()) : ordered_json(); }

/// The text form of a default value: what `load` wants to see. Entities have none.
std::string defaultStrep(ZebType type) {
   if (type.isPolymorphic()) return {};
   Value const value(type);
   return type.info().implementation.values->genericIfStrRep(value.get(), type).str();
}

ZebType resolveType(std::string const& word) {
   std::string names;
   for (ZebType const type : allTypes()) {
      std::string_view const name = type.name();
      if (isTypeName(word, name)) return type;
      names += fmt::format("\n    {}", name);
   }
   throw Failure{Exit::usage, fmt::format("there is no type \"{}\"", word), "there is:" + names};
}

ordered_json summary(ZebType type) {
   return {{"type", type.name()},           {"sort", sortOf(type)},
           {"module", type.module()->name}, {"index", type.index()},
           {"size", type.info().size},      {"attributeCount", type.info().attributes.size()}};
}

void schemaJson(Common const& common, ZebType type) {
   ordered_json j = summary(type);
   j["base"] = typeJson(type.info().base);
   j["attributes"] = ordered_json::array();
   for (Zeb::Attribute const& a : type.info().attributes) {
      ordered_json attribute{{"id", a.id},
                             {"name", a.name},
                             {"kind", kindText(a.kind)},
                             {"type", typeJson(a.type)},
                             {"operations", operationsOf(a.kind)}};
      if (a.kind == AttributeKind::collection) attribute["keyType"] = typeJson(a.keyType);
      for (Zeb::Parameter const& p : a.parameters)
         attribute["parameters"].push_back({{"name", p.name}, {"type", typeJson(p.type)}});
      j["attributes"].push_back(attribute);
   }
   auto const strep = defaultStrep(type);
   j["default"] = strep.empty() ? ordered_json() : ordered_json(strep);
   common.out.line(jsonLine(j));
}

std::string parametersText(Zeb::Attribute const& attribute) {
   std::string text;
   for (Zeb::Parameter const& p : attribute.parameters)
      text += fmt::format("{}{} {}", text.empty() ? "" : ", ", typeText(p.type), p.name);
   return "(" + text + ")";
}

void schemaText(Common const& common, ZebType type) {
   auto& out = common.out;
   out.line(fmt::format("{}  {} {} of module {}, {} bytes", out.styled(Style::bold, type.name()),
                        sortOf(type), type.index(), type.module()->name, type.info().size));
   if (auto const strep = defaultStrep(type); !strep.empty()) out.line("default  " + strep);
   if (type.info().attributes.empty()) return;
   Columns columns(out, {{"id", true}, {"attribute", false}, {"kind", false}, {"type", false}}, true);
   for (Zeb::Attribute const& a : type.info().attributes) {
      std::string what = typeText(a.type);
      if (a.kind == AttributeKind::collection) what += " by " + typeText(a.keyType);
      if (a.kind == AttributeKind::function || a.kind == AttributeKind::staticFunction)
         what += parametersText(a);
      columns.add({std::to_string(a.id), a.name, kindText(a.kind), what});
   }
   columns.finish();
}

} // namespace

Exit listTypes(Common const& common, std::vector<std::string> const& words) {
   Columns columns(common.out,
                   {{"type", false},
                    {"sort", false},
                    {"module", false},
                    {"index", true},
                    {"size", true},
                    {"attributes", true}},
                   true);
   std::size_t shown = 0;
   for (ZebType const type : allTypes()) {
      std::string_view const name = type.name();
      if (!words.empty() && std::none_of(words.begin(), words.end(), [=](std::string const& word) {
             return name.find(word) != std::string_view::npos;
          }))
         continue;
      ++shown;
      if (common.json)
         common.out.line(jsonLine(summary(type)));
      else
         columns.add({type.name(), sortOf(type), type.module()->name, std::to_string(type.index()),
                      std::to_string(type.info().size), std::to_string(type.info().attributes.size())});
   }
   if (!common.json && shown) columns.finish();
   return shown ? Exit::ok : Exit::noMatch;
}

Exit showSchemas(Common const& common, std::vector<std::string> const& words) {
   bool first = true;
   for (std::string const& word : words) {
      ZebType const type = resolveType(word);
      if (!first && !common.json) common.out.line("");
      first = false;
      common.json ? schemaJson(common, type) : schemaText(common, type);
   }
   return Exit::ok;
}

} // namespace Tool
