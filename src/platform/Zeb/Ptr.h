// SPDX-License-Identifier: Apache-2.0
// Zeb::Ptr: a pointer that keeps its object alive. The count lies in the object (PtrInterface), so a Ptr may
// be made from a plain pointer at any time, and costs one word.
//
// A Ptr belongs to one thread. Two of them to one object may live on two threads if
// VFPtrInterface::threadSafePointers_ is set.
#pragma once

#include <concepts>
#include <cstddef>
#include <functional>
#include <utility>

namespace Zeb {

template <class T> class Ptr {
public:
   /// Says that the plain pointer brings a reference along, which this takes over: `Ptr(new T, adopt)`.
   enum Adopt { adopt };

   Ptr() = default;
   Ptr(std::nullptr_t) {}
   Ptr(T* object)
      : object_(object) {
      if (object_) object_->newReference();
   }
   Ptr(T* object, Adopt)
      : object_(object) {}
   Ptr(Ptr const& other)
      : Ptr(other.object_) {}
   Ptr(Ptr&& other) noexcept
      : object_(std::exchange(other.object_, nullptr)) {}
   template <class U>
   requires std::convertible_to<U*, T*> Ptr(Ptr<U> const& other)
      : Ptr(other.get()) {}
   ~Ptr() {
      if (object_) object_->deleteReference();
   }

   /// The old object is let go last: what its end does may already see the new one.
   Ptr& operator=(Ptr other) noexcept {
      std::swap(object_, other.object_);
      return *this;
   }

   T* get() const { return object_; }
   T* operator->() const { return object_; }
   T& operator*() const { return *object_; }
   explicit operator bool() const { return object_ != nullptr; }

   template <class U> bool operator==(Ptr<U> const& other) const { return object_ == other.get(); }
   bool operator==(std::nullptr_t) const { return !object_; }

private:
   T* object_ = nullptr;
};

/// Null where the object is of another type.
template <class T, class U> Ptr<T> dynamicPtr(Ptr<U> const& from) { return dynamic_cast<T*>(from.get()); }

} // namespace Zeb

template <class T> struct std::hash<Zeb::Ptr<T>> {
   std::size_t operator()(Zeb::Ptr<T> const& pointer) const { return std::hash<T*>()(pointer.get()); }
};
