// The host stand-ins for the device's log calls: what they record and what they print.
#include <android/log.h>
#include <diag/msg.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <ostream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "hostlog/LogCapture.h"

namespace {

#ifndef KELR_SYSTEM_LIBLOG
// The messages of printed, a run of logcat-style lines "MM-DD HH:MM:SS.mmm pid tid P tag: text",
// each checked for that shape with the given priority letter and tag; a line of another shape
// yields "<malformed: line>".
std::vector<std::string> logcatLines(const std::string& printed, char priority,
                                     const std::string& tag) {
    std::vector<std::string> messages;
    std::istringstream in(printed);
    std::string line;
    while (std::getline(in, line)) {
        int month = 0, day = 0, hour = 0, minute = 0, second = 0, millis = 0;
        long pid = 0, tid = 0;
        char letter = 0;
        int consumed = 0;
        const std::string suffix = " " + tag + ": ";
        bool shaped =
            std::sscanf(line.c_str(), "%2d-%2d %2d:%2d:%2d.%3d %ld %ld %c%n", &month, &day, &hour,
                        &minute, &second, &millis, &pid, &tid, &letter, &consumed) == 9 &&
            line[2] == '-' && line[14] == '.' && letter == priority &&
            line.compare(static_cast<size_t>(consumed), suffix.size(), suffix) == 0;
        messages.push_back(shaped ? line.substr(static_cast<size_t>(consumed) + suffix.size())
                                  : "<malformed: " + line + ">");
    }
    return messages;
}
#endif

const msg_const_type* descriptor(const char* format) {
    // One per thread: the threaded test fills it concurrently.
    thread_local msg_const_type record;
    record = {{200, 7, MSG_LEGACY_ERROR}, format, "host/test"};
    return &record;
}

struct FormatCase {
    const char* name;
    std::function<void()> call;
    std::string text;
    std::vector<std::string> args;
};

void PrintTo(const FormatCase& c, std::ostream* os) {
    *os << c.name;
}

class DiagFormatTest : public ::testing::TestWithParam<FormatCase> {};

TEST_P(DiagFormatTest, ReadsArgumentsByTheFormatsConversions) {
    hostlog::LogCapture capture;
    GetParam().call();

    std::vector<hostlog::DiagRecord> sent = capture.diag();
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0].text, GetParam().text);
    EXPECT_EQ(sent[0].args, GetParam().args);
}

int sink = 0;

std::string pointerText(const void* pointer) {
    char text[32];
    std::snprintf(text, sizeof(text), "%p", pointer);
    return text;
}

INSTANTIATE_TEST_SUITE_P(
    Conversions, DiagFormatTest,
    ::testing::Values(
        FormatCase{"Strings",
                   [] { msg_sprintf(descriptor("|%s| %s"), "KEL", "hello"); },
                   "|KEL| hello",
                   {"KEL", "hello"}},
        FormatCase{"SignedInts",
                   [] { msg_sprintf(descriptor("%d/%i"), -5, INT_MAX); },
                   "-5/2147483647",
                   {"-5", "2147483647"}},
        FormatCase{"UnsignedInts",
                   [] { msg_sprintf(descriptor("%u %x %X %o"), 4000000000u, 255u, 171u, 8u); },
                   "4000000000 ff AB 10",
                   {"4000000000", "255", "171", "8"}},
        FormatCase{"Longs",
                   [] { msg_sprintf(descriptor("%ld %lu"), LONG_MIN, ULONG_MAX); },
                   std::to_string(LONG_MIN) + " " + std::to_string(ULONG_MAX),
                   {std::to_string(LONG_MIN), std::to_string(ULONG_MAX)}},
        FormatCase{"LongLongs",
                   [] { msg_sprintf(descriptor("%lld %llx"), LLONG_MIN, 0x1234567890ull); },
                   std::to_string(LLONG_MIN) + " 1234567890",
                   {std::to_string(LLONG_MIN), "78187493520"}},
        FormatCase{"NarrowedInts",
                   [] { msg_sprintf(descriptor("%hhd %hu"), 300, 70000); },
                   "44 4464",
                   {"44", "4464"}},
        FormatCase{
            "SizesAndMaxInts",
            [] { msg_sprintf(descriptor("%zu %jd %td"), size_t{9}, intmax_t{-9}, ptrdiff_t{3}); },
            "9 -9 3",
            {"9", "-9", "3"}},
        FormatCase{"Chars", [] { msg_sprintf(descriptor("%c%c"), 'o', 'k'); }, "ok", {"o", "k"}},
        FormatCase{"WidthsAndPrecisions",
                   [] { msg_sprintf(descriptor("[%5s|%-4s|%.2s|%03d]"), "ab", "c", "xyz", 7); },
                   "[   ab|c   |xy|007]",
                   {"ab", "c", "xyz", "7"}},
        FormatCase{"StarWidthAndPrecision",
                   [] { msg_sprintf(descriptor("[%*d|%.*s|%-*d]"), 4, 42, 3, "abcdef", 3, 1); },
                   "[  42|abc|1  ]",
                   {"42", "abcdef", "1"}},
        FormatCase{"Pointer",
                   [] { msg_sprintf(descriptor("at %p"), static_cast<void*>(&sink)); },
                   "at " + pointerText(&sink),
                   {pointerText(&sink)}},
        FormatCase{"Doubles",
                   [] { msg_sprintf(descriptor("%.1f %Lg"), 1.25, 2.5L); },
                   "1.2 2.5",
                   {"1.25", "2.5"}},
        FormatCase{
            "PercentSigns", [] { msg_sprintf(descriptor("100%% %d%%"), 5); }, "100% 5%", {"5"}},
        FormatCase{"NullString",
                   [] { msg_sprintf(descriptor("<%s>"), static_cast<const char*>(nullptr)); },
                   "<(null)>",
                   {"(null)"}},
        FormatCase{"UnknownConversionIsPrintedAsWritten",
                   [] { msg_sprintf(descriptor("%y then %d"), 3); },
                   "%y then 3",
                   {"3"}},
        FormatCase{"TrailingPercent", [] { msg_sprintf(descriptor("end %")); }, "end %", {}},
        FormatCase{"StoreIsNotWritten",
                   [] {
                       sink = 11;
                       msg_sprintf(descriptor("ab%n%d"), &sink, 4);
                       if (sink != 11) {
                           msg_sprintf(descriptor("stored"));
                       }
                   },
                   "ab4",
                   {"n", "4"}}),
    [](const ::testing::TestParamInfo<FormatCase>& param) {
        return std::string(param.param.name);
    });

TEST(DiagStandInTest, RecordsDescriptorAndSessionCalls) {
    hostlog::LogCapture capture;
    Diag_LSM_Init(nullptr);
    msg_sprintf(descriptor("x=%d"), 1);
    Diag_LSM_DeInit();
    Diag_LSM_DeInit();

    EXPECT_EQ(capture.diagInitCalls(), 1);
    EXPECT_EQ(capture.diagDeInitCalls(), 2);
    std::vector<hostlog::DiagRecord> sent = capture.diag();
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0].line, 200);
    EXPECT_EQ(sent[0].ssId, 7);
    EXPECT_EQ(sent[0].mask, static_cast<uint32_t>(MSG_LEGACY_ERROR));
    EXPECT_EQ(sent[0].format, "x=%d");
    EXPECT_EQ(sent[0].fileName, "host/test");
    EXPECT_EQ(sent[0].text, "x=1");
}

#ifndef KELR_SYSTEM_LIBLOG
TEST(AndroidStandInTest, RecordsPriorityTagAndFormattedMessage) {
    hostlog::LogCapture capture;
    EXPECT_EQ(__android_log_print(ANDROID_LOG_WARN, "TAG", "n=%d s=%s", 3, "x"), 7);
    __android_log_print(ANDROID_LOG_ERROR, nullptr, "untagged");

    std::vector<hostlog::AndroidLogRecord> written = capture.android();
    ASSERT_EQ(written.size(), 2u);
    EXPECT_EQ(written[0].priority, ANDROID_LOG_WARN);
    EXPECT_EQ(written[0].tag, "TAG");
    EXPECT_EQ(written[0].message, "n=3 s=x");
    EXPECT_EQ(written[1].tag, "");
    EXPECT_TRUE(capture.hasAndroidMessage("untagged"));
    EXPECT_FALSE(capture.hasAndroidMessage("untag"));
    ASSERT_EQ(capture.androidContaining("s=").size(), 1u);
    EXPECT_EQ(capture.androidContaining("s=")[0].message, "n=3 s=x");
}
#endif

// Whichever liblog is linked, the capture gives back each record as it was written: the system's
// liblog prints them to standard error, where a tag may hold spaces and a message lines of its
// own.
TEST(LogCaptureTest, ReadsBackEveryPriorityWithTagAndText) {
    struct Row {
        int priority;
        const char* tag;
        const char* text;
    };
    const std::vector<Row> rows = {
        {ANDROID_LOG_VERBOSE, "KEL", "verbose 1"},
        {ANDROID_LOG_DEBUG, "KEL", "debug"},
        {ANDROID_LOG_INFO, "Two words", "info"},
        {ANDROID_LOG_WARN, "KEL", "first\nsecond"},
        {ANDROID_LOG_ERROR, "KEL", "ends in a newline\n"},
        {ANDROID_LOG_FATAL, "KEL", ""},
        {ANDROID_LOG_ERROR, "KEL", "looks like a head: KEL I 01-02 03:04:05 1 1 x"},
    };
    hostlog::LogCapture capture;
    for (const Row& row : rows) {
        __android_log_print(row.priority, row.tag, "%s", row.text);
    }

    std::vector<hostlog::AndroidLogRecord> written = capture.android();
    ASSERT_EQ(written.size(), rows.size());
    for (size_t i = 0; i < rows.size(); ++i) {
        SCOPED_TRACE(rows[i].text);
        EXPECT_EQ(written[i].priority, rows[i].priority);
        EXPECT_EQ(written[i].tag, rows[i].tag);
        EXPECT_EQ(written[i].message, rows[i].text);
    }
}

struct FileIdentity {
    dev_t device = 0;
    ino_t inode = 0;
};

FileIdentity standardErrorIdentity() {
    struct stat status {};
    EXPECT_EQ(fstat(STDERR_FILENO, &status), 0);
    return {status.st_dev, status.st_ino};
}

TEST(LogCaptureTest, RestoresStandardErrorWhenItEnds) {
    const FileIdentity before = standardErrorIdentity();
    {
        hostlog::LogCapture capture;
        __android_log_print(ANDROID_LOG_INFO, "T", "inside");
#ifdef KELR_SYSTEM_LIBLOG
        // What the capture reads is private to it.
        struct stat status {};
        ASSERT_EQ(fstat(STDERR_FILENO, &status), 0);
        EXPECT_EQ(status.st_mode & 0777, 0600u);
        EXPECT_EQ(status.st_nlink, 0u);
#endif
        EXPECT_TRUE(capture.hasAndroidMessage("inside"));
    }
    const FileIdentity after = standardErrorIdentity();
    EXPECT_EQ(after.device, before.device);
    EXPECT_EQ(after.inode, before.inode);

    __android_log_print(ANDROID_LOG_INFO, "T", "between");
    hostlog::LogCapture next;
    __android_log_print(ANDROID_LOG_INFO, "T", "next");
    EXPECT_FALSE(next.hasAndroidMessage("inside"));
    EXPECT_FALSE(next.hasAndroidMessage("between"));
    EXPECT_TRUE(next.hasAndroidMessage("next"));
}

TEST(LogCaptureTest, RecordsOnlyWhileItLivesAndClears) {
    __android_log_print(ANDROID_LOG_INFO, "T", "before");
    hostlog::LogCapture capture;
    EXPECT_TRUE(capture.android().empty());

    __android_log_print(ANDROID_LOG_INFO, "T", "during");
    Diag_LSM_Init(nullptr);
    capture.clear();
    EXPECT_TRUE(capture.android().empty());
    EXPECT_EQ(capture.diagInitCalls(), 0);

    __android_log_print(ANDROID_LOG_INFO, "T", "after clear");
    EXPECT_EQ(capture.android().size(), 1u);
}

TEST(LogCaptureTest, RecordsEveryCallFromSeveralThreads) {
    hostlog::LogCapture capture;
    constexpr int kThreads = 4;
    constexpr int kCalls = 200;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t] {
            for (int i = 0; i < kCalls; ++i) {
                __android_log_print(ANDROID_LOG_DEBUG, "T", "%d:%d", t, i);
                msg_sprintf(descriptor("%d"), i);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(capture.android().size(), static_cast<size_t>(kThreads * kCalls));
    EXPECT_EQ(capture.diag().size(), static_cast<size_t>(kThreads * kCalls));
    EXPECT_TRUE(capture.hasAndroidMessage("3:199"));
}

// Echo as the environment sets it by default.
void restoreDefaultEcho() {
    const char* quiet = std::getenv("KELR_LOG_QUIET");
    hostlog::setEcho(quiet == nullptr || std::string(quiet) != "1");
}

// Runs call with standard error sent into a pipe and returns what was written there.
std::string standardErrorOf(const std::function<void()>& call) {
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) {
        ADD_FAILURE() << "pipe2";
        return std::string();
    }
    std::fflush(stderr);
    const int saved = dup(STDERR_FILENO);
    dup2(fds[1], STDERR_FILENO);
    close(fds[1]);
    call();
    std::fflush(stderr);
    dup2(saved, STDERR_FILENO);
    close(saved);
    std::string text;
    char buffer[512];
    ssize_t got;
    while ((got = read(fds[0], buffer, sizeof(buffer))) > 0) {
        text.append(buffer, static_cast<size_t>(got));
    }
    close(fds[0]);
    return text;
}

// Whatever a capture's lifetime wrote to standard error still reaches it, log or not.
TEST(LogCaptureTest, LeavesWhatWasWrittenOnStandardError) {
    hostlog::setEcho(true);
    const std::string printed = standardErrorOf([] {
        hostlog::LogCapture capture;
        // Before the record: standard error keeps no write boundaries, so another writer's line
        // after a record reads as the record's next line.
        std::fprintf(stderr, "not a record\n");
        __android_log_print(ANDROID_LOG_WARN, "KEL", "handed %s", "back");
        EXPECT_TRUE(capture.hasAndroidMessage("handed back"));
    });
    EXPECT_NE(printed.find(" handed back\n"), std::string::npos) << printed;
    EXPECT_NE(printed.find("not a record\n"), std::string::npos) << printed;
    restoreDefaultEcho();
}

#ifndef KELR_SYSTEM_LIBLOG
TEST(AndroidStandInTest, PrintsLogcatThreadtimeLinePerMessageLine) {
    hostlog::setEcho(true);
    std::string printed = standardErrorOf(
        [] { __android_log_print(ANDROID_LOG_ERROR, "KEL", "first\nsecond %d", 2); });

    EXPECT_EQ(logcatLines(printed, 'E', "KEL"), (std::vector<std::string>{"first", "second 2"}))
        << printed;

    hostlog::setEcho(false);
    int written = -1;
    EXPECT_EQ(standardErrorOf([&written] {
                  written = __android_log_print(ANDROID_LOG_ERROR, "KEL", "quiet %s", "line");
              }),
              "");
    // Neither printed nor recorded: nothing was written.
    EXPECT_EQ(written, 0);
    restoreDefaultEcho();
}
#endif

TEST(DiagStandInTest, PrintsDescriptorAndText) {
    hostlog::setEcho(true);
    std::string printed = standardErrorOf([] { msg_sprintf(descriptor("|%s| %s"), "KEL", "up"); });
    EXPECT_NE(printed.find("host/test:200 |KEL| up\n"), std::string::npos) << printed;
    restoreDefaultEcho();
}

}  // namespace
