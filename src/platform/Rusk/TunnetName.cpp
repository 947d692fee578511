// SPDX-License-Identifier: Apache-2.0
#include "Rusk/TunnetName.h"

#include <fmt/format.h>

#include <charconv>
#include <string_view>

namespace Rusk {
namespace {

constexpr std::string_view namePrefix = ".rusk.";

bool readNumber(std::string_view text, Mem::u32& number) {
   auto const [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
   return error == std::errc() && end == text.data() + text.size() && number > 0;
}

} // namespace

std::string TunnetName::text() const {
   return number ? fmt::format("{}{}.{}", namePrefix, processId, number)
                 : fmt::format("{}{}", namePrefix, processId);
}

TunnetName TunnetNameIs(std::string const& name) {
   TunnetName read;
   std::string_view rest(name);
   if (!rest.starts_with(namePrefix)) return {};
   rest.remove_prefix(namePrefix.size());
   auto const dot = rest.find('.');
   read.valid = readNumber(rest.substr(0, dot), read.processId) &&
                (dot == rest.npos || readNumber(rest.substr(dot + 1), read.number)) && read.text() == name;
   return read.valid ? read : TunnetName{};
}

} // namespace Rusk
