// Memory handles for systems that do not supply them: a handle is a pointer to a master
// pointer, and the master pointer points at the block. The effect uses them for its sequence
// data only when the host offers no handle callbacks.
#if !defined(__APPLE__)

#include "OsHandles.h"

#include <cstdint>
#include <cstdlib>

namespace {
// One allocation holds the master pointer and, this many bytes further on, the block, which
// so keeps the allocator's 16-byte alignment.
constexpr std::size_t kMasterPointerBytes = 16;
}  // namespace

Handle NewHandle(Size byteCount) {
  if (byteCount < 0 ||
      static_cast<unsigned long>(byteCount) > SIZE_MAX - kMasterPointerBytes) {
    return nullptr;
  }
  void* memory = std::malloc(kMasterPointerBytes + static_cast<std::size_t>(byteCount));
  if (memory == nullptr) {
    return nullptr;
  }
  Handle handle = static_cast<Handle>(memory);
  *handle = static_cast<char*>(memory) + kMasterPointerBytes;
  return handle;
}

void DisposeHandle(Handle h) { std::free(h); }

#endif
