// What an operation returns, and how an allocation failure leaves the library.
#pragma once

#include <cerrno>
#include <cstdint>
#include <new>
#include <utility>

#include "include/zem_sdb.h"

// Negative is a failure, zero or positive a success. Failures are the codes of zem_sdb.h or a
// negated errno. The compiler warns when a caller drops one.
enum [[nodiscard]] zem_status : std::int32_t;
inline constexpr zem_status zem_ok{0};
inline constexpr zem_status zem_yes{
    1};  // for operations that answer a question: found, exists, grew

// The failure that the operating system has just reported.
inline zem_status zem_status_errno() noexcept { return zem_status{-errno}; }

// The first failure of two results that both had to be obtained.
inline zem_status zem_status_first(zem_status first, zem_status second) noexcept {
  return first < 0 ? first : second;
}

// Whether a result tells of a damaged file, as opposed to one that could not be read.
inline bool zem_status_damage(zem_status st) noexcept {
  const std::int32_t code = st;
  return code == ZEM_SDB_E_CHECKSUM || code == ZEM_SDB_E_KIND;
}

// Runs the body of an exported function or of a worker's task. Nothing of ours throws; the standard
// library does when memory or threads cannot be had, and no exception may reach a C caller.
template <class Result, class Body>
Result zem_boundary(Result failure, Body &&body) noexcept {
  try {
    return std::forward<Body>(body)();
  } catch (...) {
    return failure;
  }
}

template <class Body>
zem_status zem_boundary(Body &&body) noexcept {
  return zem_boundary(zem_status{-ENOMEM}, std::forward<Body>(body));
}
