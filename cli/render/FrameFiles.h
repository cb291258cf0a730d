// One frame of a shot as the pipeline's stages and its progress see it: its number and its
// two files.
#ifndef VT_CLI_RENDER_FRAMEFILES_H
#define VT_CLI_RENDER_FRAMEFILES_H

#include <chrono>
#include <optional>
#include <string>

namespace veltrisca {

using Clock = std::chrono::steady_clock;

// The files of one frame; `frame` names it in messages when the files are numbered.
struct FrameFiles {
  std::optional<int> frame;
  std::string input;
  std::string output;
};

}  // namespace veltrisca

#endif
