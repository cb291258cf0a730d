#include "cli/shared/Signals.h"

#include <unistd.h>

#include <csignal>
#include <cstring>
#include <mutex>

namespace veltrisca {

namespace {

// The temporary files being written. A sequence has up to three at once (the frame being read,
// rendered and written).
constexpr int kPendingSlots = 8;
char pending_path[kPendingSlots][4096];
volatile sig_atomic_t have_pending[kPendingSlots] = {};
std::mutex pending_mutex;

extern "C" void RemovePendingAndDie(int sig) {
  for (int i = 0; i < kPendingSlots; ++i) {
    if (have_pending[i]) unlink(pending_path[i]);
  }
  std::signal(sig, SIG_DFL);
  std::raise(sig);
}

}  // namespace

void InstallSignalHandlers() {
  std::signal(SIGPIPE, SIG_IGN);
  std::signal(SIGXFSZ, SIG_IGN);
  for (const int sig : {SIGINT, SIGTERM, SIGHUP}) {
    // A signal ignored by whoever started the tool (nohup) stays ignored.
    if (std::signal(sig, RemovePendingAndDie) == SIG_IGN) std::signal(sig, SIG_IGN);
  }
}

int RemoveOnSignal(const std::string& path) {
  std::lock_guard<std::mutex> lock(pending_mutex);
  if (path.size() >= sizeof pending_path[0]) return -1;
  for (int i = 0; i < kPendingSlots; ++i) {
    if (have_pending[i]) continue;
    std::memcpy(pending_path[i], path.c_str(), path.size() + 1);
    have_pending[i] = 1;
    return i;
  }
  return -1;
}

void KeepOnSignal(int slot) {
  if (slot < 0) return;
  std::lock_guard<std::mutex> lock(pending_mutex);
  have_pending[slot] = 0;
}

}  // namespace veltrisca
