// Helpers shared by the test suites.
#ifndef KELR_TESTS_TEST_SUPPORT_H
#define KELR_TESTS_TEST_SUPPORT_H

#include <string>

namespace testsupport {

// A fresh directory under the system's temporary directory, removed with its contents when the
// object goes. Each test gets its own, so suites can run in parallel.
class TempDir {
  public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::string& path() const { return dirPath; }
    std::string file(const std::string& name) const { return dirPath + "/" + name; }

  private:
    std::string dirPath;
};

// The repository's source directory (for shipped seed and carrier files).
std::string sourceDir();

}  // namespace testsupport

#endif  // KELR_TESTS_TEST_SUPPORT_H
