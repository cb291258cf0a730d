// Internal to the effect: the values of FGulp::Iota(start, step) as a sequence of 4-lane
// groups, for code that uses the positions of a run straight from registers instead of
// storing them first. Both FGulp::Iota and such code take their values from here, so they
// are the same bits: accumulated block by block, not multiplied out.
#ifndef VT_GULP_IOTAGROUPS_H
#define VT_GULP_IOTAGROUPS_H

#include <smmintrin.h>

// Lanes 0..3 of the first block are start, start+step, start+(step+step), start+3*step;
// lanes 4..7 add q = 4*step; each further block adds q+q to both halves.
struct IotaGroups {
  __m128 low, high, twoQ;
  bool atLow;  // the next group is the first half of a block
};

inline IotaGroups StartIota(float start, float step) {
  const float lane1 = start + step;
  const float lane2 = start + (step + step);
  const float lane3 = start + 3.0f * step;
  const __m128 q = _mm_set1_ps(4.0f * step);
  IotaGroups g;
  g.low = _mm_setr_ps(start, lane1, lane2, lane3);
  g.high = _mm_add_ps(g.low, q);
  g.twoQ = _mm_add_ps(q, q);
  g.atLow = true;
  return g;
}

// The next group of four values.
inline __m128 NextIotaGroup(IotaGroups& g) {
  if (g.atLow) {
    g.atLow = false;
    return g.low;
  }
  const __m128 v = g.high;
  g.low = _mm_add_ps(g.low, g.twoQ);
  g.high = _mm_add_ps(g.high, g.twoQ);
  g.atLow = true;
  return v;
}

#endif  // VT_GULP_IOTAGROUPS_H
