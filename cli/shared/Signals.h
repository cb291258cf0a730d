// The tool's one place for signals, set up by main before anything else:
//
//   SIGPIPE  ignored: a write to a pipe whose reader has gone fails with EPIPE instead, and the
//            command reports it (exit 2) after removing its temporary files
//   SIGXFSZ  ignored: a write past the file size limit fails with EFBIG instead, likewise
//   SIGINT, SIGTERM, SIGHUP  the temporary files being written are removed, then the process
//            ends by the signal, as it would have without the tool's handler
//
// SIGKILL cannot be caught: the temporary files it leaves are removed by a later run that
// writes into the same folder (see AtomicFile.h).
#ifndef VT_CLI_SIGNALS_H
#define VT_CLI_SIGNALS_H

#include <string>

namespace veltrisca {

void InstallSignalHandlers();

// A temporary file for the handler to remove if a signal ends the process; returns its slot,
// or -1 when all slots are taken (the file is then removed on every other way out only).
int RemoveOnSignal(const std::string& path);
// The file of `slot` is gone or has become the output; -1 is ignored.
void KeepOnSignal(int slot);

}  // namespace veltrisca

#endif
