#include "cli/shared/AtomicFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <mutex>
#include <set>
#include <vector>

#include "cli/shared/Errors.h"
#include "cli/shared/Signals.h"

namespace veltrisca {

namespace {

namespace fs = std::filesystem;

// .NAME<kMarker>HOST-PID-XXXXXX<kTempEnd>.EXT
constexpr const char* kMarker = ".veltrisca-";
constexpr const char* kTempEnd = ".tmp";
constexpr size_t kNameMax = 255;  // bytes in a file name (NAME_MAX)

// This machine's name as temporary file names carry it.
const std::string& HostTag() {
  static const std::string tag = [] {
    char name[256] = {};
    if (gethostname(name, sizeof name - 1) != 0 || name[0] == '\0') return std::string("unknown");
    std::string t;
    for (const char* c = name; *c && t.size() < 64; ++c) {
      t += (std::isalnum(static_cast<unsigned char>(*c)) || *c == '-') ? *c : '_';
    }
    return t;
  }();
  return tag;
}

// A write lock on the whole file, owned by this open file description (not by the process, so
// that closing another descriptor of the file, as the image writers do, keeps it). False, at
// once, when another holds one (errno EAGAIN or EACCES) or the file system has no locks. Never
// waits: a lock server that does not answer must not hang a render.
bool LockFile(int fd) {
  struct flock lock {};
  lock.l_type = F_WRLCK;
  lock.l_whence = SEEK_SET;
  return fcntl(fd, F_OFD_SETLK, &lock) == 0;
}

// True for the name of a temporary file that veltrisca wrote on this machine.
bool IsOwnTemp(const std::string& name) {
  if (name.empty() || name[0] != '.') return false;
  const size_t marker = name.rfind(kMarker);
  if (marker == std::string::npos) return false;
  const std::string rest = name.substr(marker + std::strlen(kMarker));  // HOST-PID-XXXXXX.tmp.EXT
  const size_t dot = rest.find('.');
  if (dot == std::string::npos || rest.compare(dot, std::strlen(kTempEnd), kTempEnd) != 0) {
    return false;
  }
  const size_t end = dot + std::strlen(kTempEnd);
  if (end < rest.size() && rest[end] != '.') return false;
  const std::string fields = rest.substr(0, dot);
  const size_t random = fields.rfind('-');
  if (random == std::string::npos || fields.size() - random != 7) return false;
  const size_t pid = fields.rfind('-', random - 1);
  if (pid == std::string::npos || pid + 1 == random) return false;
  for (size_t i = pid + 1; i < random; ++i) {
    if (!std::isdigit(static_cast<unsigned char>(fields[i]))) return false;
  }
  return fields.compare(0, pid, HostTag()) == 0 && pid == HostTag().size();
}

// Removes the temporary files in `folder` that this machine's veltrisca left when it was
// killed: those no writer holds locked. Once a folder per process.
void RemoveStaleTemps(const fs::path& folder) {
  static std::mutex mutex;
  static std::set<std::string> swept;
  const fs::path dir = folder.empty() ? fs::path(".") : folder;
  {
    std::lock_guard<std::mutex> lock(mutex);
    std::error_code ec;
    const fs::path key = fs::weakly_canonical(dir, ec);
    if (!swept.insert(ec ? dir.string() : key.string()).second) return;
  }
  std::error_code ec;
  for (fs::directory_iterator it(dir, ec), end; !ec && it != end; it.increment(ec)) {
    if (!IsOwnTemp(it->path().filename().string())) continue;
    const std::string path = it->path().string();
    struct stat seen {}, held {};
    if (lstat(path.c_str(), &seen) != 0 || !S_ISREG(seen.st_mode)) continue;
    const int fd = open(path.c_str(), O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) continue;
    // Unlinked while locked: a writer that has just created the file and not yet locked it
    // finds it locked or gone, and makes another.
    if (LockFile(fd) && fstat(fd, &held) == 0 && held.st_nlink > 0 &&
        held.st_dev == seen.st_dev && held.st_ino == seen.st_ino) {
      unlink(path.c_str());
    }
    close(fd);
  }
}

}  // namespace

void CheckOutputTarget(const std::string& target) {
  struct stat st {};
  // Not there yet, or not reachable: creating the temporary file beside it says why.
  if (lstat(target.c_str(), &st) != 0 || S_ISREG(st.st_mode)) return;
  if (S_ISLNK(st.st_mode)) {
    std::error_code ec;
    const fs::path to = fs::read_symlink(target, ec);
    throw IoError(target + " is a symbolic link" + (ec ? "" : " (to " + to.string() + ")") +
                  "; outputs replace regular files only, never a link or what it points to: "
                  "name the file itself");
  }
  throw IoError(target +
                (S_ISDIR(st.st_mode) ? " is a folder" : " is a device, a pipe or a socket") +
                "; outputs replace regular files only");
}

TempOutputFile::TempOutputFile(const std::string& target) : target_(target) {
  const fs::path t(target);
  if (t.filename().empty()) throw IoError(target + ": not a file name");
  CheckOutputTarget(target);
  RemoveStaleTemps(t.parent_path());
  const std::string ext = t.extension().string();
  const std::string tail = kMarker + HostTag() + "-" + std::to_string(getpid()) + "-XXXXXX" +
                           kTempEnd + ext;
  std::string name = t.filename().string();
  const size_t room = kNameMax > tail.size() + 1 ? kNameMax - tail.size() - 1 : 0;
  if (name.size() > room) name.resize(room);
  const std::string templ = (t.parent_path() / ("." + name + tail)).string();
  std::vector<char> buffer;
  int fd = -1;
  for (int attempt = 0;; ++attempt) {
    buffer.assign(templ.begin(), templ.end());
    buffer.push_back('\0');
    fd = mkstemps(buffer.data(), static_cast<int>(std::strlen(kTempEnd) + ext.size()));
    if (fd < 0) {
      throw IoError("cannot create a file beside " + target + ": " + std::strerror(errno));
    }
    // Another run may have taken the new file for a stale one before it was locked: it holds
    // the lock or has removed the file. Without locks (a file system that has none) the file is
    // not taken for a stale one either: only a lock that can be had lets another remove it.
    struct stat st {};
    const bool taken = LockFile(fd) ? fstat(fd, &st) == 0 && st.st_nlink == 0
                                    : errno == EAGAIN || errno == EACCES;
    if (!taken || attempt == 3) break;
    close(fd);
  }
  // mkstemps makes the file private (0600); give it the permissions a new file would get.
  const mode_t mask = umask(0);
  umask(mask);
  fchmod(fd, 0666 & ~mask);
  path_ = buffer.data();
  fd_ = fd;
  slot_ = RemoveOnSignal(path_);
}

TempOutputFile::~TempOutputFile() {
  if (committed_) return;
  unlink(path_.c_str());
  KeepOnSignal(slot_);
  close(fd_);
}

void TempOutputFile::Commit() {
  // A file system may report a lost write (no space left, an I/O error) only when the data
  // reaches the disk; it must not be renamed over the target before that is known.
  if (fsync(fd_) != 0 && errno != EINVAL && errno != EROFS) {
    throw IoError("cannot write " + target_ + ": " + std::strerror(errno));
  }
  CheckOutputTarget(target_);  // what lies there may have changed while the image was made
  if (std::rename(path_.c_str(), target_.c_str()) != 0) {
    const int why = errno;
    throw IoError("cannot move the finished file to " + target_ + ": " + std::strerror(why));
  }
  committed_ = true;
  KeepOnSignal(slot_);
  close(fd_);
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
