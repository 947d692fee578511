// SPDX-License-Identifier: Apache-2.0
// Private memory: contents across resizes, zeros in what is new, and no trace in the file system.
#include "Mem/Local.h"
#include "Lomi/Exception.h"
#include "Scratch.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>

using Mem::Local;

class LocalKinds : public testing::TestWithParam<bool> {};
INSTANTIATE_TEST_SUITE_P(Kinds, LocalKinds, testing::Values(false, true));

TEST_P(LocalKinds, KeepsContentsAndAddsZeros) {
   Local memory(handler());
   memory.useHeapIs(GetParam());
   EXPECT_EQ(memory.kind(), GetParam() ? Local::HEAP : Local::ANONYMOUS);
   ASSERT_NE(memory.attach(100), nullptr);
   std::memset(memory.base(), 'a', 100);
   for (Mem::u64 size : {200u, 50u, 5000u, 60u, 100000u}) {
      auto const kept = std::min<Mem::u64>(memory.mappedSize(), size);
      Mem::u64 filled = 0;
      while (filled < kept && memory.base()[filled] == 'a') ++filled;
      ASSERT_NE(memory.resize(size), nullptr);
      EXPECT_EQ(memory.mappedSize(), size);
      EXPECT_EQ(reinterpret_cast<std::uintptr_t>(memory.base()) % 64, 0u);
      for (Mem::u64 i = 0; i < size; ++i)
         ASSERT_EQ(memory.base()[i], i < filled ? 'a' : 0) << i << " of " << size;
   }
   char const* const base = memory.base();
   for (Mem::u64 bad : {Mem::u64{0}, Local::maxMappingSize() + 1}) {
      EXPECT_EQ(memory.resize(bad), nullptr);
      EXPECT_FALSE(memory.lastError().empty());
      EXPECT_EQ(Local(handler()).attach(bad), nullptr);
   }
   EXPECT_EQ(memory.base(), base);
   EXPECT_EQ(memory.mappedSize(), 100000u);
   EXPECT_THROW(Mem::multiplyOverflowCheck(Mem::u64{1} << 40, Mem::u64{1} << 40),
                Lomi::MemoryResourceException);
}
