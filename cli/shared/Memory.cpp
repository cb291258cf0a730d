#include "cli/shared/Memory.h"

#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <cstdlib>
#include <cstdio>
#include <fstream>
#include <sstream>

#include "cli/shared/Errors.h"

namespace veltrisca {

namespace {

// The first whole number in a file (cgroup files hold one value, or "max").
bool ReadNumberFile(const char* path, uint64_t* value) {
  std::ifstream in(path);
  unsigned long long v = 0;
  if (!(in >> v)) return false;
  *value = v;
  return true;
}

// "4096", "512M", "2G": a whole number of bytes with an optional K, M, G or T (powers of 1024).
uint64_t ParseByteCount(const std::string& name, const std::string& text) {
  const std::string expected = name + ": expected a whole number of bytes, optionally with K, M, G "
                               "or T (binary multiples), got \"" + text + "\"";
  size_t digits = 0;
  while (digits < text.size() && std::isdigit(static_cast<unsigned char>(text[digits]))) ++digits;
  if (digits == 0 || digits > 19 || text.size() > digits + 1) throw UsageError(expected);
  int shift = 0;
  if (text.size() == digits + 1) {
    switch (std::toupper(static_cast<unsigned char>(text[digits]))) {
      case 'K': shift = 10; break;
      case 'M': shift = 20; break;
      case 'G': shift = 30; break;
      case 'T': shift = 40; break;
      default: throw UsageError(expected);
    }
  }
  const uint64_t count = std::stoull(text.substr(0, digits));
  if (count > (UINT64_MAX >> shift)) throw UsageError(expected);
  return count << shift;
}

}  // namespace

uint64_t AvailableMemoryBytes() {
  uint64_t available = 0;
  std::ifstream meminfo("/proc/meminfo");
  std::string key;
  unsigned long long kib = 0;
  std::string unit;
  while (meminfo >> key >> kib) {
    std::getline(meminfo, unit);
    if (key == "MemAvailable:") {
      available = static_cast<uint64_t>(kib) * 1024;
      break;
    }
  }
  if (available == 0) {
    const long pages = sysconf(_SC_AVPHYS_PAGES);
    const long pageSize = sysconf(_SC_PAGESIZE);
    if (pages > 0 && pageSize > 0) {
      available = static_cast<uint64_t>(pages) * static_cast<uint64_t>(pageSize);
    }
  }
  // A container's memory limit binds before the machine's (cgroup v2, then v1).
  uint64_t limit = 0, used = 0;
  if ((ReadNumberFile("/sys/fs/cgroup/memory.max", &limit) &&
       ReadNumberFile("/sys/fs/cgroup/memory.current", &used)) ||
      (ReadNumberFile("/sys/fs/cgroup/memory/memory.limit_in_bytes", &limit) &&
       ReadNumberFile("/sys/fs/cgroup/memory/memory.usage_in_bytes", &used))) {
    const uint64_t room = limit > used ? limit - used : 0;
    available = available == 0 ? room : std::min(available, room);
  }
  // Nothing readable: do not refuse work on a guess.
  if (available == 0) available = UINT64_MAX;
  // A limit of the user's own, e.g. to keep the tool within its share of a shared machine.
  const char* limitText = std::getenv("VELTRISCA_MEMORY_LIMIT");
  if (limitText && *limitText) {
    available = std::min(available, ParseByteCount("VELTRISCA_MEMORY_LIMIT", limitText));
  }
  return available;
}

std::string ByteText(uint64_t bytes) {
  char text[64];
  const double mib = static_cast<double>(bytes) / (1024.0 * 1024.0);
  if (mib >= 1024.0) {
    std::snprintf(text, sizeof text, "%.1f GiB", mib / 1024.0);
  } else {
    std::snprintf(text, sizeof text, "%.0f MiB", mib < 1.0 ? 1.0 : mib);
  }
  return text;
}

void CheckMemory(uint64_t needed, uint64_t available, const std::string& what) {
  if (needed > available) {
    throw IoError(what + " needs about " + ByteText(needed) + " of memory, but only " +
                  ByteText(available) + " is available");
  }
}

void CheckMemory(uint64_t needed, const std::string& what) {
  CheckMemory(needed, AvailableMemoryBytes(), what);
}

uint64_t FileBufferBytes(long long pixels, int channels, Depth depth) {
  // A sample is a quarter of a pixel of the depth.
  return static_cast<uint64_t>(std::max(pixels, 0LL)) * static_cast<uint64_t>(channels) *
         static_cast<uint64_t>(PixelDepthOf(depth).bytes / 4);
}

uint64_t WorldBytes(long long pixels, Depth depth) {
  return static_cast<uint64_t>(std::max(pixels, 0LL)) *
         static_cast<uint64_t>(PixelDepthOf(depth).bytes);
}

}  // namespace veltrisca
