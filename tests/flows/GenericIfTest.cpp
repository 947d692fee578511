// SPDX-License-Identifier: Apache-2.0
// The registry as a program without headers sees it: which types there are, which attributes each has, and
// what each operation does with each attribute. What is expected stands here once more, by hand, since ids
// and numbers are what programs rely on.
#include "FlowTracking/Types.h"
#include "Zeb/Exception.h"
#include "Zeb/Registry.h"

#include <cstring>
#include <gtest/gtest.h>
#include <map>
#include <vector>

namespace FlowTracking {
namespace {

using Zeb::AttributeKind;
using Zeb::ZebType;
using Zeb::GenericIf::AttributeOp;
using Zeb::GenericIf::noAttribute;
using Zeb::GenericIf::Status;

using Ids = std::map<std::string, unsigned>;

/// What is said of a value type: its place, its flags, its attributes.
struct Wanted {
   Zeb::Module const& module;
   unsigned index;
   std::string name;
   unsigned flags, size;
   Ids ids;
   std::vector<std::string> writable;
};

// clang-format off
Ids const keyIds{{"ipFlowKey", 2}, {"vrfId", 3}, {"vlanId", 4}, {"srcAddr", 5}, {"dstAddr", 6}, {"ipProtocol", 7},
                 {"srcPort", 8}, {"dstPort", 9}, {"direction", 10}, {"ipProtocolNumber", 11}, {"intfId", 12},
                 {"mirakString", 13}};
Ids const configIds{{"key", 2}, {"createTime", 3}, {"updateTime", 4}, {"srcEthAddr", 5}, {"dstEthAddr", 6},
                    {"dot1qVlanTag", 7}, {"dot1qCustomerVlanTag", 8}, {"cachedIntfId", 9}, {"mirakString", 10}};
Ids const statusIds{{"key", 2}, {"hoFlowState", 3}, {"createTime", 4}, {"updateTime", 5}, {"mirakString", 6}};
Ids const counterIds{{"key", 2}, {"intfId", 3}, {"packets", 4}, {"bytes", 5}, {"createTime", 6}, {"updateTime", 7},
                     {"hosEntries", 8}, {"mirakString", 9}};
Ids const stateKeyIds{{"key", 2}, {"mirakString", 3}}, stateIds{{"key", 2}, {"hoFlows", 3}, {"mirakString", 4}};
std::vector<std::string> const
   configFields{"createTime", "updateTime", "srcEthAddr", "dstEthAddr", "dot1qVlanTag", "dot1qCustomerVlanTag",
                "cachedIntfId"},
   statusFields{"hoFlowState", "createTime", "updateTime"},
   counterFields{"intfId", "packets", "bytes", "createTime", "updateTime", "hosEntries"};

std::vector<Wanted> const& wantedTypes() {
   static std::vector<Wanted> const all{
       {_HoFlow_adf6f25f_zebModule, 0, "HoIpFlowKey", 0x0401, 36, keyIds, {}},
       {_Ho6Flow_e944d5d2_zebModule, 0, "HoIp6FlowKey", 0x0401, 60, keyIds, {}},
       {_HoFlowConfig_d7c62409_zebModule, 0, "HoIpFlowConfig", 0x0401, 84, configIds, configFields},
       {_HoFlowConfig_d7c62409_zebModule, 1, "HoIp6FlowConfig", 0x0401, 108, configIds, configFields},
       {_HoFlowStatus_b4e443f4_zebModule, 0, "HoIpFlowStatus", 0x0401, 56, statusIds, statusFields},
       {_HoFlowStatus_b4e443f4_zebModule, 1, "HoIp6FlowStatus", 0x0401, 80, statusIds, statusFields},
       {_HoFlowStatus_b4e443f4_zebModule, 3, "HosStateCounterKey", 0x0001, 1, stateKeyIds, {}},
       {_HoFlowStatus_b4e443f4_zebModule, 4, "HosStateCounterEntry", 0x0001, 8, stateIds, {"hoFlows"}},
       {_HoFlowStatus_b4e443f4_zebModule, 6, "HoIpFlowCounter", 0x0401, 72, counterIds, counterFields},
       {_HoFlowStatus_b4e443f4_zebModule, 7, "HoIp6FlowCounter", 0x0401, 96, counterIds, counterFields},
   };
   return all;
}
// clang-format on

/// A value of a registered type.
class Value {
public:
   explicit Value(ZebType type, void const* source = nullptr)
      : type_(type)
      , memory_(type.info().size / sizeof(std::max_align_t) + 1) {
      methods().genericIfConstruct(at(), source);
   }
   Value(Value const&) = delete;
   Value& operator=(Value const&) = delete;
   ~Value() { methods().genericIfDestruct(at()); }
   Zeb::ValueMethods const& methods() const { return *type_.info().implementation.values; }
   void* at() const { return const_cast<std::max_align_t*>(memory_.data()); }
   std::string text() const { return methods().genericIfStrRep(at(), type_).str(); }
   void textIs(std::string const& text) { methods().genericIfStrepToValue(at(), text, type_); }
   Status op(void* result, unsigned attribute, unsigned operation, void const* argument = nullptr) const {
      return type_.info().implementation.genericIfAttributeOp(
          result, at(), attribute, static_cast<AttributeOp>(operation), nullptr, argument, nullptr);
   }
   bool whole(AttributeOp operation, Value const& other) const {
      std::uint8_t answer = 77;
      EXPECT_EQ(op(&answer, noAttribute, static_cast<unsigned>(operation), other.at()), Status::done);
      return answer;
   }

private:
   ZebType type_;
   std::vector<std::max_align_t> memory_;
};

TEST(GenericIf, TypesAndAttributes) {
   for (Wanted const& wanted : wantedTypes()) {
      SCOPED_TRACE(wanted.name);
      ZebType const type = Zeb::typeNamed("FlowTracking::" + wanted.name);
      ASSERT_TRUE(type);
      EXPECT_EQ(type, ZebType(&wanted.module, wanted.index));
      EXPECT_EQ(type.info().flags, wanted.flags);
      EXPECT_EQ(type.info().size, wanted.size);
      EXPECT_FALSE(type.isPolymorphic());
      Ids ids;
      unsigned last = 0;
      for (Zeb::Attribute const& a : type.info().attributes) {
         ids[a.name] = a.id;
         EXPECT_GT(a.id, last) << "not in the order of the ids";
         last = a.id;
         EXPECT_TRUE(a.type) << a.name << " has no registered type";
         EXPECT_EQ(type.attribute(a.id), &a);
         EXPECT_EQ(type.attribute(a.name), &a);
      }
      EXPECT_EQ(ids, wanted.ids);
   }
   EXPECT_FALSE(Zeb::typeNamed("FlowTracking::HoIpFlow"));
   auto const modules = Zeb::modules();
   EXPECT_NE(std::find(modules.begin(), modules.end(), &_FlowTable_b9c42498_zebModule), modules.end());
   ZebType const key = Zeb::typeOf<HoIpFlowKey>;
   EXPECT_EQ(static_cast<unsigned>(key.attribute("ipFlowKey")->kind), 0x1012c00u);
   EXPECT_EQ(static_cast<unsigned>(key.attribute("srcPort")->kind), 0x0002800u);
   EXPECT_EQ(static_cast<unsigned>(key.attribute("mirakString")->kind), 0x0000810u);
   EXPECT_EQ(static_cast<unsigned>(Zeb::typeOf<HoIpFlowStatus>.attribute("updateTime")->kind), 0x1011c00u);
}

TEST(GenericIf, EachOperationOfEachAttribute) {
   for (Wanted const& wanted : wantedTypes()) {
      SCOPED_TRACE(wanted.name);
      ZebType const type(&wanted.module, wanted.index);
      Value value(type);
      for (auto const& [name, id] : wanted.ids) {
         Zeb::Attribute const& attribute = *type.attribute(id);
         bool const isFunction = attribute.kind == AttributeKind::function;
         bool const isWritable = std::count(wanted.writable.begin(), wanted.writable.end(), name) > 0;
         Value result(attribute.type);
         for (unsigned operation = 0; operation < 20; ++operation) {
            bool const defined =
                isFunction ? operation == 10 : operation == 0 || (operation == 1 && isWritable);
            EXPECT_EQ(value.op(result.at(), id, operation, result.at()),
                      defined ? Status::done : Status::notDefined)
                << name << " " << operation;
         }
      }
      for (unsigned const id : {1u, 14u, 258u, 0xffffffffu})
         EXPECT_EQ(value.op(nullptr, id, 99), Status::unknownAttribute) << id;
      for (unsigned operation = 0; operation < 20; ++operation) {
         std::uint8_t answer = 0;
         bool const isKey = wanted.name.ends_with("Key");
         bool const defined = operation == 11 || operation == 12 || (operation == 13 && isKey);
         EXPECT_EQ(value.op(&answer, noAttribute, operation, value.at()),
                   defined ? Status::done : Status::notDefined)
             << operation;
      }
   }
}

/// A row of the type whose stored fields all differ from their defaults, made by writing them one by one.
void expectFieldsArriveAndReturn(ZebType type, Ids const& ids, std::vector<std::string> const& writable) {
   std::map<std::string, std::string> const texts{{"Zeb::Seconds", "1.5"},
                                                  {"Nimbet::EthAddr", "00:00:00:00:00:07"},
                                                  {"Ovie::VlanTag", "42"},
                                                  {"Nimbet::IntfId", "if9"},
                                                  {"FlowTracking::HoFlowState", "offloaded"}};
   Value row(type);
   std::string expected = row.text();
   for (std::string const& name : writable) {
      Zeb::Attribute const& attribute = *type.attribute(ids.at(name));
      Value field(attribute.type), back(attribute.type);
      auto const known = texts.find(attribute.type.name());
      std::string const text = known == texts.end() ? "7" : known->second;
      field.textIs(text);
      std::string const label = "'" + name + "': ";
      auto const at = expected.find(label) + label.size();
      expected.replace(at, expected.find_first_of(",}", at) - at, text);
      EXPECT_EQ(row.op(nullptr, attribute.id, 1, field.at()), Status::done);
      EXPECT_EQ(row.text(), expected) << name;
      EXPECT_EQ(row.op(back.at(), attribute.id, 0), Status::done);
      EXPECT_EQ(back.text(), text) << name;
   }
   Value const fresh(type), copy(type, row.at());
   EXPECT_TRUE(copy.whole(AttributeOp::equal, row));
   EXPECT_FALSE(copy.whole(AttributeOp::equal, fresh));
   std::uint8_t answer = 2;
   EXPECT_EQ(row.op(&answer, noAttribute, 11), Status::done);
   EXPECT_EQ(answer, 1);
   EXPECT_EQ(fresh.op(&answer, noAttribute, 11), Status::done);
   EXPECT_EQ(answer, 0);
   Value parsed(type);
   parsed.textIs(row.text());
   EXPECT_TRUE(parsed.whole(AttributeOp::equal, row));
}

TEST(GenericIf, FieldsArriveAndReturn) {
   for (Wanted const& wanted : wantedTypes())
      if (!wanted.writable.empty()) {
         SCOPED_TRACE(wanted.name);
         expectFieldsArriveAndReturn(ZebType(&wanted.module, wanted.index), wanted.ids, wanted.writable);
      }
}

TEST(GenericIf, KeysAreMadeOfTheirParts) {
   IpFlowKey const flow(1, 2, Ip::IpAddr({10, 0, 0, 1}), {}, static_cast<Ip::Protocol>(0x106), 80, 4711);
   Nimbet::IntfId const intfId(5);
   IpFlowKey flowCopy = flow;
   Nimbet::IntfId intfCopy = intfId;
   void* const arguments[] = {&flowCopy, &intfCopy};
   ZebType const type = Zeb::typeOf<HoIpFlowKey>;
   Value key(type);
   type.info().implementation.genericIfConstructFromCtorArgs(key.at(), arguments);
   HoIpFlowKey const wanted(flow, intfId);
   EXPECT_EQ(*static_cast<HoIpFlowKey*>(key.at()), wanted);
   EXPECT_EQ(key.methods().genericIfHash(key.at(), type), wanted.hash(0));
   std::uint8_t number = 0;
   EXPECT_EQ(key.op(&number, 11, 0), Status::done);
   EXPECT_EQ(number, 6); // the low byte
   Zeb::String text;
   EXPECT_EQ(key.op(&text, 13, 10), Status::done);
   EXPECT_EQ(text, wanted.mirakString());
   Value const other(type);
   EXPECT_TRUE(key.whole(AttributeOp::less, other)); // vrf 1 is before 0xffffff
   EXPECT_FALSE(other.whole(AttributeOp::less, key));

   HoFlowState state = HoFlowState::rejected;
   void* const stateArguments[] = {&state};
   ZebType const stateType = Zeb::typeOf<HosStateCounterKey>;
   Value stateKey(stateType);
   stateType.info().implementation.genericIfConstructFromCtorArgs(stateKey.at(), stateArguments);
   EXPECT_EQ(stateKey.text(), "rejected");
   EXPECT_EQ(stateKey.methods().genericIfHash(stateKey.at(), stateType),
             Zeb::hashSingleAttr<unsigned char>(0, 3));

   HoIpFlowStatus record(wanted);
   record.hoFlowStateIs(state);
   void* const keyArgument[] = {key.at()};
   ZebType const recordType = Zeb::typeOf<HoIpFlowStatus>;
   Value made(recordType);
   recordType.info().implementation.genericIfConstructFromCtorArgs(made.at(), keyArgument);
   EXPECT_EQ(*static_cast<HoIpFlowStatus*>(made.at()), HoIpFlowStatus(wanted)); // the rest are defaults
   EXPECT_THROW(made.methods().genericIfHash(made.at(), recordType), Zeb::UnhashableException);
   EXPECT_EQ(made.methods().genericIfVoidPtrIs(made.at(), recordType, recordType), made.at());
   EXPECT_THROW(made.methods().genericIfVoidPtrIs(made.at(), recordType, type), Zeb::TypeException);
   EXPECT_THROW(made.textIs("nonsense"), Zeb::SyntaxException);
   EXPECT_EQ(*static_cast<HoIpFlowStatus*>(made.at()), HoIpFlowStatus(wanted));
}

// Five of a tag's six bytes are its value: a write leaves the sixth alone, a read copies all.
TEST(GenericIf, ATagsSixthByteStays) {
   ZebType const type = Zeb::typeOf<HoIp6FlowConfig>;
   unsigned constexpr offset = 88;
   HoIp6FlowConfig record;
   auto* const bytes = reinterpret_cast<unsigned char*>(&record);
   bytes[offset + 5] = 0xaa;
   Ovie::VlanTag tag(42);
   reinterpret_cast<unsigned char*>(&tag)[5] = 0xbb;
   auto const op = type.info().implementation.genericIfAttributeOp;
   EXPECT_EQ(op(nullptr, &record, 7, AttributeOp::set, nullptr, &tag, nullptr), Status::done);
   EXPECT_EQ(record.dot1qVlanTag(), tag);
   EXPECT_EQ(bytes[offset + 5], 0xaa);
   unsigned char read[7] = {0, 0, 0, 0, 0, 0, 0x77};
   EXPECT_EQ(op(read, &record, 7, AttributeOp::get, nullptr, nullptr, nullptr), Status::done);
   EXPECT_EQ(std::memcmp(read, bytes + offset, 6), 0);
   EXPECT_EQ(read[6], 0x77);
   // A copy made through the interface is one of all bytes.
   Value const copy(type, &record);
   EXPECT_EQ(std::memcmp(copy.at(), bytes, sizeof record), 0);
}

} // namespace
} // namespace FlowTracking
