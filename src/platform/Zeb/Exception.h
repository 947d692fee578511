// SPDX-License-Identifier: Apache-2.0
// The exceptions of text forms and of the generic interface.
#pragma once

#include "Lomi/Exception.h"
#include "Zeb/ZebType.h"

namespace Zeb {

/// A text doesn't go on as its type's form does: another literal stands there, or something behind the end.
class HOFLOW_EXPORT SyntaxException : public Lomi::RuntimeException {
   using RuntimeException::RuntimeException;
};

/// The text of a field gives no value of its type: it is none, is out of range, or isn't written the way in
/// which it would be printed. Knows the field, from the outermost value inwards.
class HOFLOW_EXPORT RangeException : public Lomi::RuntimeException {
public:
   explicit RangeException(std::string detail, std::string field = {})
      : RuntimeException(field.empty() ? detail : field + ": " + detail)
      , detail_(std::move(detail))
      , field_(std::move(field)) {}

   /// "key.ipFlowKey.srcPort"; empty where no field was named yet.
   std::string const& field() const { return field_; }
   /// Place, what was expected, and what was found.
   std::string const& detail() const { return detail_; }

private:
   std::string detail_, field_;
};

/// A value of this type can't be hashed through the generic interface.
class HOFLOW_EXPORT UnhashableException : public Lomi::RuntimeException {
   using RuntimeException::RuntimeException;
};

/// A value of one type where one of another, or of one derived from it, is needed.
class HOFLOW_EXPORT TypeException : public Lomi::RuntimeException {
   using RuntimeException::RuntimeException;
};

/// An entity was to be made with arguments; none takes any.
class HOFLOW_EXPORT NewEntityArgsException : public Lomi::RuntimeException {
   using RuntimeException::RuntimeException;
};

[[noreturn]] HOFLOW_EXPORT void throwNewEntityArgsException(Module const* module, unsigned index);

namespace GenericIfImpl {
[[noreturn]] HOFLOW_EXPORT void throwUnhashableException(ZebType type);
[[noreturn]] HOFLOW_EXPORT void throwTypeException(ZebType type, ZebType target);
} // namespace GenericIfImpl

} // namespace Zeb
