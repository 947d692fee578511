// SPDX-License-Identifier: Apache-2.0
// Traces and assertions. A DebugHandler has a name and a mask of ten levels: 0 failures, 1 lifecycle, 2
// mounts and growth, 3 file events, 5 detail, 7 slot moves, 8 and 9 per entry. LOMI_TRACE tests the mask
// before it evaluates any argument, so that a trace that is off costs one load and one branch. Traces go to
// stderr, or to the one callback that the process installs. A trace never throws.
//
// By default level 0 alone is on. The library reads no environment for it: the process says what it wants
// through defaultMaskIs, or for one handler through maskIs.
#pragma once

#include "Lomi/Export.h"

#include <fmt/format.h>

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

namespace Lomi::Platform {

constexpr unsigned traceLevels = 10;

/// A name and a level mask. May be read and set from any thread; the mask is a relaxed word, because a trace
/// more or less while it changes is no error.
class HOFLOW_EXPORT DebugHandler {
public:
   /// Takes the present default mask.
   explicit DebugHandler(std::string name);
   DebugHandler(DebugHandler const&) = delete;
   DebugHandler& operator=(DebugHandler const&) = delete;

   bool traces(unsigned level) const { return (mask_.load(std::memory_order_relaxed) >> level) & 1u; }
   unsigned mask() const { return mask_.load(std::memory_order_relaxed); }
   /// Bit n switches level n. From now on the default mask has no effect on this handler.
   void maskIs(unsigned mask);
   std::string const& name() const { return name_; }

private:
   friend HOFLOW_EXPORT void defaultMaskIs(unsigned mask);
   std::string name_;
   std::atomic<unsigned> mask_;
   std::atomic<bool> own_{false};
};

/// The handler of that name. Handlers live as long as the process. With `create` false an unknown name gives
/// null; "MirakTemp", the handler of collections without a mount, is always known.
HOFLOW_EXPORT std::shared_ptr<DebugHandler> getDebugHandler(std::string const& name, bool create);

/// The mask of every handler that has none of its own, present (if it came from getDebugHandler) and future.
HOFLOW_EXPORT void defaultMaskIs(unsigned mask);
HOFLOW_EXPORT unsigned defaultMask();

/// Receives each trace instead of stderr: level, handler's name, "Class::function", text. May be called from
/// any thread that traces; what it throws is dropped. An empty function restores stderr. The text of a failed
/// assertion goes to stderr in any case.
using TraceSink = std::function<void(unsigned level, std::string_view handler, std::string_view where,
                                     std::string_view text)>;
HOFLOW_EXPORT void traceSinkIs(TraceSink sink);

} // namespace Lomi::Platform

namespace Lomi {

/// Formats and emits one trace. Called by LOMI_TRACE after the level test.
HOFLOW_EXPORT void vfmtrace(Platform::DebugHandler const& handler, unsigned level, std::string_view className,
                            std::string_view function, fmt::string_view format,
                            fmt::format_args args) noexcept;

template <class... Args>
[[gnu::cold]] void fmtrace(Platform::DebugHandler const& handler, unsigned level, std::string_view className,
                           std::string_view function, fmt::format_string<Args...> format, Args&&... args) {
   vfmtrace(handler, level, className, function, format, fmt::make_format_args(args...));
}

/// Logs the text as critical, to stderr in any case, and stops the process.
[[noreturn]] HOFLOW_EXPORT void vfmassert(Platform::DebugHandler const& handler, std::string_view file,
                                          int line, std::string_view function, fmt::string_view format,
                                          fmt::format_args args) noexcept;

template <class... Args>
[[noreturn, gnu::cold]] void fmassert(Platform::DebugHandler const& handler, std::string_view file, int line,
                                      std::string_view function, fmt::format_string<Args...> format,
                                      Args&&... args) {
   vfmassert(handler, file, line, function, format, fmt::make_format_args(args...));
}

/// Base of what traces: refers to a handler that outlives it.
class Debuggable {
public:
   explicit Debuggable(Platform::DebugHandler const& handler)
      : handler_(&handler) {}
   Platform::DebugHandler const& debugHandler() const { return *handler_; }

private:
   Platform::DebugHandler const* handler_;
};

} // namespace Lomi

/// LOMI_TRACE(handler, 5, "SlotWriterTable", "{} from {} to {} slots", name, from, to). `handler` is
/// evaluated once, the arguments only if the level is on.
#define LOMI_TRACE(handler, level, className, ...)                                                           \
   do {                                                                                                      \
      ::Lomi::Platform::DebugHandler const& lomiHandler_ = (handler);                                        \
      if (__builtin_expect(lomiHandler_.traces(level), 0))                                                   \
         ::Lomi::fmtrace(lomiHandler_, (level), (className), __func__, __VA_ARGS__);                         \
   } while (false)

/// LOMI_ASSERT(condition, handler, "text {}", argument): for broken promises of the program itself, never for
/// what a file or the system says.
#define LOMI_ASSERT(condition, handler, ...)                                                                 \
   do {                                                                                                      \
      if (__builtin_expect(!(condition), 0))                                                                 \
         ::Lomi::fmassert((handler), __FILE__, __LINE__, __func__, __VA_ARGS__);                             \
   } while (false)
