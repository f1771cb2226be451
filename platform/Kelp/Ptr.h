#pragma once
// Reference-counted framework objects.
//
// A framework object derives from PtrInterface, which carries an intrusive reference count, and is
// held through Ptr<T>. The count is atomic when the library is built with KELP_THREAD_SAFE_PTR=1
// (the default; the CMake option BGPCOMMON_THREAD_SAFE_PTR), plain otherwise. The last release
// destroys the object through onZeroReferences(), which derived types may override (the dedup
// handles do: they leave their table when only the table still refers to them).
//
//   struct Table : Kelp::PtrInterface { ... };
//   Kelp::Ptr<Table> t = Kelp::Ptr<Table>(new Table(...));   // count 1
//   Kelp::Ptr<const Table> c = t;                            // count 2

#include <atomic>
#include <cstdint>
#include <functional>
#include <utility>

#ifndef KELP_THREAD_SAFE_PTR
#define KELP_THREAD_SAFE_PTR 1
#endif

namespace Kelp {

class PtrInterface {
 public:
  PtrInterface() = default;
  // A copy is a new object: it starts with no references.
  PtrInterface(const PtrInterface&) noexcept {}
  PtrInterface& operator=(const PtrInterface&) noexcept { return *this; }
  virtual ~PtrInterface() = default;

  std::uint32_t references() const { return refs_.load(std::memory_order_acquire); }

  void newRef() const {
#if KELP_THREAD_SAFE_PTR
    refs_.fetch_add(1, std::memory_order_relaxed);
#else
    refs_.store(refs_.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
#endif
  }

  // Drops one reference; the default destroys the object when none is left.
  virtual void deleteRef() const {
    if (decrementRef() == 0) onZeroReferences();
  }

 protected:
  // Decrements the count and returns what is left, with acquire-release ordering so that the
  // thread that sees zero also sees every write made through the other references.
  std::uint32_t decrementRef() const {
#if KELP_THREAD_SAFE_PTR
    return refs_.fetch_sub(1, std::memory_order_acq_rel) - 1;
#else
    std::uint32_t n = refs_.load(std::memory_order_relaxed) - 1;
    refs_.store(n, std::memory_order_relaxed);
    return n;
#endif
  }
  virtual void onZeroReferences() const { delete this; }

  mutable std::atomic<std::uint32_t> refs_{0};
};

template <typename T>
class Ptr {
 public:
  using element_type = T;

  Ptr() noexcept = default;
  Ptr(std::nullptr_t) noexcept {}
  // Takes a new reference on `p` (which may already be referenced elsewhere).
  Ptr(T* p) noexcept : p_(p) { acquire(); }
  Ptr(const Ptr& o) noexcept : p_(o.p_) { acquire(); }
  Ptr(Ptr&& o) noexcept : p_(std::exchange(o.p_, nullptr)) {}
  template <typename U, typename = std::enable_if_t<std::is_convertible_v<U*, T*>>>
  Ptr(const Ptr<U>& o) noexcept : p_(o.get()) { acquire(); }
  template <typename U, typename = std::enable_if_t<std::is_convertible_v<U*, T*>>>
  Ptr(Ptr<U>&& o) noexcept : p_(o.release()) {}
  ~Ptr() { releaseRef(); }

  Ptr& operator=(const Ptr& o) noexcept {
    Ptr(o).swap(*this);
    return *this;
  }
  Ptr& operator=(Ptr&& o) noexcept {
    Ptr(std::move(o)).swap(*this);
    return *this;
  }
  Ptr& operator=(std::nullptr_t) noexcept {
    Ptr().swap(*this);
    return *this;
  }

  T* get() const noexcept { return p_; }
  T* ptr() const noexcept { return p_; }
  T& operator*() const noexcept { return *p_; }
  T* operator->() const noexcept { return p_; }
  explicit operator bool() const noexcept { return p_ != nullptr; }

  void swap(Ptr& o) noexcept { std::swap(p_, o.p_); }
  // Gives up ownership without releasing the reference; the caller now owns it.
  T* release() noexcept { return std::exchange(p_, nullptr); }
  // Adopts a pointer whose reference the caller already holds (the inverse of release()).
  static Ptr adopt(T* p) noexcept {
    Ptr r;
    r.p_ = p;
    return r;
  }

  template <typename U>
  friend bool operator==(const Ptr& a, const Ptr<U>& b) noexcept { return a.get() == b.get(); }
  friend bool operator==(const Ptr& a, std::nullptr_t) noexcept { return a.p_ == nullptr; }

 private:
  void acquire() const noexcept {
    if (p_ != nullptr) p_->newRef();
  }
  void releaseRef() noexcept {
    if (p_ != nullptr) std::exchange(p_, nullptr)->deleteRef();
  }

  T* p_ = nullptr;
};

// Casts between framework pointer types; null when the object is not a U.
template <typename U, typename T>
Ptr<U> ptrDynamicCast(const Ptr<T>& p) {
  return Ptr<U>(dynamic_cast<U*>(p.get()));
}
template <typename U, typename T>
Ptr<U> ptrStaticCast(const Ptr<T>& p) {
  return Ptr<U>(static_cast<U*>(p.get()));
}
template <typename U, typename T>
Ptr<U> ptrConstCast(const Ptr<T>& p) {
  return Ptr<U>(const_cast<U*>(p.get()));
}

// Allocates a framework object and returns the first reference to it.
template <typename T, typename... Args>
Ptr<T> makePtr(Args&&... args) {
  return Ptr<T>(new T(std::forward<Args>(args)...));
}

}  // namespace Kelp

template <typename T>
struct std::hash<Kelp::Ptr<T>> {
  std::size_t operator()(const Kelp::Ptr<T>& p) const noexcept { return std::hash<T*>()(p.get()); }
};
