#include "support/TestSupport.h"

#include <cstdlib>
#include <filesystem>
#include <stdexcept>

namespace testsupport {

TempDir::TempDir() {
    const char* base = std::getenv("TMPDIR");
    std::string pattern = std::string(base && *base ? base : "/tmp") + "/kelr-test-XXXXXX";
    if (mkdtemp(pattern.data()) == nullptr) {
        throw std::runtime_error("mkdtemp failed for " + pattern);
    }
    dirPath = pattern;
}

TempDir::~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(dirPath, ignored);
}

std::string sourceDir() {
    return KELR_SOURCE_DIR;
}

}  // namespace testsupport
