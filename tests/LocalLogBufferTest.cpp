#include "LocalLogBuffer.h"

#include <android/log.h>
#include <diag/msg.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <climits>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "hostlog/LogCapture.h"
#include "support/LogObservation.h"

namespace kel {
namespace {

// The history's time stamp, "    <date> <time>.<ms> [", with '9' standing for any digit.
const std::string kStampShape = "    9999-99-99 99:99:99.999 [";
const size_t kStampLength = kStampShape.size();

bool hasStamp(const std::string& text) {
    const std::string& shape = kStampShape;
    if (text.size() < shape.size()) {
        return false;
    }
    for (size_t i = 0; i < shape.size(); ++i) {
        bool digit = text[i] >= '0' && text[i] <= '9';
        if (shape[i] == '9' ? !digit : text[i] != shape[i]) {
            return false;
        }
    }
    return true;
}

// "    <date> <time>.<ms> [<name>]<line>", as Manager::dump shows the history.
bool isHistoryLine(const std::string& text, const std::string& name, const std::string& line) {
    return hasStamp(text) && text.substr(kStampLength) == name + "]" + line;
}

void installWriter(std::unique_ptr<LogWriter> writer) {
    LogWrapper::getInstance()->setLogWriter(std::move(writer));
}

class LoggingTest : public ::testing::Test {
  protected:
    void SetUp() override {
        installWriter(std::make_unique<AdbWriter>());
        LocalLogBuffer::getInstance()->flush();
        capture.clear();
    }
    void TearDown() override {
        installWriter(std::make_unique<AdbWriter>());
        LocalLogBuffer::getInstance()->flush();
    }

    hostlog::LogCapture capture;
};

// The level picks the Android priority, the diagnostics mask and whether the history keeps the
// line; whatever the level, the text is cut to 511 characters.
TEST_F(LoggingTest, LevelSelectsPriorityMaskAndHistoryAndTextIsCutTo511Characters) {
    KELR_SKIP_UNLESS_ANDROID_LOG_READABLE();
    const struct {
        int level;
        size_t length;
        int androidPriority;
        int diagMask;
        bool kept;
    } cases[] = {
        {3, 0, ANDROID_LOG_ERROR, MSG_LEGACY_HIGH, true},
        {3, 510, ANDROID_LOG_ERROR, MSG_LEGACY_HIGH, true},
        {3, 511, ANDROID_LOG_ERROR, MSG_LEGACY_HIGH, true},
        {3, 512, ANDROID_LOG_ERROR, MSG_LEGACY_HIGH, true},
        {3, 5000, ANDROID_LOG_ERROR, MSG_LEGACY_HIGH, true},
        {0, 8, ANDROID_LOG_VERBOSE, MSG_LEGACY_LOW, false},
        {1, 600, ANDROID_LOG_DEBUG, MSG_LEGACY_LOW, false},
        {2, 8, ANDROID_LOG_INFO, MSG_LEGACY_LOW, false},
        {4, 8, ANDROID_LOG_FATAL, MSG_LEGACY_FATAL, false},
        {5, 600, ANDROID_LOG_INFO, MSG_LEGACY_HIGH, true},
        {6, 8, ANDROID_LOG_INFO, MSG_LEGACY_LOW, false},
        {-1, 8, ANDROID_LOG_INFO, MSG_LEGACY_LOW, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::to_string(c.length) + " characters at level " + std::to_string(c.level));
        capture.clear();
        LocalLogBuffer::getInstance()->flush();
        std::string text;
        for (size_t i = 0; i < c.length; ++i) {
            text += static_cast<char>('a' + i % 26);
        }
        const LogLevel level = static_cast<LogLevel>(c.level);
        LogWrapper::getInstance()->log(level, kLogTag, "%s", text.c_str());

        const std::string expected = text.substr(0, 511);
        std::vector<hostlog::AndroidLogRecord> written = capture.android();
        ASSERT_EQ(written.size(), 1u);
        EXPECT_EQ(written[0].priority, c.androidPriority);
        EXPECT_EQ(written[0].message, expected);
        EXPECT_EQ(DiagWriter().convertPrio(level), c.diagMask);
        std::vector<std::string> history = LocalLogBuffer::getInstance()->getLogs();
        ASSERT_EQ(history.size(), c.kept ? 1u : 0u);
        if (c.kept) {
            EXPECT_TRUE(isHistoryLine(history[0], "KEL", expected)) << history[0];
        }
    }
}

// The message as formatted by the plain algorithm: a zero-filled 513-byte buffer, vsnprintf
// with a limit of 512, the text up to the first NUL.
std::string formattedByVsnprintf(const char* format, ...) __attribute__((format(printf, 1, 2)));
std::string formattedByVsnprintf(const char* format, ...) {
    char buffer[513] = {};
    va_list args;
    va_start(args, format);
    std::vsnprintf(buffer, 512, format, args);
    va_end(args);
    return std::string(buffer);
}

std::string formattedForLog(const char* format, ...) __attribute__((format(printf, 1, 2)));
std::string formattedForLog(const char* format, ...) {
    char buffer[513];
    std::memset(buffer, 'X', sizeof(buffer));
    va_list args;
    va_start(args, format);
    const size_t length = formatLogMessage(buffer, format, args);
    va_end(args);
    EXPECT_EQ(std::strlen(buffer), length) << format;
    return std::string(buffer, length);
}

#define EXPECT_FORMATTED_ALIKE(...) \
    EXPECT_EQ(formattedForLog(__VA_ARGS__), formattedByVsnprintf(__VA_ARGS__))

// Whether the common forms are written directly or handed to vsnprintf, the message is the one
// vsnprintf makes.
TEST(LogFormatTest, EveryMessageEqualsThePlainFormatting) {
    int object = 0;
    const std::string near(505, 'n');
    const std::string full(511, 'f');
    const std::string over(700, 'o');
    EXPECT_FORMATTED_ALIKE("plain text, no conversion");
    EXPECT_FORMATTED_ALIKE("%s", "");
    EXPECT_FORMATTED_ALIKE(":%d:%s", 77, "handleClientRequest");
    EXPECT_FORMATTED_ALIKE("%d %i %d %i", 0, -1, INT_MIN, INT_MAX);
    EXPECT_FORMATTED_ALIKE("%u %lu %llu %zu", UINT_MAX, ULONG_MAX, ULLONG_MAX, SIZE_MAX);
    EXPECT_FORMATTED_ALIKE("%ld %lld %zd", LONG_MIN, LLONG_MIN, static_cast<ssize_t>(-5));
    EXPECT_FORMATTED_ALIKE("token=%llu", 18446744073709551615ull);
    EXPECT_FORMATTED_ALIKE("[callback:%p, data:%p]", static_cast<void*>(&object),
                           static_cast<void*>(nullptr));
    EXPECT_FORMATTED_ALIKE("%c%c%c", 'a', 255, '%');
    EXPECT_FORMATTED_ALIKE("100%% %s%%", "sure");
    // Hidden from the compiler, which would refuse a null string it can see.
    const char* volatile nothing = nullptr;
    EXPECT_FORMATTED_ALIKE("null %s here", nothing);
    EXPECT_FORMATTED_ALIKE("%5d|%-4s|%05lld|%x|%.2f|%+d|%.3s", 42, "ab", -7ll, 255u, 2.5, 3,
                           "abcdef");
    EXPECT_FORMATTED_ALIKE("%s and then %x", "direct", 0xbeefu);
    EXPECT_FORMATTED_ALIKE("%s%d", near.c_str(), 123456789);
    EXPECT_FORMATTED_ALIKE("%s%s", near.c_str(), "abcdefgh");
    EXPECT_FORMATTED_ALIKE("%s%d", full.c_str(), 5);
    EXPECT_FORMATTED_ALIKE("%s", over.c_str());
    EXPECT_FORMATTED_ALIKE("%s%x", over.c_str(), 1u);
    EXPECT_FORMATTED_ALIKE("%s%%%c", full.substr(1).c_str(), 'z');
    EXPECT_FORMATTED_ALIKE("ab%cde %d", 0, 7);
}

// Each message in full, as the writer and the history get it.
TEST_F(LoggingTest, AdbWriterAndHistoryGetTheFormattedTextUpToItsFirstNul) {
    KELR_SKIP_UNLESS_ANDROID_LOG_READABLE();
    const struct {
        const char* what;
        void (*log)();
        std::string expected;
    } cases[] = {
        {"printf style",
         [] { KEL_LOG(Error, "Manager::init(%d) %s %llu", 1, "adb", 18446744073709551615ull); },
         "Manager::init(1) adb 18446744073709551615"},
        {"a message is text, not a format", [] { KEL_LOG(Error, "%s", "100%% sure %s %d %n"); },
         "100%% sure %s %d %n"},
        {"ends at its first NUL", [] { KEL_LOG(Error, "ab%cde %d", 0, 7); }, "ab"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        capture.clear();
        LocalLogBuffer::getInstance()->flush();
        c.log();
        std::vector<hostlog::AndroidLogRecord> written = capture.android();
        ASSERT_EQ(written.size(), 1u);
        EXPECT_EQ(written[0].tag, "KEL");
        EXPECT_EQ(written[0].message, c.expected);
        std::vector<std::string> history = LocalLogBuffer::getInstance()->getLogs();
        ASSERT_EQ(history.size(), 1u);
        EXPECT_TRUE(isHistoryLine(history[0], "KEL", c.expected)) << history[0];
    }
}

TEST_F(LoggingTest, WithoutWriterErrorsAreStillKeptInHistory) {
    KELR_SKIP_UNLESS_ANDROID_LOG_READABLE();
    installWriter(nullptr);
    KEL_LOG(Error, "lost %d", 1);
    KEL_LOG(Debug, "gone");

    EXPECT_TRUE(capture.android().empty());
    EXPECT_TRUE(capture.diag().empty());
    std::vector<std::string> history = LocalLogBuffer::getInstance()->getLogs();
    ASSERT_EQ(history.size(), 1u);
    EXPECT_TRUE(isHistoryLine(history[0], "KEL", "lost 1")) << history[0];
}

// Writers replaced again and again while other threads log: every message goes through exactly
// one writer, none through a destroyed one, and each diagnostics session opened is closed.
TEST_F(LoggingTest, ReplacingWritersWhileOthersLogLosesNoMessage) {
    KELR_SKIP_UNLESS_ANDROID_LOG_READABLE();
    constexpr int kThreads = 3;
    constexpr int kPerThread = 400;
    std::atomic<bool> go{false};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t, &go] {
            while (!go) {
                std::this_thread::yield();
            }
            for (int i = 0; i < kPerThread; ++i) {
                KEL_LOG(Info, "thread %d message %d", t, i);
            }
        });
    }
    go = true;
    for (int i = 0; i < 60; ++i) {
        if (i % 2 == 0) {
            installWriter(std::make_unique<DiagWriter>());
        } else {
            installWriter(std::make_unique<AdbWriter>());
        }
    }
    for (std::thread& thread : threads) {
        thread.join();
    }

    EXPECT_EQ(capture.android().size() + capture.diag().size(),
              static_cast<size_t>(kThreads * kPerThread));
    EXPECT_EQ(capture.diagInitCalls(), 30);
    EXPECT_EQ(capture.diagDeInitCalls(), 30);
}

TEST_F(LoggingTest, DiagWriterSendsTagAndMessageThroughItsDescriptor) {
    installWriter(std::make_unique<DiagWriter>());
    KEL_LOG(Info, "hello %d", 42);
    KEL_LOG(Error, "%s", "bad 50%% %s %d");

    std::vector<hostlog::DiagRecord> sent = capture.diag();
    ASSERT_EQ(sent.size(), 2u);
    for (const hostlog::DiagRecord& record : sent) {
        EXPECT_EQ(record.line, 118);
        EXPECT_EQ(record.ssId, 63);
        EXPECT_EQ(record.format, "|%s| %s");
        EXPECT_EQ(record.fileName, "src/LocalLogBuffer");
    }
    EXPECT_EQ(sent[0].args, (std::vector<std::string>{"KEL", "hello 42"}));
    EXPECT_EQ(sent[0].text, "|KEL| hello 42");
    // The message is passed as text, not as a format.
    EXPECT_EQ(sent[1].text, "|KEL| bad 50%% %s %d");
    // Whichever message was first in this process decided the mask for all.
    EXPECT_EQ(sent[0].mask, sent[1].mask);
    if (hostlog::androidLogUnreadableReason().empty()) {
        EXPECT_TRUE(capture.android().empty());
    }
}

using DiagFirstMaskTest = LoggingTest;

// The descriptor is a process-wide static filled once, so each order runs in a fresh process
// where its messages are the first diagnostics messages.
TEST_F(DiagFirstMaskTest, EveryMessageCarriesTheFirstMessagesMask) {
    const struct {
        LogLevel first;
        LogLevel second;
        const char* expected;
    } orders[] = {{LogLevel::Verbose, LogLevel::Error, "masks: 1 1\\."},
                  {LogLevel::Error, LogLevel::Verbose, "masks: 4 4\\."},
                  {LogLevel::Fatal, LogLevel::History, "masks: 16 16\\."}};
    const std::string savedStyle = GTEST_FLAG_GET(death_test_style);
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    for (const auto& order : orders) {
        SCOPED_TRACE(order.expected);
        EXPECT_EXIT(
            {
                installWriter(std::make_unique<DiagWriter>());
                LogWrapper::getInstance()->log(order.first, kLogTag, "first");
                LogWrapper::getInstance()->log(order.second, kLogTag, "second");
                std::string masks = "masks:";
                for (const hostlog::DiagRecord& record : capture.diag()) {
                    masks += " " + std::to_string(record.mask);
                }
                std::fprintf(stderr, "%s.\n", masks.c_str());
                std::exit(0);
            },
            ::testing::ExitedWithCode(0), order.expected);
    }
    GTEST_FLAG_SET(death_test_style, savedStyle);
}

// The stamp as it is formatted from scratch: "%F %X" of the local time, then ".%03d" of the
// milliseconds.
std::string stampFromScratch(const timeval& when) {
    char date[50] = "";
    tm local{};
    if (localtime_r(&when.tv_sec, &local) != nullptr) {
        strftime(date, sizeof(date), "%F %X", &local);
    }
    char stamp[100];
    std::snprintf(stamp, sizeof(stamp), "%s.%03d", date, static_cast<int>(when.tv_usec / 1000));
    return stamp;
}

// One stamp fed a sequence of times, as one thread's lines are: within a second, across second,
// minute and day boundaries, and with the clock set back.
TEST(LogStampTest, EveryStampEqualsOneFormattedFromScratch) {
    tm midnight{};
    midnight.tm_year = 2026 - 1900;
    midnight.tm_mon = 10;
    midnight.tm_mday = 16;
    midnight.tm_isdst = -1;
    const time_t day = mktime(&midnight);
    ASSERT_NE(day, static_cast<time_t>(-1));
    const std::vector<timeval> times = {
        {day - 61, 0},   {day - 61, 999},    {day - 61, 1000},      {day - 61, 999999},
        {day - 60, 0},   {day - 60, 123456}, {day - 1, 999999},     {day, 0},
        {day, 999},      {day, 5000},        {day - 1, 998000},     {day - 1, 998999},
        {day + 3600, 1}, {day + 3600, 1},    {day + 86399, 999999}, {day + 86400, 0},
    };
    LogStamp stamp;
    for (const timeval& when : times) {
        std::string text = "head:";
        stamp.append(when, text);
        EXPECT_EQ(text, "head:" + stampFromScratch(when))
            << "at " << when.tv_sec << " s " << when.tv_usec << " us";
    }
}

class HistoryBoundTest : public ::testing::TestWithParam<int> {};

TEST_P(HistoryBoundTest, KeepsAtMostMaxSizePlusOneNewestLines) {
    const int maxSize = GetParam();
    LocalLogBuffer buffer("BOUND", maxSize);
    for (int i = 0; i < 20; ++i) {
        buffer.addLogWithTimestamp("line " + std::to_string(i));
    }

    std::vector<std::string> lines = buffer.getLogs();
    // A bound below zero keeps the newest line, like zero.
    const int kept = std::min(20, std::max(maxSize, 0) + 1);
    ASSERT_EQ(static_cast<int>(lines.size()), kept);
    for (int i = 0; i < kept; ++i) {
        EXPECT_TRUE(isHistoryLine(lines[i], "BOUND", "line " + std::to_string(20 - kept + i)))
            << lines[i];
    }
}

INSTANTIATE_TEST_SUITE_P(Bounds, HistoryBoundTest, ::testing::Values(-3, 0, 1, 5, 19, 20, 50));

TEST_F(LoggingTest, HistoryOfTheLibraryHolds201LinesUntilFlushed) {
    for (int i = 0; i < 250; ++i) {
        KEL_LOG(Error, "error %d", i);
    }

    std::vector<std::string> history = LocalLogBuffer::getInstance()->getLogs();
    ASSERT_EQ(history.size(), 201u);
    EXPECT_TRUE(isHistoryLine(history.front(), "KEL", "error 49")) << history.front();
    EXPECT_TRUE(isHistoryLine(history.back(), "KEL", "error 249")) << history.back();
    EXPECT_EQ(LocalLogBuffer::getInstance()->getName(), "KEL");

    LocalLogBuffer::getInstance()->flush();
    EXPECT_TRUE(LocalLogBuffer::getInstance()->getLogs().empty());
    KEL_LOG(History, "Manager::dump < ");
    EXPECT_EQ(LocalLogBuffer::getInstance()->getLogs().size(), 1u);
}

TEST_F(LoggingTest, ConcurrentLoggingKeepsBoundAndWholeLines) {
    KELR_SKIP_UNLESS_ANDROID_LOG_READABLE();
    constexpr int kThreads = 6;
    constexpr int kPerThread = 150;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t] {
            for (int i = 0; i < kPerThread; ++i) {
                KEL_LOG(Error, "thread %d message %d", t, i);
                KEL_LOG(Debug, "thread %d trace %d", t, i);
            }
        });
    }
    // Readers see the bound hold at every moment, not only at the end.
    bool boundHeld = true;
    std::thread reader([&boundHeld] {
        for (int i = 0; i < 200; ++i) {
            if (LocalLogBuffer::getInstance()->getLogs().size() > 201) {
                boundHeld = false;
            }
        }
    });
    for (std::thread& thread : threads) {
        thread.join();
    }
    reader.join();

    EXPECT_TRUE(boundHeld);
    std::vector<std::string> history = LocalLogBuffer::getInstance()->getLogs();
    ASSERT_EQ(history.size(), 201u);
    std::set<std::string> distinct;
    for (const std::string& text : history) {
        int thread = -1;
        int message = -1;
        char end = 0;
        EXPECT_TRUE(hasStamp(text) &&
                    std::sscanf(text.c_str() + kStampLength, "KEL]thread %d message %d%c", &thread,
                                &message, &end) == 2)
            << text;
        distinct.insert(text.substr(text.find(']')));
    }
    EXPECT_EQ(distinct.size(), history.size());
    EXPECT_EQ(capture.android().size(), static_cast<size_t>(2 * kThreads * kPerThread));
}

}  // namespace
}  // namespace kel
