// Processor feature detection. CheckCPUFeatures asks CPUID once per process and publishes
// the feature word; the run operations read bit kCpuSSE41 once per call to choose between
// the round-to-integral instruction and the conversion route (both give the same values for
// every input that occurs, so a word of 0 only selects the slower route).
#ifndef VT_GULP_CPUFEATURES_H
#define VT_GULP_CPUFEATURES_H

#include <atomic>
#include <cstdint>

// Bits of cpu_features.
constexpr int32_t kCpuSSE41 = 0x01;  // leaf 1, ECX bit 19
constexpr int32_t kCpuSSE42 = 0x02;  // leaf 1, ECX bit 20
constexpr int32_t kCpuSSE3 = 0x04;   // leaf 1, ECX bit 0
constexpr int32_t kCpuSSSE3 = 0x08;  // leaf 1, ECX bit 9
constexpr int32_t kCpuF16C = 0x10;   // leaf 1, ECX bit 29
constexpr int32_t kCpuAVX = 0x20;    // leaf 1, ECX bit 28
constexpr int32_t kCpuAVX2 = 0x40;   // leaf 7 subleaf 0, EBX bit 5
constexpr int32_t kCpuFMA = 0x80;    // leaf 1, ECX bit 12

// Process-wide, zero until the first CheckCPUFeatures. The word is published with a single
// store, so a concurrent reader sees either 0 or the complete word, never a partial one.
extern std::atomic<int32_t> cpu_features;
extern std::atomic<int32_t> cpu_family;
extern std::atomic<int32_t> cpu_model;
extern std::atomic<int32_t> checked_cpu;  // 0 until the first CheckCPUFeatures, then 1

// Executes CPUID with EAX = leaf, ECX = subleaf; writes EAX, EBX, ECX, EDX in that order.
void myCpuid(int leaf, int subleaf, int* eax, int* ebx, int* ecx, int* edx);

// Fills the four variables on the first call; every later call returns at once.
void CheckCPUFeatures();

// True when the SSE4.1 routes may be taken; read once per call, before the loop.
inline bool CpuHasSSE41() {
  return (cpu_features.load(std::memory_order_relaxed) & kCpuSSE41) != 0;
}

// Internal helpers of CheckCPUFeatures (hidden; reachable by the tests).
int32_t CpuFeatureBits(uint32_t leaf1Ecx, uint32_t leaf7Ebx);
void CpuFamilyModel(uint32_t leaf1Eax, int32_t* family, int32_t* model);

// The 8-lane (AVX2) versions of the run mapping and of the nearest and bilinear samplers:
// the same single-precision operations in the same order as the 4-lane versions, lane by
// lane, so the same bits, in half the instructions. wide_vectors is -1 until first asked,
// then 1 when the C library reports AVX2 usable (the processor has it and the operating
// system saves its registers) and 0 otherwise; a store of 0 or 1 pins the choice.
extern std::atomic<int32_t> wide_vectors;
// True when the wide versions are taken: SSE4.1 in cpu_features (they round with the
// round-to-integral instruction, as that route does) and AVX2 usable.
bool UseWideVectors();

#endif  // VT_GULP_CPUFEATURES_H
