// The iterate suites: coverage of the area, coordinates, pixels handed over, errors, threads.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>

#include "FakeEffect.h"

using hostsim::Depth;
using hostsim::Host;
using hostsim::HostCall;
using hostsim::World;
using hostsim_test::Acquire;
using hostsim_test::FakeEntry;
using hostsim_test::ScopedEffect;

namespace {

struct Visits {
  World* dst;
  World* src;
  std::vector<std::atomic<int>> count;
  std::atomic<int> wrongPointers{0};
  Visits(World* d, World* s) : dst(d), src(s), count(static_cast<size_t>(d->width() * d->height())) {}
};

template <typename Pixel>
PF_Err CountVisit(void* refcon, A_long x, A_long y, Pixel* in, Pixel* out) {
  auto* v = static_cast<Visits*>(refcon);
  ++v->count[static_cast<size_t>(y * v->dst->width() + x)];
  Pixel* expectedOut = reinterpret_cast<Pixel*>(v->dst->Row(y)) + x;
  Pixel* expectedIn = v->src ? reinterpret_cast<Pixel*>(v->src->Row(y)) + x : nullptr;
  if (out != expectedOut || in != expectedIn) ++v->wrongPointers;
  return PF_Err_NONE;
}

// Calls the iterate suite of the depth from inside a command, as the effect's render does.
template <typename Suite, typename Fn>
PF_Err IterateFromEffect(Host& host, const char* suiteName, World* src, World* dst,
                         const PF_Rect* area, void* refcon, Fn fn) {
  PF_Err result = -1;
  ScopedEffect effect([&](PF_Cmd, PF_InData* in, PF_OutData*, void*) {
    auto* suite = Acquire<Suite>(in, suiteName, 1);
    if (!suite) return PF_Err_BAD_CALLBACK_PARAM;
    result = suite->iterate(in, 0, dst->height(), src ? src->effectWorld() : nullptr, area,
                            refcon, fn, dst->effectWorld());
    in->pica_basicP->ReleaseSuite(suiteName, 1);
    return PF_Err_NONE;
  });
  host.Send(PF_Cmd_COMPLETELY_GENERAL);
  return result;
}

}  // namespace

TEST(Iterate, VisitsEveryPixelOfTheAreaExactlyOnceWhateverTheThreadCount) {
  for (int threads : {1, 2, 3, 8}) {
    Host host(FakeEntry);
    host.threads = threads;
    World dst(Depth::k8, 13, 37, 5, 6, 12);  // origin and padding must not matter
    Visits v(&dst, nullptr);
    const PF_Rect area{2, 3, 11, 35};
    EXPECT_EQ(IterateFromEffect<PF_Iterate8Suite1>(host, "PF Iterate8 Suite", nullptr, &dst,
                                                   &area, &v, CountVisit<PF_Pixel>),
              0);
    for (int y = 0; y < dst.height(); ++y) {
      for (int x = 0; x < dst.width(); ++x) {
        const bool inside = x >= 2 && x < 11 && y >= 3 && y < 35;
        ASSERT_EQ(v.count[static_cast<size_t>(y * 13 + x)].load(), inside ? 1 : 0)
            << x << "," << y << " with " << threads << " threads";
      }
    }
    EXPECT_EQ(v.wrongPointers.load(), 0);
    std::vector<int> rows;
    for (int y = 3; y < 35; ++y) rows.push_back(y);
    EXPECT_EQ(host.iteratedRows(), rows);
    const hostsim::IterateRecord rec = host.lastIterate();
    EXPECT_EQ(rec.depthBits, 8);
    EXPECT_EQ(rec.progressFinal, 37);
    EXPECT_FALSE(rec.hadSource);
    EXPECT_LE(rec.threadsUsed, threads);
  }
}

TEST(Iterate, HandsOverTheSourcePixelAtTheSamePositionAndClipsTheArea) {
  Host host(FakeEntry);
  host.threads = 3;
  World src(Depth::k16, 6, 5), dst(Depth::k16, 6, 5, 0, 0, 8);
  Visits v(&dst, &src);
  const PF_Rect area{-4, 2, 100, 100};  // larger than the buffer: only its inside is visited
  EXPECT_EQ(IterateFromEffect<PF_iterate16Suite1>(host, "PF iterate16 Suite", &src, &dst, &area,
                                                  &v, CountVisit<PF_Pixel16>),
            0);
  int visited = 0;
  for (auto& c : v.count) visited += c.load();
  EXPECT_EQ(visited, 6 * 3);
  EXPECT_EQ(v.wrongPointers.load(), 0);
  EXPECT_TRUE(host.lastIterate().hadSource);
}

namespace {
struct FailAt {
  A_long x, y;
  PF_Err err;
  std::atomic<int> calls{0};
  std::atomic<int> callsAfter{0};  // calls for pixels after the failing one
};

PF_Err FailingVisit(void* refcon, A_long x, A_long y, PF_PixelFloat*, PF_PixelFloat*) {
  auto* f = static_cast<FailAt*>(refcon);
  ++f->calls;
  if (y > f->y || (y == f->y && x > f->x)) ++f->callsAfter;
  return (x == f->x && y == f->y) ? f->err : PF_Err_NONE;
}
}  // namespace

TEST(Iterate, ReturnsTheCallbacksErrorAndStopsThere) {
  Host host(FakeEntry);
  host.threads = 1;
  World dst(Depth::kFloat, 7, 10);
  FailAt fail{3, 5, 42};
  EXPECT_EQ(IterateFromEffect<PF_iterateFloatSuite1>(host, "PF iterateFloat Suite", nullptr,
                                                     &dst, nullptr, &fail, FailingVisit),
            42);
  EXPECT_EQ(fail.calls.load(), 5 * 7 + 4);
  EXPECT_EQ(fail.callsAfter.load(), 0);
  EXPECT_EQ(host.iteratedRows(), (std::vector<int>{0, 1, 2, 3, 4, 5}));

  host.threads = 4;  // with several threads the error still comes back
  FailAt fail2{0, 0, 43};
  EXPECT_EQ(IterateFromEffect<PF_iterateFloatSuite1>(host, "PF iterateFloat Suite", nullptr,
                                                     &dst, nullptr, &fail2, FailingVisit),
            43);
  EXPECT_EQ(host.lastIterate().result, 43);
}

namespace {
// Every row waits until `expected` rows are running at once (or gives up after a while).
struct Rendezvous {
  explicit Rendezvous(int n) : expected(n) {}
  int expected;
  int arrived = 0;
  bool allMet = true;
  std::mutex m;
  std::condition_variable cv;
};

PF_Err MeetOthers(void* refcon, A_long, A_long, PF_Pixel*, PF_Pixel*) {
  auto* r = static_cast<Rendezvous*>(refcon);
  std::unique_lock<std::mutex> lock(r->m);
  ++r->arrived;
  r->cv.notify_all();
  if (!r->cv.wait_for(lock, std::chrono::seconds(20), [r] { return r->arrived >= r->expected; })) {
    r->allMet = false;
  }
  return PF_Err_NONE;
}
}  // namespace

TEST(Iterate, RunsRowsAtTheSameTimeOnSeveralThreads) {
  Host host(FakeEntry);
  host.threads = 3;
  World dst(Depth::k8, 1, 3);
  Rendezvous r(3);
  EXPECT_EQ(IterateFromEffect<PF_Iterate8Suite1>(host, "PF Iterate8 Suite", nullptr, &dst,
                                                 nullptr, &r, MeetOthers),
            0);
  EXPECT_TRUE(r.allMet) << "the three rows never ran together";
  EXPECT_EQ(host.lastIterate().threadsUsed, 3);
}

TEST(Iterate, RefusesMismatchedDepthsAndInjectedFailuresWithoutCalling) {
  Host host(FakeEntry);
  World dst8(Depth::k8, 4, 4);
  Visits v(&dst8, nullptr);
  EXPECT_EQ(IterateFromEffect<PF_iterate16Suite1>(host, "PF iterate16 Suite", nullptr, &dst8,
                                                  nullptr, &v, CountVisit<PF_Pixel16>),
            PF_Err_BAD_CALLBACK_PARAM);
  host.FailCall(HostCall::Iterate, 1, 33);
  EXPECT_EQ(IterateFromEffect<PF_Iterate8Suite1>(host, "PF Iterate8 Suite", nullptr, &dst8,
                                                 nullptr, &v, CountVisit<PF_Pixel>),
            33);
  int visited = 0;
  for (auto& c : v.count) visited += c.load();
  EXPECT_EQ(visited, 0);
  EXPECT_TRUE(host.iteratedRows().empty());
}

namespace {
struct HostCalls {
  PF_InData* in;
  std::atomic<int> failures{0};
};
PF_Err AskPixelData(void* refcon, A_long, A_long, PF_Pixel*, PF_Pixel* out) {
  auto* h = static_cast<HostCalls*>(refcon);
  PF_Pixel8* first = nullptr;
  static World probe(Depth::k8, 1, 1);
  if (h->in->utils->get_pixel_data8(probe.effectWorld(), nullptr, &first) != 0) ++h->failures;
  out->alpha = 1;
  return PF_Err_NONE;
}
}  // namespace

TEST(Iterate, CallsWithoutAnEffectReferenceReachTheIteratingHostOnEveryThread) {
  Host host(FakeEntry);
  host.threads = 4;
  World dst(Depth::k8, 1, 40);
  HostCalls calls{&host.inData()};
  Host newer(FakeEntry);  // the newest host must not receive calls made during host's iterate
  EXPECT_EQ(IterateFromEffect<PF_Iterate8Suite1>(host, "PF Iterate8 Suite", nullptr, &dst,
                                                 nullptr, &calls, AskPixelData),
            0);
  EXPECT_EQ(calls.failures.load(), 0);
  EXPECT_EQ(host.CallCount(HostCall::GetPixelData), 40);
  EXPECT_EQ(newer.CallCount(HostCall::GetPixelData), 0);
}
