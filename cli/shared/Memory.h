// How much memory the tool may use, what its buffers take, and the refusal of work that would
// not fit. Every command adds up what it holds at once from the sizes below and checks the sum
// here.
#ifndef VT_CLI_MEMORY_H
#define VT_CLI_MEMORY_H

#include <cstdint>
#include <string>

#include "common/PixelDepth.h"

namespace veltrisca {

// Bytes the system can still hand out: MemAvailable of /proc/meminfo (falling back to free
// pages from sysconf), capped by the control group's limit when one is set, and by
// $VELTRISCA_MEMORY_LIMIT when that is set ("512M", "2G", ...; throws CliError(kExitUsage) if
// it is malformed).
// UINT64_MAX when none of these can be read.
uint64_t AvailableMemoryBytes();

// Throws CliError(kExitIo) naming `what` when `needed` exceeds `available`.
void CheckMemory(uint64_t needed, uint64_t available, const std::string& what);
// The same against AvailableMemoryBytes().
void CheckMemory(uint64_t needed, const std::string& what);

// Bytes of one interleaved file buffer (samples of the file's type), of one host world (four
// channels of the depth), and of `count` single-precision floats.
uint64_t FileBufferBytes(long long pixels, int channels, Depth depth);
uint64_t WorldBytes(long long pixels, Depth depth);
inline uint64_t FloatBytes(uint64_t count) { return count * sizeof(float); }

// "1.5 GiB", "800 MiB": sizes for messages.
std::string ByteText(uint64_t bytes);

}  // namespace veltrisca

#endif
