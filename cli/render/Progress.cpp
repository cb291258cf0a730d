#include "cli/render/Progress.h"

#include <cerrno>
#include <cmath>
#include <cstdio>

#include "cli/shared/Errors.h"

namespace veltrisca {

namespace {

// A frame's rows are shown once it has taken this long, so short frames do not flicker.
constexpr double kRowsAfterSeconds = 2.0;
// The bar is redrawn at most this often.
constexpr double kRedrawSeconds = 0.2;

double Seconds(Clock::duration d) { return std::chrono::duration<double>(d).count(); }

std::string ClockText(double seconds) {
  const long s = std::lround(seconds);
  char text[32];
  if (s >= 3600) {
    std::snprintf(text, sizeof text, "%ld:%02ld:%02ld", s / 3600, s / 60 % 60, s % 60);
  } else {
    std::snprintf(text, sizeof text, "%ld:%02ld", s / 60, s % 60);
  }
  return text;
}

std::string FrameName(const FrameFiles& files) {
  return files.frame ? std::to_string(*files.frame) : files.input;
}

}  // namespace

ProgressStyle ParseProgressStyle(const std::string& text, bool terminal) {
  if (text == "auto") return terminal ? ProgressStyle::kBar : ProgressStyle::kLines;
  if (text == "bar") return ProgressStyle::kBar;
  if (text == "lines") return ProgressStyle::kLines;
  if (text == "openjd") return ProgressStyle::kOpenJd;
  if (text == "none") return ProgressStyle::kNone;
  throw UsageError("--progress: \"" + text + "\" is not one of auto, bar, lines, openjd, none");
}

Progress::Progress(ProgressStyle style, int frames, bool single, std::ostream& out,
                   std::ostream& err)
    : style_(style), frames_(frames), single_(single), out_(out), err_(err) {
  if (single_ && style_ != ProgressStyle::kBar && style_ != ProgressStyle::kOpenJd) {
    style_ = ProgressStyle::kNone;
  }
  std::lock_guard<std::mutex> lock(mutex_);
  OpenJd(0.0);
}

void Progress::Started(const FrameFiles& files) {
  std::lock_guard<std::mutex> lock(mutex_);
  current_ = files.frame;
  frameStart_ = Clock::now();
  rows_ = 0;
  ++started_;
}

void Progress::Rows(int64_t done, int64_t total) {
  if (style_ == ProgressStyle::kNone || style_ == ProgressStyle::kLines || total <= 0) return;
  std::lock_guard<std::mutex> lock(mutex_);
  rows_ = static_cast<double>(done) / static_cast<double>(total);
  const Clock::time_point now = Clock::now();
  if (style_ == ProgressStyle::kOpenJd) {
    // Frames before this one are rendered, though perhaps not yet written.
    OpenJd((started_ - 1 + rows_) / std::max(frames_, 1));
  } else if (Seconds(now - frameStart_) >= kRowsAfterSeconds &&
             Seconds(now - drawn_) >= kRedrawSeconds) {
    DrawBar(now);
  }
}

void Progress::Done(const FrameFiles& files, Outcome outcome, const std::string& error) {
  std::lock_guard<std::mutex> lock(mutex_);
  const Clock::time_point now = Clock::now();
  if (!error.empty()) {
    if (barShown_) err_ << "\r\x1b[K";
    barShown_ = false;
    err_ << "veltrisca: " << error << "\n" << std::flush;
  }
  ++done_;
  if (outcome == Outcome::kWritten) ++written_;
  if (outcome == Outcome::kSkipped) ++skipped_;
  rows_ = 0;
  current_.reset();
  switch (style_) {
    case ProgressStyle::kLines: {
      char time[32];
      std::snprintf(time, sizeof time, "%.2f s", Seconds(now - last_));
      out_ << "frame " << FrameName(files) << "  ";
      if (outcome == Outcome::kWritten) {
        out_ << time << "  " << files.input << " -> " << files.output;
      } else if (outcome == Outcome::kSkipped) {
        out_ << "skipped  " << files.output << " exists";
      } else {
        out_ << "failed  " << files.input;
      }
      out_ << "\n" << std::flush;
      Flushed();
      break;
    }
    case ProgressStyle::kOpenJd:
      OpenJd(static_cast<double>(done_) / std::max(frames_, 1));
      break;
    case ProgressStyle::kBar:
      if (!single_) DrawBar(now);
      break;
    case ProgressStyle::kNone:
      break;
  }
  last_ = now;
}

void Progress::Finish(int failed) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (barShown_) err_ << "\r\x1b[K" << std::flush;
  barShown_ = false;
  if (single_ || (style_ != ProgressStyle::kBar && style_ != ProgressStyle::kLines)) return;
  const double seconds = Seconds(Clock::now() - start_);
  char text[160];
  std::snprintf(text, sizeof text, "%d frames written, %d skipped, %d failed in %.1f s (%.2f fps)",
                written_, skipped_, failed, seconds, seconds > 0 ? written_ / seconds : 0.0);
  (style_ == ProgressStyle::kBar ? err_ : out_) << text << "\n" << std::flush;
  Flushed();
}

bool Progress::OutputFailed(int* errnum) {
  std::lock_guard<std::mutex> lock(mutex_);
  Flushed();  // a -v report may have failed since
  *errnum = outErrno_;
  return outFailed_;
}

void Progress::Flushed() {
  if (outFailed_ || !out_.fail()) return;
  outFailed_ = true;
  outErrno_ = errno;
}

void Progress::DrawBar(Clock::time_point now) {
  std::string line;
  if (!single_) {
    const double elapsed = Seconds(now - start_);
    const double rendered = done_ + rows_;
    char text[120];
    std::snprintf(text, sizeof text, "%d/%d frames", done_, frames_);
    line = text;
    if (rendered > 0 && elapsed > 0) {
      const double fps = rendered / elapsed;
      std::snprintf(text, sizeof text, "  %.2f fps  %s left", fps,
                    ClockText((frames_ - rendered) / fps).c_str());
      line += text;
    }
  }
  if (Seconds(now - frameStart_) >= kRowsAfterSeconds && rows_ > 0) {
    char text[80];
    const std::string frame = current_ ? "frame " + std::to_string(*current_) + " " : "";
    std::snprintf(text, sizeof text, "%s%srows %d%%", line.empty() ? "" : "  ", frame.c_str(),
                  static_cast<int>(100 * rows_));
    line += text;
  }
  if (line.empty()) return;
  err_ << "\r" << line << "\x1b[K" << std::flush;
  barShown_ = true;
  drawn_ = now;
}

void Progress::OpenJd(double fraction) {
  if (style_ != ProgressStyle::kOpenJd) return;
  const int percent = static_cast<int>(std::floor(100.0 * std::min(fraction, 1.0)));
  if (percent <= lastPercent_) return;
  lastPercent_ = percent;
  out_ << "openjd_progress: " << percent << "\n" << std::flush;
  Flushed();
}

}  // namespace veltrisca
