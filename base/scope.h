// A guard that undoes something when its scope is left, unless it is released first.
#pragma once

#include <utility>

template <class Undo>
class [[nodiscard]] zem_on_exit {
 public:
  explicit zem_on_exit(Undo undo) : undo_(std::move(undo)) {}
  ~zem_on_exit() {
    if (armed_) undo_();
  }
  zem_on_exit(const zem_on_exit &) = delete;
  zem_on_exit &operator=(const zem_on_exit &) = delete;
  void release() noexcept { armed_ = false; }

 private:
  Undo undo_;
  bool armed_ = true;
};
