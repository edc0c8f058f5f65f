#pragma once

#include <cstddef>
#include <memory>
#include <new>
#include <type_traits>
#include <utility>

namespace zk {

/// A move-only `void()` callable that keeps what it captures in place. Queueing a datagram must
/// not cost an allocation for the closure on top of the one for the bytes, which is what
/// std::function would do with captures of this size.
class Task {
 public:
  /// Room for the largest capture in use: a burst of datagrams on its way to a client.
  static constexpr std::size_t capacity = 112;

  Task() = default;

  template <typename F>
  requires(!std::is_same_v<std::remove_cvref_t<F>, Task>)
      Task(F&& function) {  // NOLINT: implicit, as with std::function
    using Stored = std::remove_cvref_t<F>;
    static_assert(sizeof(Stored) <= capacity, "raise Task::capacity");
    static_assert(alignof(Stored) <= alignof(std::max_align_t));
    static_assert(std::is_nothrow_move_constructible_v<Stored>);
    new (storage_) Stored(std::forward<F>(function));
    operations_ = &operationsOf<Stored>;
  }

  Task(Task&& other) noexcept { take(other); }
  Task& operator=(Task&& other) noexcept {
    if (this != &other) {
      reset();
      take(other);
    }
    return *this;
  }
  Task(const Task&) = delete;
  Task& operator=(const Task&) = delete;
  ~Task() { reset(); }

  void operator()() { operations_->call(storage_); }
  explicit operator bool() const { return operations_ != nullptr; }

 private:
  struct Operations {
    void (*call)(void*);
    void (*moveTo)(void* from, void* to) noexcept;  // destroys `from`
    void (*destroy)(void*) noexcept;
  };

  template <typename Stored>
  static constexpr Operations operationsOf{
      [](void* self) { (*static_cast<Stored*>(self))(); },
      [](void* from, void* to) noexcept {
        new (to) Stored(std::move(*static_cast<Stored*>(from)));
        std::destroy_at(static_cast<Stored*>(from));
      },
      [](void* self) noexcept { std::destroy_at(static_cast<Stored*>(self)); }};

  void take(Task& other) noexcept {
    operations_ = std::exchange(other.operations_, nullptr);
    if (operations_ != nullptr) {
      operations_->moveTo(other.storage_, storage_);
    }
  }

  void reset() noexcept {
    if (operations_ != nullptr) {
      std::exchange(operations_, nullptr)->destroy(storage_);
    }
  }

  const Operations* operations_ = nullptr;
  alignas(std::max_align_t) std::byte storage_[capacity];
};

}  // namespace zk
