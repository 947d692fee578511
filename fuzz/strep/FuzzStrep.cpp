// SPDX-License-Identifier: Apache-2.0
// libFuzzer program for the parsers of text forms, of all registered types: a text is refused by one of the
// two exceptions that say so, or it is the very text that the value prints. ./dev fuzz runs it for a bounded
// time.
//
// The first byte chooses the type, the second what the rest is: a text, or a value whose own text is taken
// with some characters exchanged, so that the fuzzer starts behind the literals.
#include "FlowTracking/Types.h"
#include "Zeb/Exception.h"
#include "Zeb/Registry.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace {

using Memory = std::vector<std::max_align_t>;

std::vector<Zeb::ZebType> const& valueTypes() {
   static auto const types = [] {
      Zeb::zebModuleIs(
          &_HoFlowConfig_d7c62409_zebModule); // a static library's module registers itself only if used
      std::vector<Zeb::ZebType> found;
      for (Zeb::Module const* const module : Zeb::modules())
         for (unsigned index = 0; index < module->types.size(); ++index)
            if (Zeb::ZebType const type(module, index); module->types[index] && !type.isPolymorphic())
               found.push_back(type);
      return found;
   }();
   return types;
}

void parse(Zeb::ZebType type, Zeb::String const& text) {
   Zeb::ValueMethods const& values = *type.info().implementation.values;
   Memory memory(type.info().size / sizeof(std::max_align_t) + 1);
   values.genericIfConstruct(memory.data(), nullptr);
   try {
      values.genericIfStrepToValue(memory.data(), text, type);
      if (values.genericIfStrRep(memory.data(), type) != text) std::abort();
   } catch (Zeb::SyntaxException const&) {
   } catch (Zeb::RangeException const&) {
   }
   values.genericIfDestruct(memory.data());
}

/// The text of the value whose bytes stand at the front of `data`; what is behind them exchanges characters.
Zeb::String changedText(Zeb::ZebType type, unsigned char const* data, std::size_t size) {
   Memory memory(type.info().size / sizeof(std::max_align_t) + 1);
   std::size_t const taken = std::min<std::size_t>(size, type.info().size);
   std::memcpy(memory.data(), data, taken);
   std::string text = type.info().implementation.values->genericIfStrRep(memory.data(), type).str();
   for (data += taken, size -= taken; size >= 2 && !text.empty(); data += 2, size -= 2)
      text[data[0] % text.size()] = static_cast<char>(data[1]);
   return text;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(unsigned char const* data, std::size_t size) {
   if (size < 2) return 0;
   Zeb::ZebType const type = valueTypes()[data[0] % valueTypes().size()];
   bool const isText = data[1] % 2 || type == Zeb::typeString; // a string has no bytes of its own
   data += 2, size -= 2;
   parse(type, isText ? Zeb::String(std::string_view(reinterpret_cast<char const*>(data), size))
                      : changedText(type, data, size));
   return 0;
}
