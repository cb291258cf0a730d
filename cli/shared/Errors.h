// Errors that end a veltrisca command: a one-line message for stderr and the exit code.
#ifndef VT_CLI_SHARED_ERRORS_H
#define VT_CLI_SHARED_ERRORS_H

#include <cstring>
#include <exception>
#include <new>
#include <stdexcept>
#include <string>
#include <system_error>

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

// The system refused a thread (a per-user or container limit on processes and threads).
inline CliError ThreadStartError(const std::string& threads, const std::system_error& e) {
  return IoError("cannot start " + threads + ": " + e.code().message() +
                 " (a process or thread limit?)");
}

// Standard output could not be written (a closed pipe, a full disk): `errnum` says why, 0 when
// that is not known.
inline CliError StdoutError(int errnum) {
  return IoError(std::string("cannot write to standard output: ") +
                 (errnum != 0 ? std::strerror(errnum) : "the write failed"));
}

// The message of a std::system_error that a library let out: a thread it could not start (the
// OpenEXR reader starts its own) reads like the tool's own.
inline std::string SystemErrorText(const std::system_error& e) {
  return e.code() == std::errc::resource_unavailable_try_again
             ? std::string(ThreadStartError("a thread", e).what())
             : std::string(e.what());
}

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

// The message and exit code of any failure a command lets out: a CliError's own, "out of
// memory" and a library's system or other error as input/output (exit 2). The one mapping of
// failures to exit codes, used by the command line and by each frame of a shot.
struct Failure {
  std::string message;
  int exitCode;
};
inline Failure FailureOf(const std::exception_ptr& error) {
  try {
    std::rethrow_exception(error);
  } catch (const CliError& e) {
    return {e.what(), e.exitCode()};
  } catch (const std::bad_alloc&) {
    return {"out of memory", kExitIo};
  } catch (const std::system_error& e) {
    return {SystemErrorText(e), kExitIo};
  } catch (const std::exception& e) {
    return {e.what(), kExitIo};
  }
}

}  // namespace veltrisca

#endif
