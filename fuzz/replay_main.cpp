// Runs a fuzz target over kept inputs, as an ordinary test: every file that is
// given, and every file at any depth of the folders that are given. A wrong
// result aborts in the target; an input that cannot be read, or none at all,
// fails here.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

namespace fs = std::filesystem;

// Sorted, so that a failure is met at the same place everywhere.
std::vector<fs::path> inputsAt(const fs::path& path) {
    if (!fs::is_directory(path)) {
        return {path};
    }
    std::vector<fs::path> files;
    for (const fs::directory_entry& entry : fs::recursive_directory_iterator(path)) {
        if (entry.is_regular_file()) {
            files.push_back(entry.path());
        }
    }
    std::sort(files.begin(), files.end());
    return files;
}

// The bytes end where the input does, so that a sanitizer sees each one beyond.
std::vector<std::uint8_t> contentOf(const fs::path& file) {
    std::ifstream stream(file, std::ios::binary);
    std::vector<std::uint8_t> bytes{std::istreambuf_iterator<char>(stream),
                                    std::istreambuf_iterator<char>()};
    if (!stream.is_open() || stream.bad()) {
        throw std::runtime_error("cannot read " + file.string());
    }
    bytes.shrink_to_fit();
    return bytes;
}

std::size_t replay(const fs::path& path) {
    const std::vector<fs::path> files = inputsAt(path);
    for (const fs::path& file : files) {
        const std::vector<std::uint8_t> bytes = contentOf(file);
        // Said before the input is tried: an abort leaves its name as the last line.
        std::printf("%s\n", file.c_str());
        std::fflush(stdout);
        (void)LLVMFuzzerTestOneInput(bytes.data(), bytes.size());  // 0 is all it may return
    }
    return files.size();
}

}  // namespace

int main(int argc, char** argv) {
    try {
        std::size_t inputs = 0;
        for (int i = 1; i < argc; ++i) {
            inputs += replay(argv[i]);
        }
        std::printf("%zu inputs replayed\n", inputs);
        return inputs == 0 ? 1 : 0;
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "%s\n", failure.what());
        return 1;
    }
}
