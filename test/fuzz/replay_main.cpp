// SPDX-License-Identifier: MIT
// Runs a fuzz target over files, or the files of directories, instead of under the fuzzer.
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

using std::filesystem::path;

// In the order of their names.
std::set<path> filesOf(const path& fileOrDirectory) {
    if (!is_directory(fileOrDirectory)) return {fileOrDirectory};
    const std::filesystem::directory_iterator files(fileOrDirectory);
    return {begin(files), end(files)};
}

bool replay(const path& name) {
    std::ifstream file(name, std::ios::binary);
    // As under the fuzzer, the memory has exactly the size of the input.
    const std::vector<uint8_t> input{std::istreambuf_iterator<char>(file), {}};
    if (!file) {
        fprintf(stderr, "%s cannot be read\n", name.c_str());
        return false;
    }
    // Now, because a failing target ends the process.
    printf("%s\n", name.c_str());
    fflush(stdout);
    LLVMFuzzerTestOneInput(input.data(), input.size());
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    int count = 0;
    for (int i = 1; i < argc; ++i) {
        for (const path& file : filesOf(argv[i])) {
            if (!replay(file)) return 1;
            ++count;
        }
    }
    if (count > 0) return 0;
    fprintf(stderr, "usage: %s FILE|DIRECTORY...; there was no file\n", argv[0]);
    return 2;
}
