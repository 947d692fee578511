// SPDX-License-Identifier: Apache-2.0
// The one part of Zeb::String that needs no inlining: printf-style formatting.
#include "Zeb/String.h"

#include <cstdarg>
#include <cstdio>

namespace Zeb {

String format(char const* pattern, ...) {
   va_list arguments;
   va_start(arguments, pattern);
   va_list again;
   va_copy(again, arguments);
   int const length = std::vsnprintf(nullptr, 0, pattern, arguments);
   va_end(arguments);
   std::string text;
   if (length > 0) {
      text.resize(static_cast<std::size_t>(length));
      std::vsnprintf(text.data(), text.size() + 1, pattern, again);
   }
   va_end(again);
   return String(std::move(text));
}

} // namespace Zeb
