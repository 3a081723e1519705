// Observation of the system's liblog, which a test cannot ask for its records: on a host it writes
// each record to standard error as one line "tag P MM-DD HH:MM:SS pid tid message" (a multi-line
// message goes on as written, ended by one newline), dropping Verbose and Debug unless the minimum
// priority is lowered. While a capture runs, standard error goes into a private file and the
// records are read back from it. The file keeps no write boundaries: a line another writer puts
// after a record reads as that record's next line.
//
// Threads: any; the capture's state is guarded by its own mutex.
#ifndef HOSTLOG_STDERR_CAPTURE_H
#define HOSTLOG_STDERR_CAPTURE_H

#include <string>
#include <vector>

#include "hostlog/LogCapture.h"

namespace hostlog::detail {

// Sends standard error into a new private file and lets every priority through; false (with the
// reason on standard error) if the file cannot be made, and standard error is then left alone.
bool startStderrCapture();
// Why no capture can be made (the private file cannot be created), or empty.
std::string stderrCaptureUnavailableReason();
// Restores standard error and the minimum priority when the outermost capture ends, then hands
// standard error everything captured, so that a run's output still shows what it wrote.
void stopStderrCapture();
// The records written since the capture started or was last cleared, in write order.
std::vector<AndroidLogRecord> stderrRecords();
void clearStderrRecords();
// Writes text to standard error as it was before the capture, so that the stand-ins' own echo
// never lands among the records.
void writeToOriginalStderr(const std::string& text);

}  // namespace hostlog::detail

#endif  // HOSTLOG_STDERR_CAPTURE_H
