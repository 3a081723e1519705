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
#include <string>
#include <utility>
#include <vector>

#include "hostlog/LogCapture.h"
#include "support/Regex.h"

namespace {

const msg_const_type* descriptor(const char* format) {
    static msg_const_type record;
    record = {{200, 7, MSG_LEGACY_ERROR}, format, "host/test"};
    return &record;
}

int sink = 0;

std::string pointerText(const void* pointer) {
    char text[32];
    std::snprintf(text, sizeof(text), "%p", pointer);
    return text;
}

// Conversions share a call, so an argument read at the wrong width shifts every one after it.
TEST(DiagStandInTest, ReadsArgumentsByTheFormatsConversions) {
    const std::string longs = std::to_string(LONG_MIN) + " " + std::to_string(ULONG_MAX) + " " +
                              std::to_string(LLONG_MIN);
    struct Case {
        const char* what;
        std::function<void()> call;
        std::string text;
        std::vector<std::string> args;
    } cases[] = {
        {"strings, chars and percent signs",
         [] {
             msg_sprintf(descriptor("|%s| %c%c 100%% %d%% <%s>"), "KEL", 'o', 'k', 5,
                         static_cast<const char*>(nullptr));
         },
         "|KEL| ok 100% 5% <(null)>",
         {"KEL", "o", "k", "5", "(null)"}},
        {"integers of every length",
         [] {
             msg_sprintf(descriptor("%d/%i %u %x %X %o %ld %lu %lld %llx %hhd %hu %zu %jd %td"), -5,
                         INT_MAX, 4000000000u, 255u, 171u, 8u, LONG_MIN, ULONG_MAX, LLONG_MIN,
                         0x1234567890ull, 300, 70000, size_t{9}, intmax_t{-9}, ptrdiff_t{3});
         },
         "-5/2147483647 4000000000 ff AB 10 " + longs + " 1234567890 44 4464 9 -9 3",
         {"-5", "2147483647", "4000000000", "255", "171", "8", std::to_string(LONG_MIN),
          std::to_string(ULONG_MAX), std::to_string(LLONG_MIN), "78187493520", "44", "4464", "9",
          "-9", "3"}},
        {"widths and precisions, given or read",
         [] {
             msg_sprintf(descriptor("[%5s|%-4s|%.2s|%03d|%*d|%.*s|%-*d]"), "ab", "c", "xyz", 7, 4,
                         42, 3, "abcdef", 3, 1);
         },
         "[   ab|c   |xy|007|  42|abc|1  ]",
         {"ab", "c", "xyz", "7", "42", "abcdef", "1"}},
        {"pointer and doubles",
         [] { msg_sprintf(descriptor("at %p %.1f %Lg"), static_cast<void*>(&sink), 1.25, 2.5L); },
         "at " + pointerText(&sink) + " 1.2 2.5",
         {pointerText(&sink), "1.25", "2.5"}},
        {"unknown, store and trailing conversions",
         [] { msg_sprintf(descriptor("%y then %d ab%n%d end %"), 3, &sink, 4); },
         "%y then 3 ab4 end %",
         {"3", "n", "4"}},
    };
    sink = 11;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        hostlog::LogCapture capture;
        c.call();
        std::vector<hostlog::DiagRecord> sent = capture.diag();
        ASSERT_EQ(sent.size(), 1u);
        EXPECT_EQ(sent[0].text, c.text);
        EXPECT_EQ(sent[0].args, c.args);
    }
    EXPECT_EQ(sink, 11) << "%n stored through its argument";
}

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

std::pair<dev_t, ino_t> standardErrorIdentity() {
    struct stat status {};
    EXPECT_EQ(fstat(STDERR_FILENO, &status), 0);
    return {status.st_dev, status.st_ino};
}

TEST(LogCaptureTest, RecordsOnlyWhileItLivesClearsAndRestoresStandardError) {
    const auto before = standardErrorIdentity();
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
        Diag_LSM_Init(nullptr);
        capture.clear();
        EXPECT_TRUE(capture.android().empty());
        EXPECT_EQ(capture.diagInitCalls(), 0);
    }
    EXPECT_EQ(standardErrorIdentity(), before);

    __android_log_print(ANDROID_LOG_INFO, "T", "between");
    hostlog::LogCapture next;
    EXPECT_TRUE(next.android().empty());
    __android_log_print(ANDROID_LOG_INFO, "T", "next");
    ASSERT_EQ(next.android().size(), 1u);
    EXPECT_EQ(next.android()[0].message, "next");
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

// Whatever a capture's lifetime wrote to standard error still reaches it, log or not; the
// diagnostics stand-in prints its descriptor's place before the text.
TEST(LogCaptureTest, LeavesWhatWasWrittenOnStandardError) {
    hostlog::setEcho(true);
    const std::string printed = standardErrorOf([] {
        hostlog::LogCapture capture;
        // Before the record: standard error keeps no write boundaries, so another writer's line
        // after a record reads as the record's next line.
        std::fprintf(stderr, "not a record\n");
        msg_sprintf(descriptor("|%s| %s"), "KEL", "up");
        __android_log_print(ANDROID_LOG_WARN, "KEL", "handed %s", "back");
        EXPECT_TRUE(capture.hasAndroidMessage("handed back"));
    });
    EXPECT_NE(printed.find(" handed back\n"), std::string::npos) << printed;
    EXPECT_NE(printed.find("host/test:200 |KEL| up\n"), std::string::npos) << printed;
    EXPECT_NE(printed.find("not a record\n"), std::string::npos) << printed;
    restoreDefaultEcho();
}

#ifndef KELR_SYSTEM_LIBLOG
TEST(AndroidStandInTest, RecordsAndPrintsALogcatThreadtimeLinePerMessageLine) {
    hostlog::setEcho(true);
    int written = -1;
    {  // what a capture records
        hostlog::LogCapture capture;
        std::string printed = standardErrorOf([&written] {
            written = __android_log_print(ANDROID_LOG_ERROR, "KEL", "first\nsecond %d", 2);
            __android_log_print(ANDROID_LOG_WARN, nullptr, "untagged");
        });
        EXPECT_EQ(written, 14);
        ASSERT_EQ(capture.android().size(), 2u);
        EXPECT_EQ(capture.android()[1].tag, "");
        EXPECT_TRUE(capture.hasAndroidMessage("untagged"));
        EXPECT_FALSE(capture.hasAndroidMessage("untag"));
        EXPECT_EQ(capture.androidContaining("second").size(), 1u);

        // logcat's threadtime shape, "MM-DD HH:MM:SS.mmm pid tid P tag: text", once per line.
        const std::string head = R"(\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} +\d+ +\d+ E KEL: )";
        const std::string untagged = R"(\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} +\d+ +\d+ W : untagged\n)";
        EXPECT_TRUE(std::regex_match(printed,
                                     std::regex(head + "first\n" + head + "second 2\n" + untagged)))
            << printed;
    }

    hostlog::setEcho(false);
    written = -1;
    EXPECT_EQ(standardErrorOf([&written] {
                  written = __android_log_print(ANDROID_LOG_ERROR, "KEL", "quiet %s", "line");
              }),
              "");
    // Neither printed nor recorded: nothing was written.
    EXPECT_EQ(written, 0);
    restoreDefaultEcho();
}
#endif

}  // namespace
