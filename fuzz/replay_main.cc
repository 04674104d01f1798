// Runs a fuzz target over inputs kept on disk, without libFuzzer: each
// argument is a file or a directory of files (read in name order, so a
// failure reproduces). Every build links its fuzz targets with this so that
// the corpora replay as ordinary tests under that build's compiler and
// sanitizers; a property a target checks fails the test by aborting.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "fuzz_target.h"

namespace fs = std::filesystem;

namespace {

bool replay(const fs::path &file)
{
    std::ifstream in(file, std::ios::binary);
    if (!in) {
        std::fprintf(stderr, "replay: cannot read %s\n", file.c_str());
        return false;
    }
    std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    // A copy of exactly the input's size, so an overread reaches past it.
    std::vector<uint8_t> exact(bytes);
    LLVMFuzzerTestOneInput(exact.empty() ? nullptr : exact.data(), exact.size());
    return true;
}

}  // namespace

int main(int argc, char **argv)
{
    if (argc < 2) {
        std::fprintf(stderr, "usage: %s FILE|DIR...\n", argv[0]);
        return 2;
    }
    size_t count = 0;
    for (int i = 1; i < argc; ++i) {
        std::vector<fs::path> files;
        std::error_code ec;
        if (fs::is_directory(argv[i], ec)) {
            for (const auto &e : fs::directory_iterator(argv[i], ec))
                if (e.is_regular_file()) files.push_back(e.path());
            std::sort(files.begin(), files.end());
        } else {
            files.emplace_back(argv[i]);
        }
        if (ec || files.empty()) {
            std::fprintf(stderr, "replay: no inputs in %s\n", argv[i]);
            return 2;
        }
        for (const auto &f : files) {
            if (!replay(f)) return 2;
            ++count;
        }
    }
    std::printf("replayed %zu inputs\n", count);
    return 0;
}
