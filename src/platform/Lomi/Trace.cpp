// SPDX-License-Identifier: Apache-2.0
// Registry of handlers and the two sinks. spdlog is seen here and nowhere else.
#include "Lomi/Trace.h"

#include <spdlog/sinks/stdout_sinks.h>
#include <spdlog/spdlog.h>

#include <cstdio>
#include <cstdlib>
#include <map>
#include <mutex>
#include <unistd.h>

namespace Lomi {
namespace Platform {
namespace {

// Left to the system at the end of the process: objects that trace in their destructors may outlive any
// static.
struct Registry {
   std::mutex mutex;
   std::map<std::string, std::shared_ptr<DebugHandler>, std::less<>> handlers;
   std::shared_ptr<TraceSink const> sink;
   std::shared_ptr<spdlog::logger> standardError;

   Registry() {
      auto output = std::make_shared<spdlog::sinks::stderr_sink_mt>();
      output->set_pattern("%Y-%m-%dT%H:%M:%S.%f %P %v");
      standardError = std::make_shared<spdlog::logger>("hoflow", std::move(output));
      standardError->set_level(spdlog::level::trace);
      standardError->flush_on(spdlog::level::trace);
      handlers.emplace("MirakTemp", std::make_shared<DebugHandler>("MirakTemp"));
   }
};

std::atomic<unsigned> presentDefault{1u};

Registry& registry() {
   static Registry& only = *new Registry;
   return only;
}

spdlog::level::level_enum severity(unsigned level) {
   if (level == 0) return spdlog::level::err;
   return level == 1 ? spdlog::level::info : spdlog::level::debug;
}

void emit(unsigned level, std::string_view handler, std::string_view where, std::string_view text) {
   std::shared_ptr<TraceSink const> sink;
   {
      std::lock_guard const hold(registry().mutex);
      sink = registry().sink;
   }
   if (sink)
      (*sink)(level, handler, where, text);
   else
      registry().standardError->log(severity(level), "{} {} {}: {}", level, handler, where, text);
}

} // namespace

DebugHandler::DebugHandler(std::string name)
   : name_(std::move(name))
   , mask_(defaultMask()) {}

void DebugHandler::maskIs(unsigned mask) {
   own_.store(true, std::memory_order_relaxed);
   mask_.store(mask, std::memory_order_relaxed);
}

std::shared_ptr<DebugHandler> getDebugHandler(std::string const& name, bool create) {
   auto& known = registry();
   std::lock_guard const hold(known.mutex);
   auto const found = known.handlers.find(name);
   if (found != known.handlers.end()) return found->second;
   if (!create) return nullptr;
   return known.handlers.emplace(name, std::make_shared<DebugHandler>(name)).first->second;
}

unsigned defaultMask() { return presentDefault.load(std::memory_order_relaxed); }

void defaultMaskIs(unsigned mask) {
   auto& known = registry();
   std::lock_guard const hold(known.mutex);
   presentDefault.store(mask, std::memory_order_relaxed);
   for (auto const& [name, handler] : known.handlers)
      if (!handler->own_.load(std::memory_order_relaxed))
         handler->mask_.store(mask, std::memory_order_relaxed);
}

void traceSinkIs(TraceSink sink) {
   std::shared_ptr<TraceSink const> fresh;
   if (sink) fresh = std::make_shared<TraceSink const>(std::move(sink));
   std::lock_guard const hold(registry().mutex);
   registry().sink.swap(fresh);
}

} // namespace Platform

void vfmtrace(Platform::DebugHandler const& handler, unsigned level, std::string_view className,
              std::string_view function, fmt::string_view format, fmt::format_args args) noexcept {
   try {
      std::string where(className);
      where.append("::").append(function);
      Platform::emit(level, handler.name(), where, fmt::vformat(format, args));
   } catch (...) {
      // A trace that can't be made or delivered is lost; what it was about goes on.
   }
}

void vfmassert(Platform::DebugHandler const& handler, std::string_view file, int line,
               std::string_view function, fmt::string_view format, fmt::format_args args) noexcept {
   try {
      std::string const text = fmt::vformat(format, args);
      std::string const line_ =
          fmt::format("assertion failed: {} ({}, {}:{} {})\n", text, handler.name(), file, line, function);
      // Straight to the descriptor: whatever sink is installed, the reason of the end must be seen.
      [[maybe_unused]] auto const written = ::write(STDERR_FILENO, line_.data(), line_.size());
      std::shared_ptr<Platform::TraceSink const> sink;
      {
         std::lock_guard const hold(Platform::registry().mutex);
         sink = Platform::registry().sink;
      }
      if (sink) (*sink)(0, handler.name(), function, "assertion failed: " + text);
   } catch (...) {
   }
   std::abort();
}

} // namespace Lomi
