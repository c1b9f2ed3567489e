// ZEM_ASSERT states what only a mistake of ours can break. Release builds do not evaluate it.
#pragma once

#ifdef NDEBUG
#define ZEM_ASSERT(condition) static_cast<void>(sizeof(!(condition)))
#else
#include <cstdio>
#include <cstdlib>
#define ZEM_ASSERT(condition)                                                                    \
  ((condition)                                                                                   \
       ? static_cast<void>(0)                                                                    \
       : (std::fprintf(stderr, "%s:%d: assertion failed: %s\n", __FILE__, __LINE__, #condition), \
          std::abort()))
#endif
