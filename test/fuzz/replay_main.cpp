// SPDX-License-Identifier: MIT
// Runs a fuzz target over files, or the files of directories, instead of under the fuzzer.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

using Paths = std::vector<std::filesystem::path>;

// Those of a directory in the order of their names.
Paths filesOf(const std::filesystem::path& path) {
    if (!std::filesystem::is_directory(path)) return {path};
    Paths files;
    for (const auto& entry : std::filesystem::directory_iterator(path))
        if (entry.is_regular_file()) files.push_back(entry.path());
    std::sort(files.begin(), files.end());
    return files;
}

bool replay(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    const std::vector<char> bytes{std::istreambuf_iterator<char>(file), {}};
    if (!file) {
        fprintf(stderr, "%s cannot be read\n", path.c_str());
        return false;
    }
    // Before, and flushed: what a target finds ends the process.
    printf("%s\n", path.c_str());
    fflush(stdout);
    // As the fuzzer does, in memory of exactly the size.
    const std::vector<uint8_t> input(bytes.begin(), bytes.end());
    LLVMFuzzerTestOneInput(input.data(), input.size());
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    Paths files;
    for (int i = 1; i < argc; ++i) {
        const Paths more = filesOf(argv[i]);
        files.insert(files.end(), more.begin(), more.end());
    }
    if (files.empty()) {
        fprintf(stderr, "usage: %s FILE|DIRECTORY...; there was no file\n", argv[0]);
        return 2;
    }
    const bool read = std::all_of(files.begin(), files.end(), replay);
    return read ? 0 : 1;
}
