// The run type itself: alignment, lengths, filling, copying, and how many slots each kind
// of operation stores.
#include "GulpTestSupport.h"

namespace {

constexpr uint32_t kSentinel = 0x7fc5a5a5u;  // a quiet NaN no operation here produces

void FillSentinel(FGulp& run) {
  for (float& slot : run.storage) std::memcpy(&slot, &kSentinel, sizeof slot);
}

// Expects exactly the slots offset .. offset+count-1 to no longer hold the sentinel.
void ExpectWrittenSlots(const FGulp& run, int count, const std::string& what) {
  for (int slot = 0; slot < 72; ++slot) {
    const bool inside = slot >= run.offset && slot < run.offset + count;
    EXPECT_EQ(Bits(run.storage[slot]) != kSentinel, inside)
        << what << ": slot " << slot << " (offset " << run.offset << ", " << count << " written)";
  }
}

TEST(RunLayout, OffsetAbsorbsEveryFourByteMisalignment) {
  alignas(64) unsigned char buffer[sizeof(FGulp) + 64];
  int offsets[8];
  for (int shift = 0; shift < 8; ++shift) {
    FGulp* run = new (buffer + 4 * shift) FGulp();
    EXPECT_EQ(reinterpret_cast<uintptr_t>(run->data()) % 32, 0u) << "shift " << shift;
    EXPECT_TRUE(run->offset >= 0 && run->offset <= 7) << run->offset;
    offsets[shift] = run->offset;
  }
  for (int shift = 0; shift + 1 < 8; ++shift)
    EXPECT_EQ((offsets[shift] - offsets[shift + 1] + 8) % 8, 1) << "shift " << shift;

  // Operands at different alignments combine element by element.
  alignas(64) unsigned char three[3 * sizeof(FGulp) + 64];
  FGulp *a = new (three) FGulp(), *b = new (three + sizeof(FGulp) + 4) FGulp();
  FGulp* r = new (three + 2 * sizeof(FGulp) + 12) FGulp();
  ASSERT_NE(a->offset, b->offset);
  a->Iota(0.0f, 1.0f), b->Iota(100.0f, 2.0f);
  r->add(*a, *b);
  for (int k = 0; k < 64; ++k) EXPECT_EQ((*r)[k], 100.0f + 3.0f * k) << k;
}

TEST(RunLength, SetLenAndEmptyRuns) {
  FGulp run, r;
  for (const auto& c : {std::array<int, 3>{100, 64, 36}, {64, 0, 64}, {1000, 0, 64}, {10, 10, 0}}) {
    run.SetLen(c[0], c[1]);  // capped at 64, no lower bound
    EXPECT_EQ(run.len, c[2]) << c[0] << " - " << c[1];
  }
  FillSentinel(r);
  r.add(run, 1.0f);
  EXPECT_EQ(r.len, 0);
  ExpectWrittenSlots(r, 0, "add on an empty run");
  r.len = -3;
  r.Constant(1.0f), r.Iota(0.0f, 1.0f);
  ExpectWrittenSlots(r, 0, "fill with negative len");
  run.SetLen(3, 0);
  run.Constant(2.5f);
  for (int k = 0; k < 3; ++k) EXPECT_EQ(run[k], 2.5f);
}

TEST(RunFill, IotaAccumulatesBlockByBlock) {
  // Element 8b+j is lane j of the first block plus b additions of 2q, q = 4*step; this
  // differs from start + k*step for a step that is not exact in binary.
  const float start = 0.3f, step = 0.1f;
  const float q = 4.0f * step, q2 = q + q;
  const float firstBlock[8] = {start,          start + step,      start + (step + step),
                               start + 3.0f * step, start + q,    (start + step) + q,
                               (start + (step + step)) + q,       (start + 3.0f * step) + q};
  FGulp run;
  run.Iota(start, step);
  bool differsFromProduct = false;
  for (int k = 0; k < 64; ++k) {
    float expected = firstBlock[k % 8];
    for (int b = 0; b < k / 8; ++b) expected += q2;
    EXPECT_EQ(Bits(run[k]), Bits(expected)) << k;
    differsFromProduct |= run[k] != start + static_cast<float>(k) * step;
  }
  EXPECT_TRUE(differsFromProduct);
}

TEST(RunCopy, CopiesExactlyLenIntoAnyAlignment) {
  alignas(64) unsigned char buffer[2 * sizeof(FGulp) + 64];
  FGulp* src = new (buffer) FGulp();
  src->Iota(1.0f, 1.0f);
  src->SetLen(36, 0);
  unsigned char* place = buffer + sizeof(FGulp) + 20;  // the sentinel before construction
  for (size_t i = 0; i < sizeof(FGulp); i += 4) std::memcpy(place + i, &kSentinel, 4);
  FGulp* copy = new (place) FGulp(*src);
  ASSERT_NE(copy->offset, src->offset);
  ExpectWrittenSlots(*copy, 36, "copy constructor");
  FGulp assigned;
  assigned = *src;
  FGulp& alias = assigned;
  assigned = alias;  // self-assignment keeps everything
  for (const FGulp* c : {copy, &assigned}) {
    EXPECT_EQ(c->len, 36);
    for (int k = 0; k < 36; ++k) EXPECT_EQ((*c)[k], 1.0f + k);
  }
  FGulp negative, target;
  negative.len = -5;
  FillSentinel(target);
  target = negative;  // keeps the length, copies no element
  EXPECT_EQ(target.len, -5);
  ExpectWrittenSlots(target, 0, "copy of negative len");
}

// Every length 1..64: element-wise operations store whole blocks, gatherLUT and the copies
// exactly len, and nothing outside that stretch of storage is touched.
TEST(RunBlocks, SlotsWrittenForEveryLength) {
  static float table[80];
  for (int i = 0; i < 80; ++i) table[i] = 0.5f * i;
  using Op = std::function<void(FGulp& r, FGulp& second, const FGulp& a, const FGulp& b)>;
  struct Case {
    const char* name;
    bool exact;  // exactly len slots rather than whole blocks
    bool twoOutputs;
    Op op;
  };
#define OP(expr) [](FGulp& r, FGulp& second, const FGulp& a, const FGulp& b) { \
    (void)second; (void)b; expr; }
  const Case cases[] = {
      {"Constant", false, false, OP(r.len = a.len; r.Constant(2.0f))},
      {"Iota", false, false, OP(r.len = a.len; r.Iota(3.0f, 1.0f))},
      {"add", false, false, OP(r.add(a, b))},
      {"muladd", false, false, OP(r.muladd(a, 2.0f, 1.0f))},
      {"mulmul", false, false, OP(r.mulmul(a, b, a))},
      {"divCHKZ", false, false, OP(r.divCHKZ(a, b))},
      {"floor/conversion", false, false, OP(ScopedFeatureWord w(0); r.floor(a))},
      {"floor/instruction", false, false, OP(ScopedFeatureWord w(kCpuSSE41); r.floor(a))},
      {"mulroundclip", false, false, OP(r.mulroundclip(0.0f, a, b, 50.0f))},
      {"inrangeLE", false, false, OP(r.inrangeLE(2.0f, a, 9.0f))},
      {"LUTscale", false, false, OP(r.LUTscale(a, 3.0f, 20.0f))},
      {"blend", false, false, OP(r.blend(a, b, a))},
      {"modf", false, true, OP(r.modf(a, second))},
      {"modfscaledoffs", false, true, OP(r.modfscaledoffs(a, 64.0f, -1.0f, second))},
      {"clipoffsLE", false, true, OP(r.clipoffsLE(0.0f, a, 1.0f, 9.0f, second))},
      {"gatherLUT", true, false, OP(r.gatherLUT(table, a))},
      {"assignment", true, false, OP(r = a)},
  };
#undef OP
  for (const Case& c : cases) {
    for (int n = 1; n <= 64; ++n) {
      FGulp a, b, r, second;
      for (int s = 0; s < 72; ++s) {  // every slot of the operands holds a usable value
        a.storage[s] = 1.25f + 0.75f * s;
        b.storage[s] = 2.0f + 0.5f * s;
      }
      a.len = b.len = n;
      FillSentinel(r);
      FillSentinel(second);
      c.op(r, second, a, b);
      const int expected = c.exact ? n : 8 * ((n + 7) / 8);
      const std::string what = std::string(c.name) + " n=" + std::to_string(n);
      EXPECT_EQ(r.len, n) << what;
      ExpectWrittenSlots(r, expected, what);
      if (c.twoOutputs) {
        EXPECT_EQ(second.len, n) << what;
        ExpectWrittenSlots(second, expected, what + " (second output)");
      }
    }
  }
}

}  // namespace
