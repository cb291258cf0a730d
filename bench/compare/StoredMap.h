// Our samplers fed from a position map stored beforehand, as a render would run if it kept
// a frame's run mapping for the next frames of a shot: the cache's best case, and the figure
// that compares with OpenCV's remap of a precomputed map. The map and the samplers are the
// effect's own code (linked in), chosen as the row callbacks choose them.
#ifndef VT_BENCH_COMPARE_STOREDMAP_H
#define VT_BENCH_COMPARE_STOREDMAP_H

#include <vector>

#include "hostsim/World.h"

namespace compare {

// Input positions of every output pixel of a width x height frame (Remove or Apply,
// DistortionX1000 -50, the rest as in compare_ours), x then y per row.
struct StoredMap {
  int width = 0, height = 0;
  std::vector<float> xs, ys;
};
StoredMap BuildStoredMap(int width, int height, bool apply);

// Seconds per frame of sampling `layer` through the map with the filter (popup value 3..6
// or 2) on `threads` threads, rows shared out in blocks; at least minSeconds of frames after
// one warm-up frame.
double TimeStoredMapFrames(const StoredMap& map, const hostsim::World& layer, int filter,
                           int threads, double minSeconds);

}  // namespace compare

#endif
