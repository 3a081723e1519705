// Logging: the front end every message of the library goes through, its two writers (Android's
// log and the modem diagnostics log) and the bounded, time-stamped history that Manager::dump
// returns.
//
// Threads: LogWrapper::log may be called on any thread. The writer is read and replaced
// atomically, so Manager::init may install a new one while an older pipeline still logs;
// setLogWriter destroys the replaced writer once the messages in flight through it are written.
// LocalLogBuffer is guarded by logMutex.
#ifndef KEL_LOCAL_LOG_BUFFER_H
#define KEL_LOCAL_LOG_BUFFER_H

#include <sys/time.h>

#include <atomic>
#include <cstdarg>
#include <cstddef>
#include <ctime>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace kel {

// The tag of every message of the library.
inline constexpr const char* kLogTag = "KEL";

enum class LogLevel : int {
    Verbose = 0,
    Debug = 1,
    Info = 2,
    Error = 3,
    Fatal = 4,
    // Entry and exit lines of public operations: information priority, but kept in the history.
    History = 5,
};

class LogWriter {
  public:
    virtual ~LogWriter() = default;
    virtual void write(LogLevel level, std::string tag, std::string message) = 0;
    // The writer's own priority for a level.
    virtual int convertPrio(LogLevel level) = 0;
};

// Writes to Android's log.
class AdbWriter : public LogWriter {
  public:
    void write(LogLevel level, std::string tag, std::string message) override;
    int convertPrio(LogLevel level) override;
};

// Writes to the modem diagnostics log; holds the diagnostics session open while it lives.
class DiagWriter : public LogWriter {
  public:
    DiagWriter();
    ~DiagWriter() override;
    void write(LogLevel level, std::string tag, std::string message) override;
    int convertPrio(LogLevel level) override;
};

// Formats a message as vsnprintf(buffer, 512, format, args) does, cut to 511 characters, into
// a buffer of at least 513 bytes; returns its length up to the first NUL. The common conversions
// (%d %i %u %s %c %p, with l, ll or z) are written directly, anything else by vsnprintf.
size_t formatLogMessage(char* buffer, const char* format, va_list args);

class LogWrapper {
  public:
    static LogWrapper* getInstance();

    // Installs writer; the previous writer is destroyed before the call returns, once no
    // message is being written through it.
    void setLogWriter(std::unique_ptr<LogWriter> writer);

    // Formats printf-style, cut to 511 characters, hands the line to the writer, and keeps Error
    // and History lines in the history.
    void log(LogLevel level, const char* tag, const char* format, ...)
        __attribute__((format(printf, 4, 5)));

  private:
    LogWrapper() = default;
    ~LogWrapper();

    // Writers in use are counted per generation rather than shared: a log call costs two atomic
    // counts instead of a lock and a reference count. A replacement starts a new generation and
    // waits for the calls of the old one, which new calls cannot keep busy.
    std::mutex replaceMutex;                   // serialises replacements
    std::unique_ptr<LogWriter> logWriter;      // the installed writer; guarded by replaceMutex
    std::atomic<LogWriter*> current{nullptr};  // what log calls read: logWriter.get()
    std::atomic<unsigned> generation{0};       // whose count new log calls join
    std::atomic<int> writing[2] = {{0}, {0}};  // log calls in progress, per generation parity
};

// The history's time stamp, "<date> <time>.<ms>" ("%F %X" and the milliseconds as "%03d"). The
// date and time are formatted once per second: a stamp for the second formatted last reuses them.
//
// Threads: one instance per thread.
class LogStamp {
  public:
    // Appends the stamp of when to out; a date that cannot be converted is left empty.
    void append(const timeval& when, std::string& out);

  private:
    bool valid = false;  // date holds the text of second
    time_t second = 0;
    char date[50] = "";
    size_t dateLength = 0;
};

class LocalLogBuffer {
  public:
    static LocalLogBuffer* getInstance();

    LocalLogBuffer(std::string name, int maxSize);

    // Stores "    <date> <time>.<ms> [<name>]<line>"; holds at most maxSize + 1 lines.
    void addLogWithTimestamp(std::string line);
    // Oldest first.
    std::vector<std::string> getLogs();
    void flush();
    std::string getName();

  private:
    std::deque<std::string> logs;  // guarded by logMutex
    std::string name;
    int maxSize;
    std::mutex logMutex;
};

}  // namespace kel

// Logs through the front end with the library's tag.
#define KEL_LOG(level, ...) \
    ::kel::LogWrapper::getInstance()->log(::kel::LogLevel::level, ::kel::kLogTag, __VA_ARGS__)

#endif  // KEL_LOCAL_LOG_BUFFER_H
