#include "SafeFile.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <random>

#include "BoundedRead.h"
#include "UniqueFd.h"
#include "VexWire.h"

namespace vexsim {
namespace {

using vexwire::ReadEnd;
using vexwire::UniqueFd;

std::string failure(const std::string& path, const std::string& what) {
    return path + ": " + what + ": " + std::strerror(errno);
}

bool writeEverything(int fd, const std::string& text) {
    for (size_t done = 0; done < text.size();) {
        ssize_t n = ::write(fd, text.data() + done, text.size() - done);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            if (n == 0) {
                errno = ENOSPC;
            }
            return false;
        }
        done += static_cast<size_t>(n);
    }
    return true;
}

// A fresh name each time, so a file planted at a predictable name can neither be followed nor
// block the save for good.
std::string temporaryName(const std::string& base) {
    static thread_local std::mt19937_64 random(
        std::random_device{}() ^
        static_cast<uint64_t>(std::chrono::steady_clock::now().time_since_epoch().count()));
    char suffix[24];
    std::snprintf(suffix, sizeof suffix, ".tmp-%012llx",
                  static_cast<unsigned long long>(random() & 0xFFFFFFFFFFFFULL));
    return base + suffix;
}

}  // namespace

bool readRegularFile(const std::string& path, bool followLink, size_t maxBytes, std::string* text,
                     std::string* error) {
    // Non-blocking, so that opening a FIFO does not wait for a writer before it is refused.
    int flags = O_RDONLY | O_CLOEXEC | O_NONBLOCK | (followLink ? 0 : O_NOFOLLOW);
    UniqueFd fd(::open(path.c_str(), flags));
    if (!fd) {
        *error = errno == ELOOP && !followLink ? path + ": a symbolic link, refused"
                                               : failure(path, "cannot open it");
        return false;
    }
    int errorNumber = 0;
    mode_t mode = 0;
    switch (vexwire::readBounded(fd.get(), maxBytes, text, &errorNumber, &mode)) {
        case ReadEnd::kRead:
            return true;
        case ReadEnd::kNotRegular:
            *error = path + ": not a regular file";
            return false;
        case ReadEnd::kTooLarge:
            *error = path + ": larger than " + std::to_string(maxBytes) + " bytes";
            return false;
        case ReadEnd::kCannotStat:
        case ReadEnd::kCannotRead:
            break;
    }
    errno = errorNumber;
    *error = failure(path, "cannot read it");
    return false;
}

bool replaceFile(const std::string& path, const std::string& text, std::string* error) {
    struct stat info;
    if (::lstat(path.c_str(), &info) == 0 && !S_ISREG(info.st_mode)) {
        *error = path + (S_ISLNK(info.st_mode) ? ": a symbolic link, refused"
                                               : ": not a regular file, refused");
        return false;
    }
    const std::string dir = vexwire::parentDirectory(path);
    const size_t slash = path.rfind('/');
    const std::string base = slash == std::string::npos ? path : path.substr(slash + 1);
    if (base.empty()) {
        *error = path + ": not a file name";
        return false;
    }
    UniqueFd dirFd(::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!dirFd) {
        *error = failure(path, "cannot open its directory");
        return false;
    }
    std::string temp;
    UniqueFd fd;
    for (int attempt = 0; attempt < 8 && !fd; ++attempt) {
        temp = temporaryName(base);
        fd.reset(::openat(dirFd.get(), temp.c_str(),
                          O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
        if (!fd && errno != EEXIST) {
            break;
        }
    }
    if (!fd) {
        *error = failure(dir + "/" + temp, "cannot create it");
        return false;
    }
    // fchmod: the umask could only have narrowed the mode, but the file must be exactly 0600.
    bool written =
        ::fchmod(fd.get(), 0600) == 0 && writeEverything(fd.get(), text) && ::fsync(fd.get()) == 0;
    if (written) {
        written = ::close(fd.release()) == 0;
    }
    if (!written) {
        *error = failure(dir + "/" + temp, "cannot write it");
        ::unlinkat(dirFd.get(), temp.c_str(), 0);
        return false;
    }
    if (::renameat(dirFd.get(), temp.c_str(), dirFd.get(), base.c_str()) != 0) {
        *error = failure(path, "cannot replace it");
        ::unlinkat(dirFd.get(), temp.c_str(), 0);
        return false;
    }
    if (::fsync(dirFd.get()) != 0) {
        *error = failure(path, "cannot sync its directory");
        return false;
    }
    return true;
}

}  // namespace vexsim
