// Every file the tool writes (render's and stmap's images, chart, lens -o) appears complete or
// not at all, and only ever replaces a regular file.
//
// The data goes to a hidden temporary file in the target's folder, renamed over the target only
// when everything succeeded:
//
//   .NAME.veltrisca-HOST-PID-XXXXXX.tmp.EXT
//
// NAME.EXT being the target's name (shortened if need be), HOST this machine's name (anything
// but letters, digits and '-' written as '_'), PID the writing process, XXXXXX random. It keeps
// the target's extension (some writers choose their variant by it: .jp2, .avif) but has no
// frame number before it, so nothing takes it for a frame of a sequence.
//
// While its writer lives, a temporary file is locked (an open file description lock). A writer
// killed outright (SIGKILL: a farm's pre-emption, the out-of-memory killer) leaves its file
// behind; the next TempOutputFile of any veltrisca process in that folder removes such files
// when they were written on this machine and their lock is free. Files of other machines (a
// folder shared over NFS) are left alone: whether their writer lives cannot be told from here.
#ifndef VT_CLI_SHARED_ATOMICFILE_H
#define VT_CLI_SHARED_ATOMICFILE_H

#include <string>

namespace veltrisca {

// Throws CliError(kExitIo) when `target` exists and is not a regular file: a folder, a device,
// a pipe or a socket, or a symbolic link (whatever it points to: the tool never writes through
// a link, so one planted in a shared folder cannot make it replace another file).
void CheckOutputTarget(const std::string& target);

class TempOutputFile {
 public:
  // Checks the target (CheckOutputTarget), removes stale temporary files of its folder (once a
  // folder per process) and creates the temporary file; throws CliError(kExitIo).
  explicit TempOutputFile(const std::string& target);
  // Removes the temporary file unless Commit() succeeded.
  ~TempOutputFile();
  TempOutputFile(const TempOutputFile&) = delete;
  TempOutputFile& operator=(const TempOutputFile&) = delete;

  const std::string& path() const { return path_; }
  const std::string& target() const { return target_; }
  // Syncs the temporary file and renames it over the target; throws CliError(kExitIo).
  void Commit();

 private:
  std::string target_;
  std::string path_;
  int fd_ = -1;  // open and locked while the file is being written
  bool committed_ = false;
  int slot_ = -1;  // the signal handler's record of this file
};

// True when both names refer to the same file (same device and inode, or, for names that do
// not exist yet, the same normalised path).
bool SameFile(const std::string& a, const std::string& b);

}  // namespace veltrisca

#endif
