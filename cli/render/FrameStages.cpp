#include "cli/render/FrameStages.h"

#include <sys/stat.h>

#include <algorithm>
#include <climits>
#include <cstdio>

#include <OpenImageIO/half.h>

#include "cli/shared/Errors.h"
#include "common/Version.h"
#include "cli/lens/Fit.h"
#include "cli/lens/LensFile.h"
#include "cli/shared/Memory.h"

namespace veltrisca {

void Notes::operator()(const std::string& text) {
  if (quiet_) return;
  std::lock_guard<std::mutex> lock(mutex_);
  if (said_.insert(text).second) stream_ << "veltrisca: " << text << "\n" << std::flush;
}

namespace {

// Pixels of a rectangle's area, refusing one whose world could not exist at all.
long long CheckedPixels(const PF_LRect& r, Depth depth, const std::string& what) {
  const long long w = static_cast<long long>(r.right) - r.left;
  const long long h = static_cast<long long>(r.bottom) - r.top;
  const long long perPixel = PixelDepthOf(depth).bytes;
  if (w > INT_MAX || h > INT_MAX ||
      static_cast<unsigned long long>(w) * perPixel >
          hostsim::kMaxWorldBytes / static_cast<unsigned long long>(h)) {
    throw IoError(what + " of " + std::to_string(w) + " x " + std::to_string(h) +
                  " pixels exceeds the host's " + ByteText(hostsim::kMaxWorldBytes) +
                  " per image buffer");
  }
  return w * h;
}

std::string HalfPixelNote(const DefaultWindow& w, const LensSizes& sizes) {
  std::string axes;
  if (w.halfPixelX) {
    axes = "widths " + std::to_string(sizes.distorted.width) + " and " +
           std::to_string(sizes.undistorted.width);
  }
  if (w.halfPixelY) {
    axes += (axes.empty() ? "heights " : ", heights ") + std::to_string(sizes.distorted.height) +
            " and " + std::to_string(sizes.undistorted.height);
  }
  return "note: the margin between the distorted and undistorted " + axes +
         " is odd; the output window " + RectText(w.rect) + " sits half a pixel off the lens centre";
}

std::string SizeText(const PF_LRect& r) {
  return std::to_string(static_cast<long long>(r.right) - r.left) + "x" +
         std::to_string(static_cast<long long>(r.bottom) - r.top) + " at " +
         std::to_string(r.left) + "," + std::to_string(r.top);
}

std::string SizeText(ImageSize s) {
  return std::to_string(s.width) + "x" + std::to_string(s.height);
}

std::string ChannelText(const std::vector<std::string>& names, int alpha) {
  std::string s;
  for (size_t c = 0; c < names.size(); ++c) s += (c ? "," : "") + names[c];
  return s + (alpha >= 0 ? " (alpha " + names[static_cast<size_t>(alpha)] + ")" : " (no alpha)");
}

std::string Number(double v) {
  char text[32];
  std::snprintf(text, sizeof text, "%g", v);
  return text;
}

// A share that is not zero never reads as "0.0%": below 0.1% it takes two significant digits.
std::string Percent(double fraction) {
  char text[32];
  const double percent = 100.0 * fraction;
  std::snprintf(text, sizeof text, percent > 0 && percent < 0.1 ? "%.2g%%" : "%.1f%%", percent);
  return text;
}

// The sample type of an image's channels: "half", or for channels of different types each
// type with its channels ("mixed: half R,G,B; float Z").
std::string SampleTypesText(OIIO::TypeDesc format, const std::vector<OIIO::TypeDesc>& types,
                            const std::vector<std::string>& names) {
  if (types.empty() ||
      std::all_of(types.begin(), types.end(), [&](OIIO::TypeDesc t) { return t == types[0]; })) {
    return TypeName(types.empty() ? format : types[0]);
  }
  std::vector<std::pair<OIIO::TypeDesc, std::string>> groups;
  for (size_t c = 0; c < types.size(); ++c) {
    auto group = std::find_if(groups.begin(), groups.end(),
                              [&](const auto& g) { return g.first == types[c]; });
    if (group == groups.end()) group = groups.insert(groups.end(), {types[c], std::string()});
    group->second += (group->second.empty() ? "" : ",") +
                     (c < names.size() ? names[c] : std::to_string(c));
  }
  std::string text = "mixed:";
  for (const auto& [type, channels] : groups) {
    text += (text.size() > 6 ? "; " : " ") + TypeName(type) + " " + channels;
  }
  return text;
}

// True when some pixel of the world has a non-zero alpha.
bool AnyAlpha(const hostsim::World* w) {
  if (!w) return false;
  for (int y = 0; y < w->height(); ++y) {
    for (int x = 0; x < w->width(); ++x) {
      if (w->Get(x, y, 0) != 0.0f) return true;
    }
  }
  return false;
}

// The non-alpha channels of a float image that a kernel filter renders and that hold a
// negative value, which that filter clips to 0.
std::string ClippedChannels(const InputImage& input, const FramePlan& plan,
                            const PixelBuffer& px) {
  if (px.depth != Depth::kFloat) return std::string();
  const size_t n = static_cast<size_t>(px.channels);
  std::vector<bool> clips(n, false), negative(n, false);
  for (const int c : input.colour) {
    const size_t i = static_cast<size_t>(c);
    clips[i] = IsKernelFilter(plan.channelFilters[i].filter);
  }
  if (std::find(clips.begin(), clips.end(), true) == clips.end()) return std::string();
  const auto find = [&](const auto* v) {
    const size_t count = px.bytes.size() / sizeof *v;
    for (size_t i = 0; i < count; ++i) {
      if (static_cast<float>(v[i]) < 0.0f && clips[i % n]) negative[i % n] = true;
    }
  };
  if (px.half) {
    find(reinterpret_cast<const half*>(px.bytes.data()));
  } else {
    find(reinterpret_cast<const float*>(px.bytes.data()));
  }
  std::string names;
  for (size_t c = 0; c < n; ++c) {
    if (negative[c]) names += (names.empty() ? "" : ", ") + plan.layout.names[c];
  }
  return names;
}

double SecondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

constexpr long long kLargeOutputPixels = 100000000;

constexpr const char* kChannelFiltersKey = "veltrisca:channelFilters";

// What the output's header adds to the input's (FramePlan::header).
OIIO::ParamValueList OutputHeader(const RenderJob& job, const FramePlan& plan) {
  OIIO::ParamValueList header;
  header.attribute("Software", "veltrisca " + VersionText());
  // The channel filters, recorded unless every channel takes the lens's filter.
  const std::vector<ChannelFilter>& filters = plan.channelFilters;
  if (std::any_of(filters.begin(), filters.end(),
                  [&](const ChannelFilter& f) { return f.filter != plan.settings.filter; })) {
    header.attribute(kChannelFiltersKey,
                     ChannelFiltersText(plan.layout.names, filters, job.channelFilters, false));
  }
  if (plan.stretch == 1) {
    RecordLens(plan.settings, plan.sizes, &header);
    return header;
  }
  // A desqueezed result records the lens in its own square pixels: the same lens, so that an
  // apply of it gives the plate desqueezed.
  LensSettings square = plan.settings;
  square.pixelAspect = 1;
  const auto stretched = [&](ImageSize s) {
    const PF_LRect r = StretchX(PF_LRect{0, 0, s.width, s.height}, plan.stretch);
    return ImageSize{r.right, s.height};
  };
  RecordLens(square, LensSizes{stretched(plan.sizes.distorted), stretched(plan.sizes.undistorted)},
             &header);
  header.attribute("PixelAspectRatio", 1.0f);
  header.attribute("veltrisca:desqueezed", 1);
  return header;
}

// An output already on disk (render --skip-existing): a whole image, and the lens and channel
// filters its header records.
struct ExistingOutput {
  std::optional<RecordedLens> lens;
  std::string filters;
};

// The output at `path` when it is a whole image; nullopt when there is none, or when it is cut
// off or its record is damaged (noted: it is rendered again).
std::optional<ExistingOutput> ReadExistingOutput(const std::string& path, Notes& notes) {
  struct stat st {};
  if (lstat(path.c_str(), &st) != 0) return std::nullopt;
  try {
    const OIIO::ImageSpec spec = CheckWholeImage(path);
    return ExistingOutput{ReadRecordedLens(spec, path),
                          spec.get_string_attribute(kChannelFiltersKey)};
  } catch (const CliError& e) {
    notes("note: " + MessageLine(e.what()) + "; rendering it again");
    return std::nullopt;
  }
}

// What an existing output records that differs from the header `plan` writes ("another lens
// (distortion -30.0, not -50.0)"), or "" when it records the same lens and channel filters.
std::string ExistingDifference(const ExistingOutput& existing, const FramePlan& plan,
                               const std::string& path) {
  OIIO::ImageSpec written;
  written.extra_attribs = plan.header;
  std::string difference;
  if (!SameRecord(*existing.lens, *ReadRecordedLens(written, path), &difference)) {
    return "another lens (" + difference + ")";
  }
  const std::string filters = written.get_string_attribute(kChannelFiltersKey);
  if (filters == existing.filters) return std::string();
  return "other channel filters (" + (existing.filters.empty() ? "none" : existing.filters) +
         ", not " + (filters.empty() ? "none" : filters) + ")";
}

// The frame's lens settings, sizes, windows and output file, from its header, with the notes
// and warnings about what the output will lack (FramePlan::notes).
FramePlan PlanFrame(const RenderJob& job, OutputFramePlanner& planner,
                    const InputImage& input, const FrameFiles& files) {
  FramePlan plan;
  const ImageLens recorded =
      LensForImage(job.lens, ReadRecordedLens(input.spec, files.input), job.fit);
  const FileLens lens = PlanFileLens(ParseLensOptions(recorded.lens), input, job.fit);
  plan.settings = lens.settings;
  plan.frame = lens.frame;
  plan.sizes = lens.sizes;
  if (job.desqueeze && plan.settings.mode != kModeRemove) {
    throw UsageError(files.input + " is rendered in apply (the lens it records goes back on), "
                     "which --desqueeze does not take; give --mode remove to remove again");
  }
  plan.notes = recorded.notes;
  plan.layout = ChooseOutputLayout(input, job.addAlpha);
  plan.outPlan = PlanOutput(files.output, input, plan.layout, job.output);
  plan.channelFilters = ChooseChannelFilters(plan.layout.names, plan.layout.alphaIndex,
                                             plan.settings.filter, job.channelFilters);
  std::vector<int> filters;
  for (const ChannelFilter& f : plan.channelFilters) filters.push_back(f.filter);
  plan.passes = PlanPasses(input, plan.layout, filters);
  for (size_t r = 0; r < job.channelFilters.size(); ++r) {
    if (std::none_of(plan.channelFilters.begin(), plan.channelFilters.end(),
                     [&](const ChannelFilter& f) { return f.rule == static_cast<int>(r); })) {
      plan.notes.push_back("warning: --channel-filter " + job.channelFilters[r].text +
                           " sets no channel (no channel name matches, or a later pattern "
                           "takes them all)");
    }
  }
  plan.dataRect = Offset(input.dataWindow, -plan.frame.originX, -plan.frame.originY);
  plan.layerRect = LayerPixels(input, plan.frame);
  const long long layerPixels = CheckedPixels(plan.layerRect, input.depth, "the input layer");
  const long long dataPixels = RectArea(plan.dataRect);
  plan.params = ToParamValues(plan.settings, plan.sizes);

  const PlannedOutput planned =
      planner.Get(plan.params, plan.settings, plan.sizes, plan.frame.frame);
  const DefaultWindow& outFrame = planned.frame;
  plan.window = outFrame.rect;
  if (job.window) {
    plan.window = *job.window;
  } else if (outFrame.halfPixelX || outFrame.halfPixelY) {
    plan.notes.push_back(HalfPixelNote(outFrame, plan.sizes));
  }
  const long long windowPixels = CheckedPixels(plan.window, input.depth, "the output window");
  plan.windows =
      PlaceOutput(plan.settings.mode, plan.window, outFrame.rect, plan.sizes, plan.frame);
  if (job.desqueeze && plan.settings.pixelAspect != 1.0) {
    plan.stretch = plan.settings.pixelAspect;
    plan.windows = OutputWindows{StretchX(plan.windows.data, plan.stretch),
                                 StretchX(plan.windows.display, plan.stretch)};
  }
  if (!plan.outPlan.windows) plan.windows = AtOrigin(plan.windows);
  const long long writtenPixels = RectArea(plan.windows.data);
  plan.header = OutputHeader(job, plan);
  if (job.verbose) {
    const LensSettings& s = plan.settings;
    plan.lensText = std::string(ModeName(s.mode)) + ", " + FilterName(s.filter) + ", sizes " +
                    SizeText(plan.sizes.distorted) + " distorted, " +
                    SizeText(plan.sizes.undistorted) + " undistorted" +
                    (s.pixelAspect == 1.0 ? ""
                                          : ", pixel aspect " + Number(s.pixelAspect) +
                                                (plan.stretch != 1 ? " (desqueezed)" : ""));
    plan.filtersText =
        ChannelFiltersText(plan.layout.names, plan.channelFilters, job.channelFilters, true);
  }

  // Input file buffer, one pass's input layer and the host's copy of it, output world and
  // output file buffer, all at once at worst; a sequence holds one more input and output
  // buffer (the next frame read, the last one written).
  const uint64_t inputBuffer = FileBufferBytes(dataPixels, input.channels, input.depth);
  // (Desqueezed: the rendered buffer and the resampled one, at once.)
  const uint64_t outputBuffer =
      FileBufferBytes(windowPixels + (plan.stretch != 1 ? writtenPixels : 0), plan.layout.channels,
                      input.depth);
  plan.bufferBytes = std::max(inputBuffer, outputBuffer);
  plan.peakBytes = (job.pipelined ? 2 : 1) * 2 * plan.bufferBytes +
                   2 * WorldBytes(layerPixels, input.depth) + WorldBytes(windowPixels, input.depth);
  if (windowPixels > kLargeOutputPixels) {
    plan.notes.push_back("warning: the output is " + std::to_string(windowPixels / 1000000) +
                         " megapixels (" + SizeText(plan.window) + ")");
  }
  if (planned.lost > 0.0) {
    const double undoable = UndoableRadius(plan.settings, planned.back.lens);
    plan.notes.push_back("warning: " + Percent(planned.lost) +
                         " of the distorted frame lies beyond the radius the lens can invert (" +
                         std::to_string(undoable) +
                         (plan.settings.mode == kModeApply
                              ? "); there the output repeats the edge of what it inverts"
                              : "); that part of the plate is not in the output"));
  }
  return plan;
}

}  // namespace

StageTimes& StageTimes::operator+=(const StageTimes& o) {
  read += o.read;
  toLayer += o.toLayer;
  render += o.render;
  fromLayer += o.fromLayer;
  write += o.write;
  return *this;
}

std::string StageTimesText(const StageTimes& t) {
  char text[160];
  std::snprintf(text, sizeof text,
                "read %.3f s, to layer %.3f s, render %.3f s, from layer %.3f s, write %.3f s",
                t.read, t.toLayer, t.render, t.fromLayer, t.write);
  return text;
}

PlannedOutput OutputFramePlanner::Get(const hostsim::ParamValues& params,
                                      const LensSettings& settings, const LensSizes& sizes,
                                      ImageSize frame) {
  std::lock_guard<std::mutex> lock(mutex_);
  const auto same = [](ImageSize a, ImageSize b) {
    return a.width == b.width && a.height == b.height;
  };
  for (const Known& k : known_) {
    if (SameParamValues(k.params, params) && same(k.sizes.distorted, sizes.distorted) &&
        same(k.sizes.undistorted, sizes.undistorted)) {
      return k.result;
    }
  }
  EffectSession plan(*job_.module, params, job_.threads);
  plan.OverrideSuppliedRect(PF_LRect{0, 0, 0, 0});
  const PreRenderReadBack back = plan.PreRender(PF_LRect{0, 0, frame.width, frame.height});
  plan.Finish();
  const DefaultWindow outFrame =
      settings.mode == kModeApply
          ? ApplyWindow(back.lens.pixOffsetX, back.lens.pixOffsetY, sizes.distorted)
          : RemoveWindow(back.lens.maxResultRect, sizes, settings.pixelAspect);
  if (!job_.window && IsEmptyRect(&outFrame.rect)) {
    throw EffectError("the effect's output frame " + RectText(back.lens.maxResultRect) +
                      " is empty; nothing to render");
  }
  const PF_LRect distortedFrame =
      settings.mode == kModeApply ? outFrame.rect
                                  : PF_LRect{0, 0, sizes.distorted.width, sizes.distorted.height};
  const double lost = UnreachableFraction(back.lens, settings.mode, distortedFrame,
                                          UndoableRadius(settings, back.lens));
  known_.push_back(Known{params, sizes, PlannedOutput{back, outFrame, lost}});
  return known_.back().result;
}

std::vector<uint8_t> BufferPool::Take(size_t bytes) {
  std::lock_guard<std::mutex> lock(mutex_);
  auto best = kept_.end();
  for (auto it = kept_.begin(); it != kept_.end(); ++it) {
    if (it->capacity() >= bytes && (best == kept_.end() || it->capacity() < best->capacity())) {
      best = it;
    }
  }
  if (best == kept_.end()) {
    std::vector<uint8_t> fresh;
    fresh.reserve(bytes);
    return fresh;
  }
  std::vector<uint8_t> buffer = std::move(*best);
  kept_.erase(best);
  return buffer;
}

void BufferPool::Give(std::vector<uint8_t> buffer) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (kept_.size() < kMostKept && buffer.capacity() > 0) kept_.push_back(std::move(buffer));
}

ReadFrame ReadFrameFiles(const RenderJob& job, OutputFramePlanner& planner, Notes& notes,
                         BufferPool& pool, const FrameFiles& files, bool skipExisting) {
  ReadFrame frame;
  frame.files = files;
  frame.started = Clock::now();
  std::optional<ExistingOutput> existing;
  if (skipExisting) {
    existing = ReadExistingOutput(files.output, notes);
    frame.skipped = existing && !existing->lens;  // no lens recorded: nothing to compare
    if (frame.skipped) return frame;
  }
  frame.input = OpenInputImage(files.input, job.alpha);
  frame.plan = PlanFrame(job, planner, frame.input, files);
  if (existing) {
    const std::string difference = ExistingDifference(*existing, frame.plan, files.output);
    frame.skipped = difference.empty();
    if (frame.skipped) return frame;
    notes("note: " + MessageLine(files.output) + " records " + difference +
          "; rendering it again");
  }
  for (const std::string& n : frame.plan.notes) notes(n);
  CheckMemory(frame.plan.peakBytes,
              "rendering " + files.input + " into a " +
                  std::to_string(frame.plan.window.right - frame.plan.window.left) + " x " +
                  std::to_string(frame.plan.window.bottom - frame.plan.window.top) + " window");
  frame.temp = std::make_unique<TempOutputFile>(files.output);
  frame.pixels = ReadPixels(frame.input, pool.Take(frame.plan.bufferBytes), true);
  if (const std::string clipped = ClippedChannels(frame.input, frame.plan, frame.pixels);
      !clipped.empty()) {
    notes("warning: negative values in " + clipped + ", which the kernel filters (" +
          KernelFilterWords() + ") clip to 0; --channel-filter NAME=" +
          ChoiceWord(kParamFilter, kFilterBiLinear) + " keeps them");
  }
  frame.times.read = SecondsSince(frame.started);
  return frame;
}

RenderedFrame FrameRenderer::Render(ReadFrame frame, Notes& notes, BufferPool& pool,
                                    const std::function<void(int64_t, int64_t)>& rowProgress) {
  const FramePlan& plan = frame.plan;
  if (!session_ || !SameParamValues(params_, plan.params)) {
    if (session_) session_->Finish();
    session_.reset();
    session_ = std::make_unique<EffectSession>(*job_.module, plan.params, job_.threads);
    params_ = plan.params;
  }
  session_->SetRowProgress(rowProgress);
  RenderedFrame out;
  out.times = frame.times;
  Clock::time_point mark = Clock::now();
  // Written as half: kept as half from the render on, so that the writer converts nothing.
  const OutputPlan& o = plan.outPlan;
  const bool halfOut = plan.stretch == 1 && o.format == "openexr" &&
                       AllChannelsAre(o.type, o.channelTypes, OIIO::TypeDesc::HALF);
  out.result = NewOutputBuffer(frame.input, plan.layout, plan.window, pool.Take(plan.bufferBytes),
                               halfOut);
  out.passes = static_cast<int>(plan.passes.size());
  for (int pass = 0; pass < out.passes; ++pass) {
    const Pass& p = plan.passes[static_cast<size_t>(pass)];
    layer_ = PassLayer(frame.pixels, p, plan.dataRect.left, plan.dataRect.top, plan.layerRect,
                       std::move(layer_));
    out.times.toLayer += SecondsSince(mark);
    mark = Clock::now();
    hostsim::ParamValues params = plan.params;
    params.filter = p.filter;
    session_->SetParams(params);
    session_->SetInputLayer(layer_.get());
    session_->PreRender(plan.window);
    output_ = session_->Render(std::move(output_));
    out.times.render += SecondsSince(mark);
    if (pass == 0 && !AnyAlpha(output_.get())) {
      notes("warning: the result is fully transparent: no pixel of the input reaches the output" +
            std::string(plan.settings.zoom == 0.0 ? " (--zoom 0)" : ""));
    }
    mark = Clock::now();
    StorePass(frame.input, plan.layout, p, output_.get(), plan.window, &out.result);
    out.times.fromLayer += SecondsSince(mark);
    mark = Clock::now();
  }
  session_->SetInputLayer(nullptr);
  session_->SetRowProgress(nullptr);
  if (plan.stretch != 1) {
    const PF_LRect& d = plan.windows.data;
    out.result = StretchWidth(out.result, d.right - d.left);
    out.times.fromLayer += SecondsSince(mark);
  }
  pool.Give(std::move(frame.pixels.bytes));
  out.files = std::move(frame.files);
  out.started = frame.started;
  out.input = std::move(frame.input);
  out.plan = std::move(frame.plan);
  out.temp = std::move(frame.temp);
  return out;
}

void FrameRenderer::Finish() {
  if (session_) session_->Finish();
  session_.reset();
}

StageTimes WriteFrame(const RenderJob& job, RenderedFrame frame, Notes& notes, BufferPool& pool,
                      std::ostream& out) {
  const Clock::time_point writeStart = Clock::now();
  const FramePlan& plan = frame.plan;
  std::vector<std::string> written = plan.outPlan.notes;
  WriteOutput(frame.temp->path(), frame.files.output, frame.input, plan.layout, plan.outPlan,
              plan.windows, frame.result, plan.header, job.verbose ? &written : nullptr);
  frame.temp->Commit();
  pool.Give(std::move(frame.result.bytes));
  frame.times.write = SecondsSince(writeStart);
  for (const std::string& n : plan.outPlan.notes) notes("note: " + n);
  if (!job.verbose || job.quiet) return frame.times;
  const double seconds = std::chrono::duration<double>(Clock::now() - frame.started).count();
  char time[32];
  std::snprintf(time, sizeof time, "%.2f s", seconds);
  const InputImage& input = frame.input;
  std::vector<std::string> inNames;
  for (int c = 0; c < input.channels; ++c) inNames.emplace_back(input.spec.channel_name(c));
  out << "read  " << frame.files.input << ": data " << SizeText(input.dataWindow) << ", display "
      << SizeText(input.displayWindow) << ", " << ChannelText(inNames, input.alphaIndex) << ", "
      << SampleTypesText(input.spec.format, input.spec.channelformats, inNames) << " "
      << input.format << "\n";
  out << "wrote " << frame.files.output << ": data " << SizeText(plan.windows.data)
      << ", display " << SizeText(plan.windows.display) << ", "
      << ChannelText(plan.layout.names, plan.layout.alphaIndex) << ", "
      << SampleTypesText(plan.outPlan.type, plan.outPlan.channelTypes, plan.layout.names) << " "
      << plan.outPlan.format << "; " << plan.lensText << ", " << frame.passes
      << (frame.passes == 1 ? " pass, " : " passes, ") << time << "\n";
  out << "  filters: " << plan.filtersText << "\n";
  for (size_t i = plan.outPlan.notes.size(); i < written.size(); ++i) {
    out << "  " << written[i] << "\n";
  }
  out << "  times: " << StageTimesText(frame.times) << "\n";
  return frame.times;
}

}  // namespace veltrisca
