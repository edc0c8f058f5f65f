#pragma once

#include <utility>

namespace zk {

/// Owns one descriptor of the system: closed by the destructor, moved and never copied.
class Descriptor {
 public:
  Descriptor() = default;
  /// Takes ownership of `number`; a negative one means none.
  explicit Descriptor(int number) : number_(number) {}
  ~Descriptor() { reset(); }
  Descriptor(Descriptor&& other) noexcept : number_(std::exchange(other.number_, -1)) {}
  Descriptor& operator=(Descriptor&& other) noexcept {
    if (this != &other) {
      reset();
      number_ = std::exchange(other.number_, -1);
    }
    return *this;
  }

  explicit operator bool() const { return number_ >= 0; }
  /// -1 when there is none.
  int get() const { return number_; }
  /// Closes it now.
  void reset();

 private:
  int number_ = -1;
};

}  // namespace zk
