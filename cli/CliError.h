// Errors that end a veltrisca command: a one-line message for stderr and the exit code.
#ifndef VT_CLI_CLIERROR_H
#define VT_CLI_CLIERROR_H

#include <stdexcept>
#include <string>

namespace veltrisca {

// Process exit codes (documented in docs/cli.md).
enum ExitCode : int {
  kExitOk = 0,
  kExitUsage = 1,   // bad command line: unknown option, malformed or out-of-range value
  kExitIo = 2,      // input or output: unreadable/unwritable file, unsupported image, no memory
  kExitEffect = 3,  // the effect could not be loaded or returned an error
};

class CliError : public std::runtime_error {
 public:
  CliError(int exitCode, const std::string& message)
      : std::runtime_error(message), exitCode_(exitCode) {}
  int exitCode() const { return exitCode_; }

 private:
  int exitCode_;
};

inline CliError UsageError(const std::string& message) { return CliError(kExitUsage, message); }
inline CliError IoError(const std::string& message) { return CliError(kExitIo, message); }
inline CliError EffectError(const std::string& message) { return CliError(kExitEffect, message); }

// A message as one line: control characters (a file name may hold a line break) are written
// as escapes.
inline std::string MessageLine(const std::string& message) {
  std::string line;
  for (const char c : message) {
    const unsigned char u = static_cast<unsigned char>(c);
    if (u < 0x20 || u == 0x7f) {
      const char* hex = "0123456789abcdef";
      line += std::string("\\x") + hex[u >> 4] + hex[u & 15];
    } else {
      line += c;
    }
  }
  return line;
}

}  // namespace veltrisca

#endif
