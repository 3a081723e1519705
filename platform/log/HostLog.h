// What the host log stand-ins share: the record of calls that a LogCapture observes and the
// echo of each call to standard error.
//
// Threads: any; the record is guarded by its own mutex.
#ifndef HOSTLOG_HOST_LOG_H
#define HOSTLOG_HOST_LOG_H

#include <string>

#include "hostlog/LogCapture.h"

namespace hostlog::detail {

// Whether a LogCapture lives / whether lines are printed; read without a lock, so a stand-in can
// skip building what nobody would see.
bool capturing();
bool echoing();

// Each is dropped unless a LogCapture lives.
void recordAndroid(AndroidLogRecord record);
void recordDiag(DiagRecord record);
void noteDiagInit();
void noteDiagDeInit();

// "MM-DD HH:MM:SS.mmm  pid   tid", the head of every echoed line, as logcat prints it.
std::string lineHead();
// Writes text to standard error in one piece, unless echo is off. Callers building text only to
// print it check echoing() first.
void echo(const std::string& text);
// Writes all of data to fd, going on after a signal; gives up at the first other failure.
void writeAll(int fd, const char* data, size_t size);

}  // namespace hostlog::detail

#endif  // HOSTLOG_HOST_LOG_H
