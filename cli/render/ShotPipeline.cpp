#include "cli/render/ShotPipeline.h"

#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <exception>
#include <filesystem>
#include <map>
#include <new>
#include <optional>
#include <system_error>
#include <thread>

#include "cli/shared/AtomicFile.h"
#include "cli/shared/Errors.h"
#include "cli/render/FramePattern.h"
#include "hostsim/ThreadPool.h"

namespace veltrisca {

namespace {

// Refuses, before any work, a shot that would write over one of its own inputs: each OUT is
// compared with each IN of the shot and each frame of IN's sequence on disk, as files (device
// and inode, so that ".", ".." and links are seen through) or, for an OUT that does not exist
// yet, by its normalised path. An OUT that exists must be a regular file.
void CheckOutputs(const FrameSelection& selection, const std::optional<FramePattern>& in) {
  std::map<std::pair<dev_t, ino_t>, std::string> byFile;  // IN's name for each input file
  std::map<std::string, std::string> byPath;               // ... for each normalised path
  auto normalised = [](const std::string& path) {
    std::error_code ec;
    const std::string n = std::filesystem::weakly_canonical(path, ec).string();
    return ec ? path : n;
  };
  auto addInput = [&](const std::string& path) {
    struct stat st {};
    if (stat(path.c_str(), &st) != 0) return;
    byFile.emplace(std::make_pair(st.st_dev, st.st_ino), path);
    byPath.emplace(normalised(path), path);
  };
  for (const SequenceEntry& e : selection.frames) addInput(e.files.input);
  if (in) {
    for (const int frame : selection.onDisk) addInput(FramePath(*in, frame));
  }
  for (const SequenceEntry& e : selection.frames) {
    struct stat st {};
    const std::string* input = nullptr;
    if (stat(e.files.output.c_str(), &st) == 0) {
      const auto it = byFile.find(std::make_pair(st.st_dev, st.st_ino));
      if (it != byFile.end()) input = &it->second;
    } else if (const auto it = byPath.find(normalised(e.files.output)); it != byPath.end()) {
      input = &it->second;
    }
    if (input && !selection.numbered) {
      throw IoError("OUT is the same file as IN (" + e.files.output +
                    "); write the result to another file");
    }
    if (input) {
      throw IoError("OUT of frame " + std::to_string(*e.files.frame) + ", " + e.files.output +
                    ", is the input file " + *input +
                    ": the shot would write over its own input; nothing was rendered "
                    "(choose another OUT)");
    }
    CheckOutputTarget(e.files.output);
  }
}

}  // namespace

FrameSelection SelectFrames(const std::string& input, const std::string& output,
                            const std::string& framesOption) {
  const std::optional<FramePattern> in = ParseFramePattern("IN", input, true);
  const std::optional<FramePattern> out = ParseFramePattern("OUT", output, false);
  FrameSelection selection;
  if (!in) {
    if (out) {
      throw UsageError("OUT (" + output + ") names frames but IN (" + input +
                       ") is a single file; give IN a frame number too (e.g. plate.####.exr)");
    }
    if (!framesOption.empty()) {
      throw UsageError("--frames needs a frame number in IN (e.g. plate.####.exr)");
    }
    selection.frames.push_back(SequenceEntry{FrameFiles{std::nullopt, input, output}, false});
    CheckOutputs(selection, in);
    return selection;
  }
  if (!out) {
    throw UsageError("IN (" + input + ") names a sequence; OUT needs a frame number too "
                     "(e.g. out.####.exr), or every frame would overwrite " + output);
  }
  if (in->inlineFrames && !framesOption.empty()) {
    throw UsageError("IN holds a frame list and --frames gives another; give one");
  }
  selection.numbered = true;
  selection.onDisk = FramesOnDisk(*in);
  const std::vector<int>& disk = selection.onDisk;
  std::vector<int> wanted;
  if (in->inlineFrames) {
    wanted = *in->inlineFrames;
  } else if (!framesOption.empty()) {
    wanted = ParseFrameList("--frames", framesOption);
  } else if (disk.empty()) {
    throw IoError("no frame of " + input + " exists");
  } else {
    // The shot runs from the first frame on disk to the last; a hole in it is a missing frame.
    for (int f = disk.front(); f <= disk.back(); ++f) wanted.push_back(f);
  }
  for (const int frame : wanted) {
    const bool exists = std::binary_search(disk.begin(), disk.end(), frame);
    if (!exists && (disk.empty() || frame < disk.front() || frame > disk.back())) {
      selection.outside.push_back(frame);
      continue;
    }
    selection.frames.push_back(
        SequenceEntry{FrameFiles{frame, FramePath(*in, frame), FramePath(*out, frame)}, !exists});
  }
  if (selection.frames.empty()) {
    std::vector<int> sorted = wanted;
    std::sort(sorted.begin(), sorted.end());
    throw IoError("none of the frames " + FrameListText(sorted) + " of " + input + " exist" +
                  (disk.empty() ? std::string()
                                : " (the frames on disk are " + FrameListText(disk) + ")"));
  }
  std::sort(selection.outside.begin(), selection.outside.end());
  CheckOutputs(selection, in);
  return selection;
}

namespace {

// A one-place hand-over between two threads. Put waits until the item has been taken, so a
// producer never runs more than one item ahead of its consumer.
template <class T>
class Handoff {
 public:
  // False when the consumer closed the hand-over (the item is dropped).
  bool Put(T item) {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait(lock, [&] { return !item_ || closed_; });
    if (closed_) return false;
    item_ = std::move(item);
    changed_.notify_all();
    changed_.wait(lock, [&] { return !item_ || closed_; });
    return !item_;
  }
  // The next item; nullopt once closed and empty.
  std::optional<T> Take() {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait(lock, [&] { return item_ || closed_; });
    std::optional<T> item = std::move(item_);
    item_.reset();
    changed_.notify_all();
    return item;
  }
  // No more items will be put (producer) or taken (consumer).
  void Close() {
    std::lock_guard<std::mutex> lock(mutex_);
    closed_ = true;
    changed_.notify_all();
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::optional<T> item_;
  bool closed_ = false;
};

// A frame on its way through the pipeline: its data, or why it has none.
template <class T>
struct Stage {
  FrameFiles files;
  std::optional<T> value;
  bool skipped = false;
  std::exception_ptr error;
};

// Runs `step` and turns what it throws into the stage's error.
template <class T, class Step>
Stage<T> Attempt(const FrameFiles& files, Step step) {
  Stage<T> stage;
  stage.files = files;
  try {
    stage.value.emplace(step());
  } catch (...) {
    stage.error = std::current_exception();
  }
  return stage;
}

template <class To, class From>
Stage<To> Forward(Stage<From>&& from) {
  Stage<To> to;
  to.files = std::move(from.files);
  to.skipped = from.skipped;
  to.error = from.error;
  return to;
}

}  // namespace

int RenderSelection(RenderJob& job, const FrameSelection& selection,
                    const SequenceOptions& options, Progress& progress, Notes& notes,
                    std::ostream& out, std::ostream& err) {
  std::vector<int> missing;
  for (const SequenceEntry& e : selection.frames) {
    if (e.missing) missing.push_back(*e.files.frame);
  }
  if (!missing.empty() && !options.keepGoing) {
    throw IoError(FramesText(missing) + (missing.size() == 1 ? " is" : " are") +
                  " missing from the sequence on disk (" +
                  FrameListText(selection.onDisk) + "); nothing was rendered (--keep-going " +
                  "renders the frames that exist)");
  }
  if (!selection.outside.empty()) {
    notes(FramesText(selection.outside) + (selection.outside.size() == 1 ? " lies" : " lie") +
          " outside the sequence on disk (" +
          FrameListText(selection.onDisk) + "); skipped");
  }
  job.pipelined = selection.frames.size() > 1;
  OutputFramePlanner planner(job);
  FrameRenderer renderer(job);
  BufferPool pool;
  Handoff<Stage<ReadFrame>> toRender;
  Handoff<Stage<RenderedFrame>> toWrite;
  const bool stopAtFailure = !options.keepGoing;

  auto read = [&] {
    for (const SequenceEntry& entry : selection.frames) {
      Stage<ReadFrame> stage;
      if (entry.missing) {
        stage.files = entry.files;
        stage.error = std::make_exception_ptr(
            IoError(entry.files.input + " is missing from the sequence"));
      } else {
        stage = Attempt<ReadFrame>(entry.files, [&] {
          return ReadFrameFiles(job, planner, notes, pool, entry.files, options.skipExisting);
        });
        if (stage.value && stage.value->skipped) {
          stage.value.reset();
          stage.skipped = true;
        }
      }
      const bool failed = stage.error != nullptr;
      if (!toRender.Put(std::move(stage)) || (failed && stopAtFailure)) break;
    }
    toRender.Close();
  };

  // Failures in frame order, kept by the writer, which sees every frame last.
  std::vector<std::pair<FrameFiles, std::exception_ptr>> failures;
  // Standard output failed (-v, --progress lines or openjd): whoever reads it has gone, so the
  // run stops; its errno.
  std::optional<int> stdoutFailure;
  StageTimes shotTimes;
  int framesWritten = 0;
  auto write = [&] {
    while (std::optional<Stage<RenderedFrame>> stage = toWrite.Take()) {
      if (stage->value) {
        try {
          shotTimes += WriteFrame(job, std::move(*stage->value), notes, pool, out);
          ++framesWritten;
        } catch (...) {
          stage->error = std::current_exception();
        }
      }
      if (stage->error) {
        failures.emplace_back(stage->files, stage->error);
        // A single file's failure is the command's error, said by the caller.
        progress.Done(stage->files, Progress::Outcome::kFailed,
                      selection.numbered ? MessageLine("frame " +
                                                       std::to_string(*stage->files.frame) +
                                                       ": " + FailureOf(stage->error).message)
                                         : std::string());
        if (stopAtFailure) break;
      } else {
        progress.Done(stage->files,
                      stage->skipped ? Progress::Outcome::kSkipped : Progress::Outcome::kWritten);
      }
      if (int errnum = 0; progress.OutputFailed(&errnum)) {
        stdoutFailure = errnum;
        break;
      }
    }
    toWrite.Close();
  };
  std::thread reader, writer;
  try {
    reader = hostsim::StartThread(read);
    writer = hostsim::StartThread(write);
  } catch (const std::system_error& e) {
    // Not started: the run ends before its first frame, once the reader has stopped.
    toRender.Close();
    toWrite.Close();
    if (reader.joinable()) reader.join();
    throw ThreadStartError("the threads that read and write the frames", e);
  }

  // This thread renders.
  while (std::optional<Stage<ReadFrame>> stage = toRender.Take()) {
    Stage<RenderedFrame> rendered;
    if (stage->value) {
      progress.Started(stage->files);
      rendered = Attempt<RenderedFrame>(stage->files, [&] {
        return renderer.Render(std::move(*stage->value), notes, pool,
                               [&](int64_t done, int64_t total) { progress.Rows(done, total); });
      });
    } else {
      rendered = Forward<RenderedFrame>(std::move(*stage));
    }
    const bool failed = rendered.error != nullptr;
    if (!toWrite.Put(std::move(rendered)) || (failed && stopAtFailure)) break;
  }
  toRender.Close();
  toWrite.Close();
  reader.join();
  writer.join();
  if (job.verbose && !job.quiet && selection.numbered && !stdoutFailure) {
    out << "shot: " << framesWritten << (framesWritten == 1 ? " frame, " : " frames, ")
        << StageTimesText(shotTimes) << "\n";
  }
  progress.Finish(static_cast<int>(failures.size()));
  if (stdoutFailure) {
    try {
      renderer.Finish();
    } catch (const CliError&) {
      // Standard output's failure is what stopped the run.
    }
    throw StdoutError(*stdoutFailure);
  }
  if (failures.empty()) {
    renderer.Finish();
    return kExitOk;
  }
  try {
    renderer.Finish();
  } catch (const CliError&) {
    // The failure already being reported says more than a setdown after it.
  }
  if (!selection.numbered) std::rethrow_exception(failures.front().second);
  if (options.keepGoing) {
    std::vector<int> frames;
    for (const auto& failure : failures) frames.push_back(*failure.first.frame);
    std::sort(frames.begin(), frames.end());
    err << "veltrisca: " << failures.size() << " of " << selection.frames.size()
        << " frames failed: " << FrameListText(frames) << "\n";
  }
  return FailureOf(failures.front().second).exitCode;
}

}  // namespace veltrisca
