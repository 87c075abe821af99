// The intrusive counted pointer shared by every reference-counted record of
// the server. T derives from QUOR_RefCntObject and is copy-constructible; the
// count lives in the object, so any number of pointers may be made from one
// raw pointer. A single RefCountPtr is not safe to assign from two threads;
// distinct pointers to one object may be copied and dropped concurrently.
#ifndef SDM_CONTRACTS_REFCOUNTPTR_H
#define SDM_CONTRACTS_REFCOUNTPTR_H

#include <memory>

template <class T>
class RefCountPtr {
 public:
  RefCountPtr(T* p = nullptr) : target_(p) { Init(); }  // NOLINT: implicit by design
  RefCountPtr(RefCountPtr const& other) : target_(other.target_) { Init(); }
  // A move hands the reference over: the count does not change and `other`
  // is left null. Containers of handles move them when they grow or close
  // up, so a shift costs no atomic operation per element.
  RefCountPtr(RefCountPtr&& other) noexcept : target_(other.target_) { other.target_ = nullptr; }
  ~RefCountPtr() {
    if (target_ != nullptr) target_->RemoveReference();
    target_ = nullptr;
  }

  // In both assignments the new reference is taken before the old one goes:
  // the old target may own the new one's only other reference (a list node
  // assigned its own successor), and releasing it first would destroy the
  // object about to be stored. Equal targets, self-assignment among them,
  // change nothing.
  RefCountPtr& operator=(T* p) {
    if (p == target_) return *this;
    T* old = target_;
    target_ = p;
    Init();
    if (old != nullptr) old->RemoveReference();
    return *this;
  }
  RefCountPtr& operator=(RefCountPtr const& other) {  // NOLINT(bugprone-unhandled-self-assignment)
    return *this = other.target_;
  }

  RefCountPtr& operator=(RefCountPtr&& other) noexcept {
    if (&other == this) return *this;
    T* old = target_;
    target_ = other.target_;
    other.target_ = nullptr;
    // Released last, as in the copy: it may destroy the object holding `other`.
    if (old != nullptr) old->RemoveReference();
    return *this;
  }

  bool operator==(RefCountPtr const& other) const { return target_ == other.target_; }
  bool operator!=(RefCountPtr const& other) const { return target_ != other.target_; }
  bool operator==(T const* p) const { return target_ == p; }
  bool operator!=(T const* p) const { return target_ != p; }

  T* operator->() { return target_; }
  T const* operator->() const { return target_; }
  T& operator*() { return *target_; }
  T const& operator*() const { return *target_; }
  T* get() { return target_; }
  T const* get() const { return target_; }
  bool IsValid() const { return target_ != nullptr; }

  // Takes this pointer's reference on the target, first replacing a target
  // that may not be shared by a private copy of it.
  void Init() {
    if (target_ == nullptr) return;
    if (!target_->IsShareable()) target_ = Copy(*target_);
    target_->AddReference();
  }

  // Makes the target this pointer's alone and returns it. The copy is made
  // while this pointer still holds its reference: the other holders may drop
  // theirs on other threads at any moment after the check, and had this one
  // gone first, the last of them would free the object in mid-copy. A copy
  // that throws leaves the pointer as it was.
  T* Unshared() {
    if (!target_->IsShared()) return target_;
    T* old = target_;
    target_ = Copy(*old);
    Init();
    old->RemoveReference();
    return target_;
  }

 private:
  static T* Copy(T const& from) { return new T(from); }

  T* target_;
};

#endif  // SDM_CONTRACTS_REFCOUNTPTR_H
