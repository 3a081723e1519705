#include "BoundedRead.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>
#include <string>

#include "UniqueFd.h"
#include "support/TestSupport.h"

namespace {

using vexwire::ReadEnd;

// The bound is inclusive: a file of exactly the limit is read whole, one byte more is refused,
// and anything but a regular file is refused before it is read.
TEST(BoundedReadTest, ReadsAFileOfExactlyTheBoundAndRefusesMoreOrAnotherKind) {
    testsupport::TempDir dir;
    constexpr std::size_t kBound = 100 * 1024;  // more than one read's chunk
    std::ofstream(dir.file("at-bound")) << std::string(kBound, 'a');
    std::ofstream(dir.file("over-bound")) << std::string(kBound + 1, 'b');
    ASSERT_EQ(::mkfifo(dir.file("fifo").c_str(), 0600), 0);

    const struct {
        const char* name;
        ReadEnd expected;
        std::size_t size;
    } rows[] = {
        {"at-bound", ReadEnd::kRead, kBound},
        {"over-bound", ReadEnd::kTooLarge, 0},
        {"fifo", ReadEnd::kNotRegular, 0},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        vexwire::UniqueFd fd(::open(dir.file(row.name).c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
        ASSERT_TRUE(fd);
        std::string text;
        int errorNumber = 0;
        mode_t mode = 0;
        EXPECT_EQ(vexwire::readBounded(fd.get(), kBound, &text, &errorNumber, &mode), row.expected);
        EXPECT_EQ(text.size(), row.size);
    }
}

}  // namespace
