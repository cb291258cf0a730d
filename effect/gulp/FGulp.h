// FGulp: a run ("gulp") of up to 64 single-precision values in storage aligned for 4-lane
// vector access. Every per-pixel computation of the effect works on runs.
//
// Alignment: the type itself is only 4-byte aligned, so runs can live anywhere on the stack
// or inside other records. `offset` (0..7) is the index in `storage` whose address is a
// multiple of 32 bytes; element k is storage[offset + k]. Because `offset` depends on the
// object's address, runs must only be copied through the copy constructor or assignment.
//
// Operations write their result into *this and return *this (except SetLen, Constant, Iota
// and the const operators, which return a new run). The result may be one of the operands.
// Lengths: one run operand -> its len; several -> the smallest; compound assignment with a
// run lowers len to the operand's when smaller; a float operand keeps len. Whole blocks of 8
// elements are computed (8 * ceil(len/8) slots stored, no scalar tail); only gatherLUT and
// the copy operations handle exactly len elements.
#ifndef VT_GULP_FGULP_H
#define VT_GULP_FGULP_H

#include <cstdint>

class FGulp {
 public:
  static constexpr int kCapacity = 64;
  static constexpr int kBlock = 8;

  int32_t len;          // number of valid elements, at most 64
  int32_t offset;       // index in storage of element 0 (32-byte aligned), 0..7
  float storage[72];    // 64 usable elements + 8 of slack for the alignment

  FGulp() : len(kCapacity), offset(AlignedOffset()) {}  // elements are left unset
  FGulp(const FGulp& src);
  FGulp& operator=(const FGulp& src);

  float* data() { return storage + offset; }
  const float* data() const { return storage + offset; }
  float& operator[](int k) { return storage[offset + k]; }
  const float& operator[](int k) const { return storage[offset + k]; }

  // Creation and filling.
  void SetLen(int total, int start);     // len = min(64, total - start); elements untouched
  void Constant(float v);                // every element of every block up to len = v
  void Iota(float start, float step);    // element k = start + k*step, accumulated per block

  // Two-operand arithmetic.
  FGulp& add(const FGulp& a, const FGulp& b);
  FGulp& sub(const FGulp& a, const FGulp& b);
  FGulp& mul(const FGulp& a, const FGulp& b);
  FGulp& div(const FGulp& a, const FGulp& b);
  FGulp& divCHKZ(const FGulp& a, const FGulp& b);  // a where b is +-0, else a / b
  FGulp& fmin(const FGulp& a, const FGulp& b);     // a < b ? a : b
  FGulp& fmax(const FGulp& a, const FGulp& b);     // a > b ? a : b
  FGulp& sumsq(const FGulp& a, const FGulp& b);    // a*a + b*b
  FGulp& hypot(const FGulp& a, const FGulp& b);    // sqrt(a*a + b*b), unscaled
  FGulp& add(const FGulp& a, float s);
  FGulp& sub(const FGulp& a, float s);
  FGulp& mul(const FGulp& a, float s);
  FGulp& div(const FGulp& a, float s);             // true division per element
  FGulp& fmin(const FGulp& a, float s);
  FGulp& fmax(const FGulp& a, float s);

  // Multiply-and-add family, never fused; parameters in the order of the formula.
  FGulp& muladd(const FGulp& a, const FGulp& b, const FGulp& d);  // a*b + d
  FGulp& mulsub(const FGulp& a, const FGulp& b, const FGulp& d);  // a*b - d
  FGulp& muladd(const FGulp& a, const FGulp& b, float s);         // a*b + s
  FGulp& muladd(float s, const FGulp& a, const FGulp& b);         // s*a + b
  FGulp& mulsub(float s, const FGulp& a, const FGulp& b);         // s*a - b
  FGulp& muladd(float s, const FGulp& a, float t);                // s*a + t
  FGulp& muladd(const FGulp& a, float s, const FGulp& b);         // a*s + b
  FGulp& mulsub(const FGulp& a, float s, const FGulp& b);         // a*s - b
  FGulp& muladd(const FGulp& a, float s, float t);                // a*s + t
  FGulp& mulmul(const FGulp& a, const FGulp& b, const FGulp& d);  // (a*b)*d
  FGulp& mulmul(float s, const FGulp& a, const FGulp& b);         // (s*a)*b
  FGulp& muladdmul(float s, const FGulp& a, float t, const FGulp& b);  // s*a + t*b

  // Operators. The scalar division operators multiply by the rounded reciprocal 1/s.
  FGulp operator+(const FGulp& o) const;
  FGulp operator-(const FGulp& o) const;
  FGulp operator*(const FGulp& o) const;
  FGulp operator/(const FGulp& o) const;
  FGulp operator+(float s) const;
  FGulp operator-(float s) const;
  FGulp operator*(float s) const;
  FGulp operator/(float s) const;
  FGulp& operator+=(const FGulp& o);
  FGulp& operator-=(const FGulp& o);
  FGulp& operator*=(const FGulp& o);
  FGulp& operator/=(const FGulp& o);
  FGulp& operator+=(float s);
  FGulp& operator-=(float s);
  FGulp& operator*=(float s);
  FGulp& operator/=(float s);

  // Rounding: floor, ceil, round, trunc, mulround, mulroundclip, modf and modfscaledoffs take
  // the round-to-integral instruction when bit kCpuSSE41 of cpu_features is set, otherwise a
  // conversion to int32 and back (which gives -2147483648 for NaN, infinities and magnitudes
  // of 2^31 or more, and +0 for zero results).
  FGulp& floor(const FGulp& a);
  FGulp& ceil(const FGulp& a);
  FGulp& round(const FGulp& a);   // nearest, ties to even
  FGulp& trunc(const FGulp& a);
  FGulp& sqrt(const FGulp& a);
  FGulp& rsqrt(const FGulp& a);        // approximate, no refinement
  FGulp& recipApprox(const FGulp& a);  // approximate, no refinement
  FGulp& recip(const FGulp& a);        // 1.0 / a
  FGulp& recipCHKZ(const FGulp& a);    // 1.0 where a is +-0, else 1.0 / a

  // Clipping: clip(v) = min(hi, max(lo, v)) in that order; NaN passes through.
  FGulp& clip(float lo, const FGulp& a, float hi);
  FGulp& mulclip(float lo, const FGulp& a, const FGulp& b, float hi);
  FGulp& mulround(const FGulp& a, const FGulp& b);
  FGulp& mulroundclip(float lo, const FGulp& a, const FGulp& b, float hi);
  FGulp& clipoffs(float lo, const FGulp& a, float off, float hi);
  FGulp& clipoffsLE(float lo, const FGulp& a, float off, float hi, FGulp& inside);
  FGulp& inrangeLT(float lo, const FGulp& a, float hi);  // 1.0 where lo <= a < hi
  FGulp& inrangeLE(float lo, const FGulp& a, float hi);  // 1.0 where lo <= a <= hi

  // Table operations.
  FGulp& LUTscale(const FGulp& a, float s, float top);  // a*s limited to 0..top
  FGulp& modf(const FGulp& a, FGulp& ipart);            // a - floor(a); ipart = floor(a)
  FGulp& modfscaledoffs(const FGulp& a, float s, float offs, FGulp& ipart);
  FGulp& gatherLUT(const float* table, const FGulp& a);  // table[trunc(a)], exactly len
  FGulp& blend(const FGulp& a, const FGulp& b, const FGulp& t);  // a + (b - a)*t

 private:
  int32_t AlignedOffset() const {
    const uintptr_t address = reinterpret_cast<uintptr_t>(storage);
    return static_cast<int32_t>(((address + 31) & ~uintptr_t(31)) - address) / 4;
  }
};

static_assert(alignof(FGulp) == 4, "runs must fit any 4-byte boundary");
static_assert(sizeof(FGulp) == 8 + 72 * sizeof(float), "FGulp layout");

// The coordinates of one step of pixels.
struct FGulpPt {
  FGulp x;
  FGulp y;
};

// One step of pixel values, channel by channel.
struct RGBAGulp {
  FGulp r;
  FGulp g;
  FGulp b;
  FGulp a;
};

#endif  // VT_GULP_FGULP_H
