// A handle to one accessibility element. Copies are cheap (a shared pointer
// and a hash). Two handles are equal when they name the same on-screen
// element, even when they come from separate reads: every identity table of
// the mirror (uids, indices) rests on that. Handles are immutable and may be
// copied and compared on any thread.
#pragma once

#include <cstddef>
#include <memory>
#include <string>

namespace glimmerstrand::platform {

/// What a backend keeps behind a handle: immutable once made, shared between
/// copies of the handle and between threads.
class ElementImpl {
 public:
  virtual ~ElementImpl() = default;
  /// Equal elements have equal hashes. Called once, when a handle is made.
  virtual std::size_t hash() const = 0;
  /// The same on-screen element. `other` may come from another backend.
  virtual bool equals(const ElementImpl& other) const = 0;
  /// A short text for logs and test failures.
  virtual std::string describe() const = 0;
};

class Element {
 public:
  /// The null handle: names nothing, equal only to itself.
  Element() = default;
  explicit Element(std::shared_ptr<const ElementImpl> impl)
      : impl_(std::move(impl)), hash_(impl_ ? impl_->hash() : 0) {}

  bool isNull() const { return impl_ == nullptr; }
  explicit operator bool() const { return impl_ != nullptr; }
  std::size_t hash() const { return hash_; }

  /// The backend's own data; nullptr when the handle is null or another
  /// backend's.
  template <typename T>
  const T* as() const {
    return dynamic_cast<const T*>(impl_.get());
  }
  std::string describe() const { return impl_ ? impl_->describe() : "null"; }

  friend bool operator==(const Element& a, const Element& b) {
    if (a.impl_ == b.impl_) return true;
    if (!a.impl_ || !b.impl_ || a.hash_ != b.hash_) return false;
    return a.impl_->equals(*b.impl_);
  }

 private:
  std::shared_ptr<const ElementImpl> impl_;
  std::size_t hash_ = 0;
};

/// std::unordered_map<Element, T, ElementHash>: the element as a dictionary key.
struct ElementHash {
  std::size_t operator()(const Element& element) const noexcept { return element.hash(); }
};

}  // namespace glimmerstrand::platform
