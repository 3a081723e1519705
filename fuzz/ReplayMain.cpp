// Replays a fuzz target's corpus without libFuzzer, so that every build runs it: each file of each
// directory given goes once through LLVMFuzzerTestOneInput. A broken invariant aborts the run; an
// input that cannot be read fails it.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <system_error>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace fs = std::filesystem;

namespace {

// Every regular file in dir; false when dir cannot be listed.
bool collectInputs(const fs::path& dir, std::vector<fs::path>* inputs) {
    std::error_code error;
    for (const fs::directory_entry& entry : fs::directory_iterator(dir, error)) {
        std::error_code kindError;  // an entry that vanished is simply not replayed
        if (entry.is_regular_file(kindError)) {
            inputs->push_back(entry.path());
        }
    }
    if (error) {
        std::fprintf(stderr, "%s: %s\n", dir.c_str(), error.message().c_str());
    }
    return !error;
}

bool readFile(const fs::path& path, std::vector<uint8_t>* bytes) {
    std::ifstream in(path, std::ios::binary);
    bytes->assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    return !in.bad();
}

}  // namespace

int main(int argc, char** argv) {
    std::vector<fs::path> inputs;
    for (int i = 1; i < argc; ++i) {
        if (!collectInputs(argv[i], &inputs)) {
            return 2;
        }
    }
    // Replaying nothing would pass while checking nothing.
    if (inputs.empty()) {
        std::fprintf(stderr, "usage: %s <corpus directory>... (no inputs found)\n", argv[0]);
        return 2;
    }
    std::sort(inputs.begin(), inputs.end());
    for (const fs::path& path : inputs) {
        std::vector<uint8_t> bytes;
        if (!readFile(path, &bytes)) {
            std::fprintf(stderr, "%s: cannot read\n", path.c_str());
            return 2;
        }
        std::printf("%s\n", path.filename().c_str());
        std::fflush(stdout);
        // libFuzzer never passes a null pointer, not even for an empty input.
        static const uint8_t kEmpty = 0;
        LLVMFuzzerTestOneInput(bytes.empty() ? &kEmpty : bytes.data(), bytes.size());
    }
    std::printf("%zu inputs replayed\n", inputs.size());
    return 0;
}
