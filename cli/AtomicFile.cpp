#include "AtomicFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <mutex>
#include <vector>

#include "CliError.h"

namespace veltrisca {

namespace {

// The temporary files being written, for the signal handler: an interrupted run must not
// leave them behind either. A sequence has up to three at once (the frame being read, rendered
// and written); a file that finds no free slot is still removed on every other way out.
constexpr int kPendingSlots = 8;
char pending_temp_path[kPendingSlots][4096];
volatile sig_atomic_t have_pending_temp[kPendingSlots] = {};
std::mutex pending_mutex;

extern "C" void RemovePendingTempAndDie(int sig) {
  for (int i = 0; i < kPendingSlots; ++i) {
    if (have_pending_temp[i]) unlink(pending_temp_path[i]);
  }
  std::signal(sig, SIG_DFL);
  std::raise(sig);
}

int SetPending(const std::string& path) {
  std::lock_guard<std::mutex> lock(pending_mutex);
  if (path.size() >= sizeof pending_temp_path[0]) return -1;
  for (int i = 0; i < kPendingSlots; ++i) {
    if (have_pending_temp[i]) continue;
    std::memcpy(pending_temp_path[i], path.c_str(), path.size() + 1);
    have_pending_temp[i] = 1;
    std::signal(SIGINT, RemovePendingTempAndDie);
    std::signal(SIGTERM, RemovePendingTempAndDie);
    std::signal(SIGHUP, RemovePendingTempAndDie);
    return i;
  }
  return -1;
}

void ClearPending(int slot) {
  if (slot < 0) return;
  std::lock_guard<std::mutex> lock(pending_mutex);
  have_pending_temp[slot] = 0;
}

}  // namespace

TempOutputFile::TempOutputFile(const std::string& target) : target_(target) {
  namespace fs = std::filesystem;
  const fs::path t(target);
  if (t.filename().empty()) throw IoError(target + ": not a file name");
  const std::string ext = t.extension().string();
  const fs::path name = "." + t.filename().string() + ".XXXXXX" + ext;
  std::string templ = (t.parent_path() / name).string();
  std::vector<char> buffer(templ.begin(), templ.end());
  buffer.push_back('\0');
  const int fd = mkstemps(buffer.data(), static_cast<int>(ext.size()));
  if (fd < 0) {
    throw IoError("cannot create a file beside " + target + ": " + std::strerror(errno));
  }
  // mkstemps makes the file private (0600); give it the permissions a new file would get.
  const mode_t mask = umask(0);
  umask(mask);
  fchmod(fd, 0666 & ~mask);
  close(fd);
  path_ = buffer.data();
  slot_ = SetPending(path_);
}

TempOutputFile::~TempOutputFile() {
  if (committed_) return;
  ClearPending(slot_);
  unlink(path_.c_str());
}

void TempOutputFile::Commit() {
  // A file system may report a lost write (no space left, an I/O error) only when the data
  // reaches the disk; it must not be renamed over the target before that is known.
  const int fd = open(path_.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0 || (fsync(fd) != 0 && errno != EINVAL && errno != EROFS)) {
    const int why = errno;
    if (fd >= 0) close(fd);
    throw IoError("cannot write " + target_ + ": " + std::strerror(why));
  }
  close(fd);
  if (std::rename(path_.c_str(), target_.c_str()) != 0) {
    const int why = errno;
    throw IoError("cannot move the finished file to " + target_ + ": " + std::strerror(why));
  }
  committed_ = true;
  ClearPending(slot_);
}

bool SameFile(const std::string& a, const std::string& b) {
  struct stat sa {}, sb {};
  if (stat(a.c_str(), &sa) == 0 && stat(b.c_str(), &sb) == 0) {
    return sa.st_dev == sb.st_dev && sa.st_ino == sb.st_ino;
  }
  std::error_code ec;
  const auto na = std::filesystem::weakly_canonical(a, ec);
  if (ec) return a == b;
  const auto nb = std::filesystem::weakly_canonical(b, ec);
  if (ec) return a == b;
  return na == nb;
}

}  // namespace veltrisca
