#include "gulp/CpuFeatures.h"

#include <cpuid.h>

#if __has_include(<sys/platform/x86.h>)
#if defined(__clang__) && defined(__cplusplus)
// glibc 2.36's header names C's _Bool, which clang does not take in C++.
#define _Bool bool
#include <sys/platform/x86.h>
#undef _Bool
#else
#include <sys/platform/x86.h>
#endif
#define VT_AVX2_USABLE() (CPU_FEATURE_ACTIVE(AVX2) && CPU_FEATURE_ACTIVE(AVX))
#else
#define VT_AVX2_USABLE() __builtin_cpu_supports("avx2")
#endif

std::atomic<int32_t> cpu_features{0};
std::atomic<int32_t> cpu_family{0};
std::atomic<int32_t> cpu_model{0};
std::atomic<int32_t> checked_cpu{0};
std::atomic<int32_t> wide_vectors{-1};

void myCpuid(int leaf, int subleaf, int* eax, int* ebx, int* ecx, int* edx) {
  unsigned a = 0, b = 0, c = 0, d = 0;
  __cpuid_count(static_cast<unsigned>(leaf), static_cast<unsigned>(subleaf), a, b, c, d);
  *eax = static_cast<int>(a);
  *ebx = static_cast<int>(b);
  *ecx = static_cast<int>(c);
  *edx = static_cast<int>(d);
}

int32_t CpuFeatureBits(uint32_t leaf1Ecx, uint32_t leaf7Ebx) {
  struct Feature {
    uint32_t ecxBit;
    int32_t flag;
  };
  static const Feature kLeaf1[] = {{1u << 19, kCpuSSE41}, {1u << 20, kCpuSSE42},
                                   {1u << 0, kCpuSSE3},   {1u << 9, kCpuSSSE3},
                                   {1u << 12, kCpuFMA},   {1u << 28, kCpuAVX},
                                   {1u << 29, kCpuF16C}};
  int32_t word = 0;
  for (const Feature& f : kLeaf1)
    if (leaf1Ecx & f.ecxBit) word |= f.flag;
  if (leaf7Ebx & (1u << 5)) word |= kCpuAVX2;
  return word;
}

// Family and model as the processor makers define the displayed values: the extended model
// (bits 16-19) extends the model for families 6 and 15, and for family 15 the extended
// family (bits 20-27) is added to the family field.
void CpuFamilyModel(uint32_t leaf1Eax, int32_t* family, int32_t* model) {
  int32_t f = static_cast<int32_t>((leaf1Eax >> 8) & 0xF);
  int32_t m = static_cast<int32_t>((leaf1Eax >> 4) & 0xF);
  if (f == 6 || f == 15) m += static_cast<int32_t>((leaf1Eax >> 16) & 0xF) << 4;
  if (f == 15) f += static_cast<int32_t>((leaf1Eax >> 20) & 0xFF);
  *family = f;
  *model = m;
}

void CheckCPUFeatures() {
  // The first caller wins the exchange and does the work; anyone else returns at once and
  // may still read 0 for a while, which only selects the conversion routes.
  if (checked_cpu.exchange(1, std::memory_order_acq_rel) != 0) return;

  // Leaf 1 and leaf 7/subleaf 0 only; the maximum leaf is not consulted.
  unsigned leaf1Eax = 0, leaf1Ebx = 0, leaf1Ecx = 0, leaf1Edx = 0;
  __cpuid_count(1, 0, leaf1Eax, leaf1Ebx, leaf1Ecx, leaf1Edx);
  unsigned leaf7Eax = 0, leaf7Ebx = 0, leaf7Ecx = 0, leaf7Edx = 0;
  __cpuid_count(7, 0, leaf7Eax, leaf7Ebx, leaf7Ecx, leaf7Edx);

  int32_t family = 0, model = 0;
  CpuFamilyModel(leaf1Eax, &family, &model);
  cpu_family.store(family, std::memory_order_relaxed);
  cpu_model.store(model, std::memory_order_relaxed);
  // One store: the word is built locally and never visible half-made.
  cpu_features.store(CpuFeatureBits(leaf1Ecx, leaf7Ebx), std::memory_order_release);
}

bool UseWideVectors() {
  int32_t wide = wide_vectors.load(std::memory_order_relaxed);
  if (wide < 0) {
    // Asked of the C library, which also knows whether the system saves the wide registers
    // (and honours GLIBC_TUNABLES=glibc.cpu.hwcaps=-AVX2, which keeps a run on 4 lanes).
    wide = VT_AVX2_USABLE() ? 1 : 0;
    wide_vectors.store(wide, std::memory_order_relaxed);
  }
  return wide == 1 && CpuHasSSE41();
}
