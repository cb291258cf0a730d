// How much memory the tool may use, and the refusal of work that would not fit.
#ifndef VT_CLI_MEMORY_H
#define VT_CLI_MEMORY_H

#include <cstdint>
#include <string>

namespace veltrisca {

// Bytes the system can still hand out: MemAvailable of /proc/meminfo (falling back to free
// pages from sysconf), capped by the control group's limit when one is set, and by
// $VELTRISCA_MEMORY_LIMIT when that is set ("512M", "2G", ...; throws CliError(kExitUsage) if
// it is malformed).
// UINT64_MAX when none of these can be read.
uint64_t AvailableMemoryBytes();

// Throws CliError(kExitIo) naming `what` when `needed` exceeds `available`.
void CheckMemory(uint64_t needed, uint64_t available, const std::string& what);

// "1.5 GiB", "800 MiB": sizes for messages.
std::string ByteText(uint64_t bytes);

}  // namespace veltrisca

#endif
