// Handle maps: numbers that the host holds in place of pointers, and the pins that keep an object
// alive while a call works on it.
//
// Several handles may stand for one object; all of them lead to its zem_ref, which counts them. A
// call pins the object for its whole length. Whoever takes out the last handle waits for the pins
// before it releases the object, so a handle closed during a call means a late close and never a
// use after release.
//
// A pin costs one atomic addition under the map's read lock, letting it go one subtraction. While
// somebody waits, `pins` carries the flag `zem_ref_awaited`: the pin that goes last then sets `pins`
// to zero under the map's mutex and wakes the waiter, which returns only after that. So the last
// touch of ref and map by a pin that goes comes before the waiter may release either.
#pragma once

#include <atomic>
#include <cstdint>
#include <unordered_map>
#include <utility>

#include "base/mutex.h"

inline constexpr std::uint64_t zem_handle_max = 0x50000000;
inline constexpr std::uint32_t zem_ref_awaited = 0x80000000;

// An object and what refers to it. Owned by whoever registered it; outlives its handles and pins.
template <class Object>
struct zem_ref {
  Object *obj = nullptr;                // set before the first handle, cleared after the last pin
  std::int64_t refs = 0;                // live handles; changed under the map's lock
  std::atomic<std::uint32_t> pins = 0;  // calls at work on `obj`, and zem_ref_awaited
};

template <class Object>
struct zem_hmap {
  zem_hmap() { map.reserve(1024); }
  zem_hmap(const zem_hmap &) = delete;
  zem_hmap &operator=(const zem_hmap &) = delete;

  zem_rwlock lock{zem_lock_rank::handles};
  std::unordered_map<std::uint64_t, zem_ref<Object> *> map ZEM_GUARDED_BY(lock);  // no null inside
  std::uint64_t last ZEM_GUARDED_BY(lock) = 0;  // the handle issued last

  zem_mutex unpin_mutex{zem_lock_rank::leaf};  // around the zeroing of an awaited `pins`
  zem_cond unpinned;
};

// Keeps an object from being released. Empty (false) when the handle was unknown.
template <class Object>
class [[nodiscard]] zem_pin {
 public:
  zem_pin() = default;
  zem_pin(zem_hmap<Object> &map, zem_ref<Object> &ref) noexcept : map_(&map), ref_(&ref) {
    ref.pins.fetch_add(1);
  }
  ~zem_pin() { release(); }
  zem_pin(zem_pin &&other) noexcept
      : map_(std::exchange(other.map_, nullptr)), ref_(std::exchange(other.ref_, nullptr)) {}
  zem_pin &operator=(zem_pin &&other) noexcept {
    std::swap(map_, other.map_);
    std::swap(ref_, other.ref_);
    return *this;
  }
  zem_pin(const zem_pin &) = delete;
  zem_pin &operator=(const zem_pin &) = delete;

  explicit operator bool() const noexcept { return ref_ != nullptr; }
  Object *operator->() const noexcept { return ref_->obj; }
  Object &operator*() const noexcept { return *ref_->obj; }

 private:
  void release() noexcept {
    if (ref_ == nullptr || ref_->pins.fetch_sub(1) != (zem_ref_awaited | 1)) return;
    zem_lock_guard held(map_->unpin_mutex);
    ref_->pins = 0;
    map_->unpinned.wake_all();
  }

  zem_hmap<Object> *map_ = nullptr;
  zem_ref<Object> *ref_ = nullptr;
};

// A new handle for the object; 0 when the ref has none. Numbers run from 1 to zem_handle_max and
// then start again, past those still live.
template <class Object>
std::uint64_t zem_hmap_add(zem_hmap<Object> &map, zem_ref<Object> &ref) {
  if (ref.obj == nullptr) return 0;
  zem_write_guard held(map.lock);
  if (map.map.size() >= zem_handle_max) return 0;
  std::uint64_t handle = map.last;
  do {
    handle = handle >= zem_handle_max ? 1 : handle + 1;
  } while (!map.map.try_emplace(handle, &ref).second);
  map.last = handle;
  ++ref.refs;
  return handle;
}

template <class Object>
zem_pin<Object> zem_hmap_get(zem_hmap<Object> &map, std::uint64_t handle) noexcept {
  if (handle == 0) return {};
  zem_read_guard held(map.lock);
  const auto found = map.map.find(handle);
  if (found == map.map.end()) return {};
  return {map, *found->second};
}

// Takes the handle out and gives its object, with the ref in `ref`; null for an unknown handle,
// with a null `ref`. When `ref->refs` is then 0, the caller waits with zem_hmap_unpinned and
// releases the object.
template <class Object>
Object *zem_hmap_del(zem_hmap<Object> &map, std::uint64_t handle, zem_ref<Object> *&ref) noexcept {
  ref = nullptr;
  if (handle == 0) return nullptr;
  zem_write_guard held(map.lock);
  const auto found = map.map.find(handle);
  if (found == map.map.end()) return nullptr;
  ref = found->second;
  map.map.erase(found);
  --ref->refs;
  return ref->obj;
}

// Waits until no pin of the ref is left. The ref has no handle any more, so no pin is added; one
// thread waits, and holds no pin of it itself.
template <class Object>
void zem_hmap_unpinned(zem_hmap<Object> &map, zem_ref<Object> &ref) {
  if (ref.pins.fetch_or(zem_ref_awaited) == 0) {
    ref.pins = 0;
    return;
  }
  zem_lock_guard held(map.unpin_mutex);
  while (ref.pins != 0)
    map.unpinned.wait(map.unpin_mutex);
}

// One of the live handles, 0 when there is none. Takes no memory, so that a release of all of them
// never fails.
template <class Object>
std::uint64_t zem_hmap_any(zem_hmap<Object> &map) noexcept {
  zem_read_guard held(map.lock);
  return map.map.empty() ? 0 : map.map.begin()->first;
}
