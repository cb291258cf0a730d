// The iterate suites: coverage of the area, coordinates, pixels handed over, errors, threads.
#include <atomic>
#include <chrono>
#include <mutex>
#include <set>
#include <system_error>
#include <thread>

#include "FakeEffect.h"
#include "hostsim/ThreadPool.h"

using namespace hostsim_test;

namespace {

struct Visits {
  explicit Visits(PF_InData* i) : in(i) {}
  PF_InData* in;
  std::atomic<int> wrongSource{0};
  std::atomic<int> withoutSource{0};
  std::mutex m;
  std::set<std::thread::id> threads;  // that ran rows
};

// Counts the visit in the destination pixel's blue channel; the source pixel holds its own x in
// alpha and y in red. Each visit also makes a host call without an effect reference.
PF_Err CountVisit(void* refcon, A_long x, A_long y, PF_Pixel* in, PF_Pixel* out) {
  auto* v = static_cast<Visits*>(refcon);
  ++out->blue;
  if (in && (in->alpha != x || in->red != y)) ++v->wrongSource;
  if (!in) ++v->withoutSource;
  v->in->utils->get_pixel_data8(nullptr, nullptr, nullptr);
  std::lock_guard<std::mutex> lock(v->m);
  v->threads.insert(std::this_thread::get_id());
  return PF_Err_NONE;
}

struct IterateTest : HostTest {
  // Calls the iterate suite of the depth from inside a command, as the effect's render does.
  template <typename Suite, typename Fn>
  PF_Err Iterate(const char* suiteName, World* src, World* dst, const PF_Rect* area, void* refcon,
                 Fn fn) {
    PF_Err result = -1;
    During([&](PF_InData* in) {
      result = Acquire<Suite>(in, suiteName)
                   ->iterate(in, 0, dst->height(), src ? src->effectWorld() : nullptr, area, refcon,
                             fn, dst->effectWorld());
    });
    return result;
  }
  PF_Err Iterate8(World* src, World* dst, const PF_Rect* area, void* refcon,
                  PF_Err (*fn)(void*, A_long, A_long, PF_Pixel*, PF_Pixel*) = CountVisit) {
    return Iterate<PF_Iterate8Suite1>("PF Iterate8 Suite", src, dst, area, refcon, fn);
  }
};

}  // namespace

// A source smaller than the destination: pixels beyond it are handed over without one.
TEST_F(IterateTest, VisitsEveryPixelOfTheClippedAreaOnceWhateverTheThreadCount) {
  const int srcWidth = 11, srcHeight = 30;
  World src(Depth::k8, srcWidth, srcHeight);
  World dst(Depth::k8, 13, 37, 5, 6, 12);  // origin, padding: no matter
  for (int i = 0; i < srcWidth * srcHeight; ++i) {
    *src.Pixel8(i % srcWidth, i / srcWidth) =
        PF_Pixel{A_u_char(i % srcWidth), A_u_char(i / srcWidth), 0, 0};
  }
  // Areas reaching past the buffer, and what of them lies inside.
  const std::pair<PF_Rect, PF_Rect> areas[] = {{{-4, 3, 11, 100}, {0, 3, 11, 37}},
                                               {{2, -5, 20, 35}, {2, 0, 13, 35}}};
  Host newer(FakeEntry);  // calls without an effect reference must reach the iterating host
  int visits = 0;
  for (int threads : {1, 2, 3, 8}) {
    SCOPED_TRACE(threads);
    const auto& [a, in] = areas[threads % 2];
    host.threads = threads;
    dst.FillBytes(0);
    Visits v(&host.inData());
    EXPECT_EQ(Iterate8(&src, &dst, &a, &v), 0);
    int beyondSource = 0;
    for (int i = 0; i < 13 * 37; ++i) {
      const int x = i % 13, y = i / 13;
      const bool inside = x >= in.left && x < in.right && y >= in.top && y < in.bottom;
      ASSERT_EQ(dst.Get(x, y, 3), inside ? 1 : 0) << x << "," << y;
      beyondSource += inside && (x >= srcWidth || y >= srcHeight);
    }
    visits += (in.right - in.left) * (in.bottom - in.top);
    EXPECT_EQ(v.wrongSource.load(), 0);
    EXPECT_EQ(v.withoutSource.load(), beyondSource);
    std::vector<int> rows;
    for (int y = in.top; y < in.bottom; ++y) rows.push_back(y);
    EXPECT_EQ(host.iteratedRows(), rows);
    EXPECT_EQ(host.lastIterate().threadsUsed, static_cast<int>(v.threads.size()));
  }
  EXPECT_EQ(host.CallCount(HostCall::GetPixelData), visits);
  EXPECT_EQ(newer.CallCount(HostCall::GetPixelData), 0);
}

// Threads that found every row taken do not count as used. With one row per thread the caller
// usually takes them all before the others wake; over several calls that shows.
TEST_F(IterateTest, CountsOnlyThreadsThatRanARow) {
  host.threads = 4;
  World dst(Depth::k8, 1, 4);
  for (int i = 0; i < 10; ++i) {
    Visits v(&host.inData());
    ASSERT_EQ(Iterate8(nullptr, &dst, nullptr, &v), 0);
    ASSERT_EQ(host.lastIterate().threadsUsed, static_cast<int>(v.threads.size())) << i;
  }
}

namespace {
PF_Err FailAt3x5(void* refcon, A_long x, A_long y, PF_PixelFloat*, PF_PixelFloat*) {
  ++*static_cast<std::atomic<int>*>(refcon);
  return x == 3 && y == 5 ? 42 : PF_Err_NONE;
}

// Every row waits until three rows are running at once (or gives up after a while).
PF_Err MeetOthers(void* refcon, A_long, A_long, PF_Pixel*, PF_Pixel*) {
  auto* arrived = static_cast<std::atomic<int>*>(refcon);
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  for (++*arrived; *arrived < 3 && std::chrono::steady_clock::now() < end;)
    std::this_thread::yield();
  return *arrived >= 3 ? PF_Err_NONE : 1;
}
}  // namespace

// With several threads the error comes back too: tests/host.
TEST_F(IterateTest, StopsAtTheCallbacksErrorAndReturnsIt) {
  host.threads = 1;
  World dst(Depth::kFloat, 7, 10);
  std::atomic<int> calls{0};
  EXPECT_EQ(Iterate<PF_iterateFloatSuite1>("PF iterateFloat Suite", nullptr, &dst, nullptr, &calls,
                                           FailAt3x5),
            42);
  EXPECT_EQ(calls.load(), 5 * 7 + 4);  // nothing after the failing pixel
  EXPECT_EQ(host.iteratedRows(), (std::vector<int>{0, 1, 2, 3, 4, 5}));
}

TEST_F(IterateTest, RunsRowsAtTheSameTimeOnSeveralThreads) {
  host.threads = 3;
  World dst(Depth::k8, 1, 3);
  std::atomic<int> arrived{0};
  EXPECT_EQ(Iterate8(nullptr, &dst, nullptr, &arrived, MeetOthers), 0)
      << "the three rows never ran together";
  EXPECT_EQ(host.lastIterate().threadsUsed, 3);
}

// An iterate called from inside another (the effect's row threads calling the suite) runs
// on the calling thread alone instead of waiting for the pool it is part of.
TEST(ThreadPool, ARunInsideAJobStaysOnItsThread) {
  hostsim::ThreadPool pool(1);
  std::atomic<int> inner{0};
  pool.Run(2, [&] {
    const std::thread::id self = std::this_thread::get_id();
    pool.Run(2, [&] {
      EXPECT_EQ(std::this_thread::get_id(), self);
      ++inner;
    });
  });
  EXPECT_EQ(inner.load(), 2);
}

TEST_F(IterateTest, RefusesMismatchedDepthsAndInjectedFailuresWithoutCalling) {
  World dst8(Depth::k8, 4, 4);
  Visits v(&host.inData());
  auto never = [](void*, A_long, A_long, PF_Pixel16*, PF_Pixel16*) -> PF_Err { return 1; };
  EXPECT_EQ(
      Iterate<PF_iterate16Suite1>("PF iterate16 Suite", nullptr, &dst8, nullptr, nullptr, +never),
      PF_Err_BAD_CALLBACK_PARAM);
  host.FailCall(HostCall::Iterate, 1, 33);
  EXPECT_EQ(Iterate8(nullptr, &dst8, nullptr, &v), 33);
  EXPECT_TRUE(v.threads.empty());
  EXPECT_TRUE(host.iteratedRows().empty());
}

// A thread the system refuses (a process limit), however many started before it: the pool
// stops those and the iterate fails without calling the effect; the next one gets its threads.
TEST_F(IterateTest, AThreadTheSystemRefusesFailsTheIterateAndNothingElse) {
  World dst(Depth::k8, 2, 8);
  host.threads = 8;
  for (int started : {0, 1, 6}) {
    Visits v(&host.inData());
    hostsim::FailThreadStartsAfter(started);
    EXPECT_EQ(Iterate8(nullptr, &dst, nullptr, &v), PF_Err_OUT_OF_MEMORY) << started;
    EXPECT_THROW(host.StartThreads(), std::system_error) << started;
    hostsim::FailThreadStartsAfter(-1);
    EXPECT_TRUE(v.threads.empty()) << started;
  }
  Visits v(&host.inData());
  EXPECT_EQ(Iterate8(nullptr, &dst, nullptr, &v), 0);
}
