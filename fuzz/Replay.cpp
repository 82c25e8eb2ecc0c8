// In place of the fuzzer, for compilers and builds that have none: runs a target over the files of
// its corpus.

#include "Fuzz.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

namespace {

using Files = std::vector<std::filesystem::path>;

/// What the arguments name: files, and directories of files.
Files FilesOf(int count, char** arguments)
{
    Files files;
    for (int i = 1; i < count; ++i) {
        if (std::filesystem::is_directory(arguments[i])) {
            for (const auto& entry : std::filesystem::directory_iterator(arguments[i])) {
                files.push_back(entry.path());
            }
        } else {
            files.emplace_back(arguments[i]);
        }
    }
    std::sort(files.begin(), files.end());
    return files;
}

void Replay(const std::filesystem::path& path)
{
    std::ifstream file(path, std::ios::binary);
    const std::vector<char> bytes{std::istreambuf_iterator<char>(file), {}};
    if (!file) {
        velahost_fuzz::Fail("can't read " + path.string());
    }
    // Told before: a broken promise ends the program.
    std::fprintf(stderr, "%s\n", path.c_str());
    LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
}

} // namespace

int main(int argc, char** argv)
{
    try {
        const Files files = FilesOf(argc, argv);
        for (const std::filesystem::path& file : files) {
            Replay(file);
        }
        std::printf("%zu inputs replayed\n", files.size());
        return files.empty() ? EXIT_FAILURE : EXIT_SUCCESS;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "%s\n", e.what());
        return EXIT_FAILURE;
    }
}
