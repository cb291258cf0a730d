// The host's iterate suites: the area is checked against the destination, then every row of
// it is passed to the effect's callback, pixel by pixel, on the host's threads.
#include "hostsim/HostCallbacks.h"

#include <algorithm>
#include <atomic>
#include <system_error>
#include <thread>

#include "hostsim/ThreadPool.h"

namespace hostsim {

namespace {

// This thread's share of an iterate of `host`: sampler calls are tallied until it ends.
class TallyScope {
 public:
  explicit TallyScope(Host* host) : previous_(subpixel_tally) { subpixel_tally = {host, 0}; }
  ~TallyScope() {
    if (subpixel_tally.calls > 0) {
      HostCallbacks::AddSubpixelCalls(subpixel_tally.host, subpixel_tally.calls);
    }
    subpixel_tally = previous_;
  }
  TallyScope(const TallyScope&) = delete;
  TallyScope& operator=(const TallyScope&) = delete;

 private:
  SubpixelTally previous_;
};

// The host an iterate call belongs to: its effect reference's, else this thread's.
Host* IterateHost(const PF_InData* in_data) {
  Host* host = in_data ? HostCallbacks::FromRef(in_data->effect_ref) : nullptr;
  return host ? host : HostCallbacks::Current();
}

// The call as the host's books keep it; the area defaults to the whole destination.
IterateRecord RecordOf(int depthBits, A_long progressBase, A_long progressFinal,
                       const PF_EffectWorld* src, const PF_Rect* area, void* refcon,
                       PF_EffectWorld* dst) {
  IterateRecord record;
  record.depthBits = depthBits;
  record.progressBase = progressBase;
  record.progressFinal = progressFinal;
  record.hadSource = src != nullptr;
  record.refcon = refcon;
  record.destination = dst;
  if (area) record.area = *area;
  else if (dst) record.area = PF_Rect{0, 0, dst->width, dst->height};
  return record;
}

// The destination and source must be worlds of the suite's depth.
bool WorldsFit(int depthBits, const PF_EffectWorld* src, const PF_EffectWorld* dst) {
  const PF_PixelFormat format = PixelFormatOf(static_cast<Depth>(depthBits));
  return dst && dst->data && PixelFormatOfWorld(*dst) == format &&
         (!src || PixelFormatOfWorld(*src) == format);
}

// The area in the destination's buffer coordinates, kept inside the buffer.
PF_Rect ClippedArea(const PF_Rect& area, const PF_EffectWorld& dst) {
  PF_Rect clipped = area;
  IntersectRect(clipped, PF_Rect{0, 0, dst.width, dst.height});
  return clipped;
}

// How many threads share the rows: the host's setting (all processors when 0), at most one
// per row.
int Participants(const Host& host, A_long rows) {
  return static_cast<int>(std::min<int64_t>(host.ThreadCount(), rows));
}

template <typename Pixel>
Pixel* RowOf(const PF_EffectWorld& world, A_long y) {
  return reinterpret_cast<Pixel*>(static_cast<uint8_t*>(world.data) +
                                  static_cast<int64_t>(y) * world.rowbytes);
}

// The callback for every pixel of row y within [left, right); the first error, else 0.
template <typename Pixel>
PF_Err IterateRow(PF_Err (*pixFn)(void*, A_long, A_long, Pixel*, Pixel*), void* refcon,
                  const PF_EffectWorld* src, const PF_EffectWorld& dst, A_long left,
                  A_long right, A_long y) {
  Pixel* outRow = RowOf<Pixel>(dst, y);
  Pixel* inRow = (src && src->data && y < src->height) ? RowOf<Pixel>(*src, y) : nullptr;
  for (A_long x = left; x < right; ++x) {
    Pixel* in = (inRow && x < src->width) ? inRow + x : nullptr;
    const PF_Err err = pixFn(refcon, x, y, in, outRow + x);
    if (err != PF_Err_NONE) return err;
  }
  return PF_Err_NONE;
}

}  // namespace

void HostCallbacks::FinishIterate(Host* host, IterateRecord record, std::vector<int> rows) {
  std::sort(rows.begin(), rows.end());
  std::lock_guard<std::mutex> lock(host->mutex_);
  host->lastIterate_ = record;
  host->iteratedRows_ = std::move(rows);
}

template <typename Pixel>
PF_Err HostCallbacks::Iterate(int depthBits, PF_InData* in_data, A_long progress_base,
                              A_long progress_final, PF_EffectWorld* src, const PF_Rect* area,
                              void* refcon,
                              PF_Err (*pix_fn)(void*, A_long, A_long, Pixel*, Pixel*),
                              PF_EffectWorld* dst) {
  Host* host = IterateHost(in_data);
  if (!host) return PF_Err_BAD_CALLBACK_PARAM;
  Count(host, HostCall::Iterate);
  IterateRecord record =
      RecordOf(depthBits, progress_base, progress_final, src, area, refcon, dst);
  auto finish = [&](PF_Err err, std::vector<int> rows, int threadsUsed) {
    record.result = err;
    record.threadsUsed = threadsUsed;
    FinishIterate(host, record, std::move(rows));
    return err;
  };

  PF_Err err = 0;
  if (ShouldFail(host, HostCall::Iterate, &err)) return finish(err, {}, 0);
  if (!pix_fn || !WorldsFit(depthBits, src, dst)) {
    return finish(PF_Err_BAD_CALLBACK_PARAM, {}, 0);
  }
  const PF_Rect clipped = ClippedArea(record.area, *dst);
  if (IsEmptyRect(&clipped)) return finish(PF_Err_NONE, {}, 0);

  // Nothing is allocated per row; the rows passed to the callback are marked for the books.
  const A_long top = clipped.top;
  std::vector<uint8_t> visited(static_cast<size_t>(clipped.bottom - top), 0);
  std::atomic<PF_Err> firstError{PF_Err_NONE};
  std::atomic<int64_t> rowsDone{0};
  const int64_t rowCount = clipped.bottom - top;
  auto row = [&](int64_t y) {
    visited[static_cast<size_t>(y - top)] = 1;
    const PF_Err e = IterateRow(pix_fn, refcon, src, *dst, clipped.left, clipped.right,
                                static_cast<A_long>(y));
    if (e == PF_Err_NONE) {
      if (host->rowProgress) host->rowProgress(rowsDone.fetch_add(1) + 1, rowCount);
      return true;
    }
    PF_Err none = PF_Err_NONE;
    firstError.compare_exchange_strong(none, e);
    return false;
  };
  auto perThread = [host](auto&& work) {
    Scope scope(host);
    TallyScope tally(host);
    work();
  };

  const int participants = Participants(*host, clipped.bottom - top);
  int threadsUsed = 0;
  if (ThreadPool::OnWorker() || participants <= 1) {
    // An iterate inside an iterate row, or nothing to share: this thread alone.
    threadsUsed = ParallelRows(nullptr, 1, top, clipped.bottom, perThread, row);
  } else {
    std::lock_guard<std::mutex> poolLock(host->poolMutex_);
    ThreadPool* pool = nullptr;
    try {
      pool = &host->Pool(participants);
    } catch (const std::system_error&) {
      // The system refused a thread (a process or thread limit): no exception may cross into
      // the effect, so the host reports the resources it could not get.
      return finish(PF_Err_OUT_OF_MEMORY, {}, 0);
    }
    threadsUsed = ParallelRows(pool, participants, top, clipped.bottom, perThread, row);
  }
  std::vector<int> rows;
  for (A_long y = top; y < clipped.bottom; ++y) {
    if (visited[static_cast<size_t>(y - top)]) rows.push_back(y);
  }
  return finish(firstError.load(), std::move(rows), threadsUsed);
}

// --- Iteration ------------------------------------------------------------------------
PF_Err Iterate8(PF_InData* in_data, A_long base, A_long final, PF_EffectWorld* src,
                const PF_Rect* area, void* refcon,
                PF_Err (*fn)(void*, A_long, A_long, PF_Pixel*, PF_Pixel*),
                PF_EffectWorld* dst) {
  return HostCallbacks::Iterate<PF_Pixel>(8, in_data, base, final, src, area, refcon, fn, dst);
}
PF_Err Iterate16(PF_InData* in_data, A_long base, A_long final, PF_EffectWorld* src,
                 const PF_Rect* area, void* refcon,
                 PF_Err (*fn)(void*, A_long, A_long, PF_Pixel16*, PF_Pixel16*),
                 PF_EffectWorld* dst) {
  return HostCallbacks::Iterate<PF_Pixel16>(16, in_data, base, final, src, area, refcon, fn,
                                            dst);
}
PF_Err IterateFloat(PF_InData* in_data, A_long base, A_long final, PF_EffectWorld* src,
                    const PF_Rect* area, void* refcon,
                    PF_Err (*fn)(void*, A_long, A_long, PF_PixelFloat*, PF_PixelFloat*),
                    PF_EffectWorld* dst) {
  return HostCallbacks::Iterate<PF_PixelFloat>(32, in_data, base, final, src, area, refcon, fn,
                                               dst);
}


}  // namespace hostsim
