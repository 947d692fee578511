// SPDX-License-Identifier: Apache-2.0
// The entities as a program uses them that knows none of their headers: found by name, made, read, changed
// and walked by attribute ids alone.
#include "Collections.h"

#include "FlowTracking/Types.h"
#include "Zeb/EntityType.h"
#include "Zeb/Exception.h"
#include "Zeb/Registry.h"
#include "ZebMirak/Types.h"

namespace Test {
namespace {

using Op = Zeb::GenericIf::AttributeOp;
using Zeb::GenericIf::Status;

template <class C> class Generic : public testing::Test {
protected:
   Zeb::ZebType const entityType = Zeb::typeNamed(C::entityType);
   Zeb::Implementation const& calls = entityType.info().implementation;
   Zeb::Ptr<Zeb::Entity> const entity = calls.newEntityForDir("e", nullptr);

   Status op(Op operation, void* result, typename C::Key const* key = nullptr, void const* argument = nullptr,
             Zeb::AttributeId attribute = C::id) {
      return calls.genericIfAttributeOp(result, entity.get(), attribute, operation, key, argument, nullptr);
   }
};
TYPED_TEST_SUITE(Generic, AllCollections, CollectionName);

TYPED_TEST(Generic, TheRegistryKnowsTypesAndAttributes) {
   using C = TypeParam;
   auto const type = this->entityType;
   ASSERT_TRUE(type);
   EXPECT_TRUE(type.isPolymorphic() && type.isDerived(Zeb::typeNamed("Zeb::Entity")));
   EXPECT_EQ(this->entity->fwkType(), type);
   EXPECT_EQ(this->entity->name(), "e");
   int argument = 0;
   EXPECT_THROW(this->calls.newEntityForDir("e", &argument), Zeb::NewEntityArgsException);
   EXPECT_THROW(this->calls.values->genericIfHash(&this->entity, type), Zeb::UnhashableException);
   EXPECT_THROW(
       this->calls.values->genericIfVoidPtrIs(this->entity.get(), type, Zeb::typeOf<typename C::Key>),
       Zeb::TypeException);
   EXPECT_EQ(this->calls.values->genericIfVoidPtrIs(this->entity.get(), type, Zeb::typeEntity),
             this->entity.get());

   auto const* const collection = type.attribute(C::id);
   ASSERT_TRUE(collection && collection == type.attribute(std::string_view(C::name)));
   EXPECT_EQ(collection->kind, Zeb::AttributeKind::collection);
   EXPECT_EQ(collection->type, Zeb::typeOf<typename C::Record>);
   EXPECT_EQ(collection->keyType, Zeb::typeOf<typename C::Key>);
   auto const* const control = type.attribute(C::id + 1);
   ASSERT_TRUE(control);
   EXPECT_EQ(control->name, std::string(C::name) + "Control");
   EXPECT_EQ(control->kind, Zeb::AttributeKind::collectionControl);
   EXPECT_EQ(std::string(control->type.name()), "ZebMirak::CollectionControl");
   auto const* const path = type.attribute(262);
   ASSERT_TRUE(path);
   EXPECT_EQ(path->name, std::string("mountPath"));
   EXPECT_EQ(path->parameters.size(), (std::is_same_v<typename C::Entity, HoFlowCounter> ? 2u : 1u));
   EXPECT_EQ(path->parameters[0].name, std::string("ftrTypeStr"));
   EXPECT_EQ(type.info().attributes.size(), 5u);
}

TYPED_TEST(Generic, OperationsReachTheCollection) {
   using C = TypeParam;
   using Key = typename C::Key;
   using Record = typename C::Record;
   Key const one = keyNumber<Key>(1), two = keyNumber<Key>(2);
   Record const row(one);
   Record got(two);
   std::uint32_t number = 9;
   std::uint8_t flag = 9;
   EXPECT_EQ(this->op(Op::has, &flag, &one), Status::done);
   EXPECT_EQ(flag, 0);
   EXPECT_EQ(this->op(Op::set, nullptr, nullptr, &row), Status::done);
   EXPECT_EQ(this->op(Op::has, &flag, &one), Status::done);
   EXPECT_EQ(flag, 1);
   EXPECT_EQ(this->op(Op::members, &number), Status::done);
   EXPECT_EQ(number, 1u);
   EXPECT_EQ(this->op(Op::zero, &number), Status::done);
   EXPECT_EQ(number, 0u);
   EXPECT_EQ(this->op(Op::get, &got, &two), Status::done);
   EXPECT_TRUE(got == Record());
   EXPECT_EQ(this->op(Op::get, &got, &one), Status::done);
   EXPECT_TRUE(got == row);
   got = Record();
   EXPECT_EQ(this->op(Op::del, &got, &one), Status::done);
   EXPECT_TRUE(got == row);
   EXPECT_EQ(C::map(static_cast<typename C::Entity&>(*this->entity)).members(), 0u);

   for (auto const other : {Op::call, Op::nonzero, Op::equal, static_cast<Op>(99)})
      EXPECT_EQ(this->op(other, &number), Status::notDefined);
   EXPECT_EQ(this->op(Op::members, &number, nullptr, nullptr, C::id + 1), Status::notDefined);
   EXPECT_EQ(this->op(Op::get, &number, nullptr, nullptr, 262), Status::notDefined);
   for (Zeb::AttributeId const unknown : {0u, 2u, 257u, 263u})
      EXPECT_EQ(this->op(static_cast<Op>(99), nullptr, nullptr, nullptr, unknown), Status::unknownAttribute);

   Zeb::Ptr<ZebMirak::CollectionControl> control, none;
   EXPECT_EQ(this->op(Op::get, &control, nullptr, nullptr, C::id + 1), Status::done);
   EXPECT_EQ(control->entity(), this->entity.get());
   EXPECT_EQ(this->op(Op::set, nullptr, nullptr, &none, C::id + 1), Status::done);
   EXPECT_FALSE(C::control(static_cast<typename C::Entity&>(*this->entity)));

   Zeb::String const type = "default", name = "a";
   Zeb::String path;
   EXPECT_EQ(
       this->calls.genericIfAttributeOp(&path, this->entity.get(), 262, Op::call, nullptr, &type, &name),
       Status::done);
   EXPECT_EQ(path.view().substr(0, 31), "flowtracking/default/hwOffload/");
   EXPECT_EQ(path.view().ends_with("/a"), (std::is_same_v<typename C::Entity, HoFlowCounter>));
}

TYPED_TEST(Generic, IteratorsWalkByCopies) {
   using C = TypeParam;
   using Key = typename C::Key;
   using Record = typename C::Record;
   Zeb::IteratorMethods const* walk = nullptr;
   EXPECT_EQ(this->calls.genericIfIterator(this->entity.get(), nullptr, C::id + 1, walk), nullptr);
   for (unsigned n = 0; n < 20; ++n) {
      Record const row(keyNumber<Key>(n));
      this->op(Op::set, nullptr, nullptr, &row);
   }
   void* at = this->calls.genericIfIterator(this->entity.get(), nullptr, C::id, walk);
   std::vector<Key> met;
   Key key;
   Record row;
   for (; walk->iterNonnull(at, C::id); walk->iterInc(at, C::id)) {
      EXPECT_TRUE(walk->iterKey(at, C::id, &key));
      walk->iterObj(at, C::id, &row);
      EXPECT_TRUE(row.key() == key);
      met.push_back(key);
   }
   EXPECT_EQ(met.size(), 20u);
   EXPECT_TRUE(walk->iterKey(at, C::id, &key)); // past the end: the last row's
   EXPECT_TRUE(key == met.back());
   walk->iterDel(at, C::id);
   at = this->calls.genericIfIterator(this->entity.get(), &met[11], C::id, walk);
   walk->iterKey(at, C::id, &key);
   EXPECT_TRUE(key == met[11]);
   walk->iterDel(at, C::id);
   EXPECT_EQ(C::map(static_cast<typename C::Entity&>(*this->entity)).members(), 20u); // frees no row
}

TEST(GenericEntities, VariablesHoldThemAndModulesListThem) {
   std::vector<std::pair<char const*, Zeb::ZebType>> const places = {
       {"FlowTracking::HoFlowConfig", {&_HoFlowConfig_d7c62409_zebModule, 2}},
       {"FlowTracking::HoFlowStatus", {&_HoFlowStatus_b4e443f4_zebModule, 2}},
       {"FlowTracking::HosStateCounter", {&_HoFlowStatus_b4e443f4_zebModule, 5}},
       {"FlowTracking::HoFlowCounter", {&_HoFlowStatus_b4e443f4_zebModule, 8}},
   };
   for (auto const& [name, place] : places) {
      EXPECT_EQ(Zeb::typeNamed(name), place);
      auto const& calls = place.info().implementation;
      alignas(Zeb::Ptr<Zeb::Entity>) unsigned char memory[2][sizeof(Zeb::Ptr<Zeb::Entity>)];
      Zeb::String const text = "made";
      void* args[] = {const_cast<Zeb::String*>(&text)};
      calls.genericIfConstructFromCtorArgs(memory[0], args);
      calls.values->genericIfConstruct(memory[1], memory[0]);
      calls.values->genericIfDestruct(memory[0]);
      EXPECT_EQ(calls.values->genericIfStrRep(memory[1], place), "made");
      EXPECT_THROW(calls.values->genericIfStrepToValue(memory[1], "made", place), Zeb::SyntaxException);
      calls.values->genericIfDestruct(memory[1]);
   }
}

} // namespace
} // namespace Test
