// What a render says while it runs, for a person at a terminal or for a farm's log.
//
//   bar     one line on stderr, redrawn: frames done/total, frames per second, time left, and
//           the rows of the frame being rendered once it has taken more than two seconds
//   lines   one line per frame on stdout: "frame 1001  0.41 s  plate.1001.exr -> out.1001.exr",
//           the seconds being those since the previous frame was written (their sum is the run)
//   openjd  "openjd_progress: P" lines on stdout (P = 0..100, rows of the frame counted in), as
//           an Open Job Description action reports its progress
//   none    nothing
#ifndef VT_CLI_PROGRESS_H
#define VT_CLI_PROGRESS_H

#include <cstdint>
#include <mutex>
#include <optional>
#include <ostream>
#include <string>

#include "cli/render/FrameFiles.h"

namespace veltrisca {

enum class ProgressStyle { kNone, kBar, kLines, kOpenJd };

// "auto" (bar on a terminal, else lines), "bar", "lines", "openjd", "none"; throws
// CliError(kExitUsage). `terminal`: stderr is a terminal.
ProgressStyle ParseProgressStyle(const std::string& text, bool terminal);

class Progress {
 public:
  // `frames`: frames to be rendered or skipped; `single`: a single-file render, which shows
  // only its rows, and only in the bar style.
  Progress(ProgressStyle style, int frames, bool single, std::ostream& out, std::ostream& err);

  // The frame whose rows Rows() counts.
  void Started(const FrameFiles& files);
  // Rows done of the current render pass; safe from any thread.
  void Rows(int64_t done, int64_t total);
  enum class Outcome { kWritten, kSkipped, kFailed };
  // `error`: the failure's message, printed on stderr as one line (the bar cleared first).
  void Done(const FrameFiles& files, Outcome outcome, const std::string& error = "");
  // Ends the bar's line; prints the run's summary in the bar and lines styles.
  void Finish(int failed);
  // Standard output failed (a closed pipe, a full disk): true, and in *errnum the errno of the
  // failed write (0 when not known). The run must stop: a farm reading it has gone.
  bool OutputFailed(int* errnum);

 private:
  void DrawBar(Clock::time_point now);  // under mutex_
  void OpenJd(double fraction);         // under mutex_
  void Flushed();                       // under mutex_, after writing to out_

  ProgressStyle style_;
  int frames_;
  bool single_;
  std::ostream& out_;
  std::ostream& err_;
  std::mutex mutex_;
  Clock::time_point start_ = Clock::now();
  Clock::time_point last_ = start_;       // the last frame done
  Clock::time_point frameStart_ = start_;  // the current frame's render
  Clock::time_point drawn_{};             // the last redraw of the bar
  std::optional<int> current_;
  double rows_ = 0;  // fraction of the current frame's rows done
  int done_ = 0, written_ = 0, skipped_ = 0;
  int started_ = 0;  // frames whose render began
  int lastPercent_ = -1;
  bool barShown_ = false;
  bool outFailed_ = false;
  int outErrno_ = 0;
};

}  // namespace veltrisca

#endif
