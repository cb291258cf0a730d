// Frees the process's kernel tables and returns them to the never-built state, so that a
// test can watch a first build (or a failed one) again. Must not run while another thread
// uses the tables.
#ifndef VT_TESTS_SUPPORT_KERNEL_TABLES_RESET_H
#define VT_TESTS_SUPPORT_KERNEL_TABLES_RESET_H

#include <cstdlib>
#include <mutex>

#include "resample/KernelTables.h"
#include "resample/KernelTablesInternal.h"

inline void DiscardSampleFilters() {
  std::lock_guard<std::mutex> guard(build_lock);
  std::free(flanc2_filter);
  std::free(flanc3_filter);
  std::free(fmitch2_filter);
  flanc2_filter = nullptr;
  flanc3_filter = nullptr;
  fmitch2_filter = nullptr;
  did_this.store(false, std::memory_order_release);
}

#endif
