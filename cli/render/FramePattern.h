// Frame numbers in file names, in the forms compositors type:
//
//   plate.#.exr      one '#': four digits, zero-padded (plate.1001.exr), as oiiotool reads it
//   plate.####.exr   a run of several '#': one digit each (four here), as most compositing and
//                    farm software writes it; oiiotool would read four digits per '#' instead
//   plate.@@@.exr    one digit per '@' (plate.042.exr)
//   plate.%04d.exr   printf style: %d (no padding) or %0Nd
//   plate.1001-1100#.exr   an inline frame list before the '#'/'@' run, as oiiotool takes it
//                    (the list's grammar is that of --frames, see ParseFrameList)
//
// Frame numbers are whole numbers from 0; a number longer than the padding is written whole.
#ifndef VT_CLI_FRAMEPATTERN_H
#define VT_CLI_FRAMEPATTERN_H

#include <optional>
#include <string>
#include <vector>

namespace veltrisca {

struct FramePattern {
  std::string prefix;  // the path before the frame number
  std::string suffix;  // and after it
  int digits = 0;      // zero padding (0 for %d)
  std::optional<std::vector<int>> inlineFrames;  // plate.1001-1100#.exr
};

constexpr int kMaxFrame = 99999999;

// The frame pattern in `path`, or nullopt when the name has none (a single file). An inline
// frame list is taken only when allowInlineList is set; otherwise it is refused (OUT cannot
// choose frames). Throws CliError(kExitUsage) naming `option` for a name with two patterns or a
// malformed one ("%4d", "%0d", an inline list that does not parse, a frame beyond kMaxFrame).
std::optional<FramePattern> ParseFramePattern(const std::string& option, const std::string& path,
                                              bool allowInlineList);

// The file name of one frame.
std::string FramePath(const FramePattern& pattern, int frame);

// "1001-1100", "1001-1100x2" (every second frame), "1001,1005,1010-1020", "1001": the frames in
// the order given, each once. Throws CliError(kExitUsage) naming `option` for anything else:
// a descending range, a step of 0, numbers beyond kMaxFrame, blanks.
std::vector<int> ParseFrameList(const std::string& option, const std::string& text);

// The frames whose files exist (regular files named as the pattern writes them), ascending.
std::vector<int> FramesOnDisk(const FramePattern& pattern);

// "1001-1003,1007": frames (ascending) in the --frames grammar, for messages.
std::string FrameListText(const std::vector<int>& frames);
// "frame 1001", "frames 1001-1003,1007".
std::string FramesText(const std::vector<int>& frames);

}  // namespace veltrisca

#endif
