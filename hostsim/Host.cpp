// The substitute host's set-up, its failure injection, and what tests can ask about the calls
// it saw (the commands: Commands.cpp; the callbacks: Callbacks.cpp; the suites: Suites.cpp;
// iterate: Iterate.cpp).
#include "hostsim/Host.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <new>
#include <stdexcept>
#include <thread>

#include "hostsim/HostCallbacks.h"
#include "hostsim/ThreadPool.h"

namespace hostsim {


// --- Construction ---------------------------------------------------------------------
Host::Host(const PluginModule& plugin)
    : entry_(plugin.entry()), description_(&plugin.description()) {
  Init();
}

Host::Host(PF_FilterProc entry, const PluginDescription* description)
    : entry_(entry), description_(description) {
  if (!entry) throw std::invalid_argument("Host needs an entry point");
  Init();
}

void Host::Init() {
  HostCallbacks::FillInteractCallbacks(&in_.inter);
  HostCallbacks::FillUtilCallbacks(&utils_);
  HostCallbacks::FillBasicSuite(&basic_);
  in_.utils = &utils_;
  in_.effect_ref = reinterpret_cast<PF_ProgPtr>(this);
  in_.quality = 1;  // high quality
  in_.version = PF_SpecVersion{PF_PLUG_IN_VERSION, PF_PLUG_IN_SUBVERS};
  in_.appl_id = 0x46585443;  // 'FXTC'
  in_.num_params = 1;        // the input layer, until the effect adds its own
  // Frame 0 of a 24 frames per second composition that is one frame long.
  in_.current_time = 0;
  in_.time_step = 1;
  in_.local_time_step = 1;
  in_.total_time = 1;
  in_.time_scale = 24;
  in_.field = PF_Field_FRAME;
  in_.downsample_x = PF_RationalScale{1, 1};
  in_.downsample_y = PF_RationalScale{1, 1};
  in_.pixel_aspect_ratio = PF_RationalScale{1, 1};
  in_.pica_basicP = &basic_;
  HostCallbacks::Register(this);
}

Host::~Host() {
  try {
    if (in_.sequence_data) SequenceSetdown();
  } catch (...) {
    // A destructor cannot report; the handles are freed below all the same.
  }
  ReleasePreRenderData();
  pool_.reset();
  for (auto& entry : handles_) {
    std::free(*entry.first);
    std::free(entry.first);
  }
  handles_.clear();
  HostCallbacks::Unregister(this);
}

void Host::SetInputLayer(const World* layer) {
  inputLayer_ = layer;
  in_.width = layer ? layer->width() : 0;
  in_.height = layer ? layer->height() : 0;
  in_.extent_hint = layer ? PF_Rect{0, 0, layer->width(), layer->height()} : PF_Rect{};
}

void Host::OverrideSuppliedRect(const PF_LRect& rect) {
  haveSuppliedOverride_ = true;
  suppliedOverride_ = rect;
}

void Host::OverrideInputPixelFormat(PF_PixelFormat format) {
  haveFormatOverride_ = true;
  formatOverride_ = format;
}

// --- Failure injection ----------------------------------------------------------------
void Host::FailCall(HostCall call, int nth, PF_Err err) {
  std::lock_guard<std::mutex> lock(mutex_);
  failures_[call] = {nth < 1 ? 1 : nth, err};
  failuresArmed_.store(static_cast<int>(failures_.size()));
}

void Host::RemoveSuite(const std::string& name) {
  std::lock_guard<std::mutex> lock(mutex_);
  removedSuites_.insert(name);
}

bool Host::ShouldFail(HostCall call, PF_Err* err) {
  if (failuresArmed_.load() == 0) return false;  // the common case, without a lock
  std::lock_guard<std::mutex> lock(mutex_);
  auto it = failures_.find(call);
  if (it == failures_.end() || --it->second.first > 0) return false;
  *err = it->second.second;
  failures_.erase(it);
  failuresArmed_.store(static_cast<int>(failures_.size()));
  return true;
}

int Host::ThreadCount() const {
  return threads > 0 ? threads : std::max(1, static_cast<int>(std::thread::hardware_concurrency()));
}

void Host::StartThreads() {
  std::lock_guard<std::mutex> poolLock(poolMutex_);
  if (ThreadCount() > 1) Pool(ThreadCount());
}

ThreadPool& Host::Pool(int participants) {
  if (!pool_ || pool_->workers() < participants - 1) {
    pool_.reset();
    pool_ = std::make_unique<ThreadPool>(participants - 1);
  }
  return *pool_;
}

// --- What the host saw ----------------------------------------------------------------
void* Host::SequenceBlock() const { return in_.sequence_data ? *in_.sequence_data : nullptr; }

int Host::CallCount(HostCall call) const {
  return callCounts_[static_cast<size_t>(call)].load();
}

int Host::AcquireCount(const std::string& suite, int32_t version) const {
  std::lock_guard<std::mutex> lock(mutex_);
  int n = 0;
  for (const auto& e : acquires_) {
    if (e.first.first == suite && (version == -1 || e.first.second == version)) n += e.second;
  }
  return n;
}

int Host::ReleaseCount(const std::string& suite, int32_t version) const {
  std::lock_guard<std::mutex> lock(mutex_);
  int n = 0;
  for (const auto& e : releases_) {
    if (e.first.first == suite && (version == -1 || e.first.second == version)) n += e.second;
  }
  return n;
}

bool Host::AllSuitesReleased() const {
  std::lock_guard<std::mutex> lock(mutex_);
  auto count = [](const std::map<std::pair<std::string, int32_t>, int>& m,
                  const std::pair<std::string, int32_t>& key) {
    auto it = m.find(key);
    return it == m.end() ? 0 : it->second;
  };
  for (const auto& e : acquires_) {
    if (count(releases_, e.first) != e.second) return false;
  }
  return true;
}

std::vector<SuiteEvent> Host::suiteEvents() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return suiteEvents_;
}

std::vector<int> Host::iteratedRows() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return iteratedRows_;
}

IterateRecord Host::lastIterate() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return lastIterate_;
}

std::vector<ParamCheckout> Host::paramCheckouts() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return paramCheckouts_;
}

std::vector<std::pair<PF_Fixed, PF_Fixed>> Host::subpixelPositions() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return subpixelPositions_;
}

int Host::LiveHandleCount() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return static_cast<int>(handles_.size());
}

int Host::BadDisposeCount() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return badDisposals_;
}

}  // namespace hostsim
