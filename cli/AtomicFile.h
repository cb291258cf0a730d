// Output files appear complete or not at all: the data goes to a hidden temporary file in the
// target's folder (same extension, so the image writer picks the same format) and is renamed
// over the target only when everything succeeded.
#ifndef VT_CLI_ATOMICFILE_H
#define VT_CLI_ATOMICFILE_H

#include <string>

namespace veltrisca {

class TempOutputFile {
 public:
  // Creates ".NAME.XXXXXX.EXT" beside `target`; throws CliError(kExitIo) when it cannot.
  explicit TempOutputFile(const std::string& target);
  // Removes the temporary file unless Commit() succeeded.
  ~TempOutputFile();
  TempOutputFile(const TempOutputFile&) = delete;
  TempOutputFile& operator=(const TempOutputFile&) = delete;

  const std::string& path() const { return path_; }
  const std::string& target() const { return target_; }
  // Renames the temporary file over the target; throws CliError(kExitIo) on failure.
  void Commit();

 private:
  std::string target_;
  std::string path_;
  bool committed_ = false;
  int slot_ = -1;  // the signal handler's record of this file
};

// True when both names refer to the same file (same device and inode, or, for names that do
// not exist yet, the same normalised path).
bool SameFile(const std::string& a, const std::string& b);

}  // namespace veltrisca

#endif
