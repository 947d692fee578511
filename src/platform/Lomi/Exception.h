// SPDX-License-Identifier: Apache-2.0
// The exceptions of the whole library. `what()` is exactly the text that the thrower formatted. Callers
// choose by type: damage, a failed start, a refused write, a shortage. Broken promises inside the library are
// no exceptions; they end the process through Lomi::fmassert (Lomi/Trace.h).
#pragma once

#include "Lomi/Export.h"

#include <exception>
#include <string>
#include <utility>

namespace Lomi {

class HOFLOW_EXPORT Exception : public std::exception {
public:
   explicit Exception(std::string text)
      : text_(std::move(text)) {}
   char const* what() const noexcept override { return text_.c_str(); }
   std::string const& msg() const noexcept { return text_; }

private:
   std::string text_;
};

/// An operation that can't be done with these arguments or at this moment.
class HOFLOW_EXPORT RuntimeException : public Exception {
   using Exception::Exception;
};

/// The content of a table's file is not what a writer could have left there.
class HOFLOW_EXPORT CorruptionDetectedException : public Exception {
   using Exception::Exception;
};

/// Bad configuration or a failed start.
class HOFLOW_EXPORT InvalidInitializeException : public Exception {
   using Exception::Exception;
};

/// A write to something that this process may only read.
class HOFLOW_EXPORT NoPermissionException : public Exception {
   using Exception::Exception;
};

/// No memory, no room in the file system, or a mapping that the kernel refused.
class HOFLOW_EXPORT MemoryResourceException : public Exception {
   using Exception::Exception;
};

} // namespace Lomi
