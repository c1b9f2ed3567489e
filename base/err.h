// The host's error log: printf-style lines handed to the host's sink, one at a time.
#pragma once

#include <string>

#include "base/mutex.h"

#include "include/zem_sdb.h"

// Owned by the host from zem_err_new to zem_err_free. zem_err_log and zem_err_info (zem_sdb.h)
// accept a null log and then do nothing. The sink runs under `mutex` and must call nothing of the
// library.
struct zem_err {
  zem_err_sink sink = nullptr;  // set once, at zem_err_new
  void *context = nullptr;      // the host's; handed to `sink` and otherwise left alone
  zem_mutex mutex{zem_lock_rank::log};
};
