// `veltrisca render` over the frames of a shot: which frames, and the pipeline that renders
// them. The effect is loaded and set up once; each frame is one smart render (a pass per three
// colour channels), as a host renders a clip.
//
// The pipeline has three threads: while frame n renders (on the effect's own row threads),
// frame n+1 is read and frame n-1 written. Each hand-over waits until the next step has taken
// the frame, so at most two frames' input and two frames' output are in memory at once.
// Frames are reported and written in order; a failed frame stops the run after the frames
// before it are written, unless --keep-going.
#ifndef VT_CLI_RENDER_SHOTPIPELINE_H
#define VT_CLI_RENDER_SHOTPIPELINE_H

#include <ostream>
#include <string>
#include <vector>

#include "cli/render/Progress.h"
#include "cli/render/FrameStages.h"

namespace veltrisca {

struct SequenceEntry {
  FrameFiles files;
  bool missing = false;  // inside the sequence on disk but absent
};

struct FrameSelection {
  bool numbered = false;              // IN and OUT name frames
  std::vector<SequenceEntry> frames;  // to render, in order
  std::vector<int> outside;           // asked for, but before or past the sequence on disk
  std::vector<int> onDisk;            // the frames that exist
};

// The frames of IN and OUT: a single file, the frames of --frames (or of IN's inline list), or
// without a list every frame from the first on disk to the last (a hole is a missing frame). Throws CliError(kExitUsage) for patterns that do not fit
// together and CliError(kExitIo) when no frame asked for exists.
FrameSelection SelectFrames(const std::string& input, const std::string& output,
                            const std::string& framesOption);

struct SequenceOptions {
  bool keepGoing = false;     // render every frame, failed or not, and list the failures
  bool skipExisting = false;  // leave frames whose output is a readable image
};

// Renders the selection; returns the exit code. A single file's failure is thrown as its
// CliError; a sequence's failures are printed as they happen, one line each.
int RenderSelection(RenderJob& job, const FrameSelection& selection,
                    const SequenceOptions& options, Progress& progress, Notes& notes,
                    std::ostream& out, std::ostream& err);

}  // namespace veltrisca

#endif
