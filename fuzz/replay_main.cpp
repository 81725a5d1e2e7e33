// Runs a fuzz harness over files and folders of inputs without libFuzzer, so the seed corpora
// and the inputs of past crashes replay in the ordinary test suite (and under any sanitizer or
// valgrind). Folders are read in name order. Exits non-zero if an argument cannot be read; a
// failing input aborts inside the harness.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);
extern "C" int LLVMFuzzerInitialize(int *argc, char ***argv);

int main(int argc, char **argv) {
    namespace fs = std::filesystem;
    LLVMFuzzerInitialize(&argc, &argv);
    std::vector<fs::path> files;
    for (int i = 1; i < argc; ++i) {
        const size_t first = files.size();
        if (!fs::is_directory(argv[i])) files.emplace_back(argv[i]);
        else for (const auto &e : fs::directory_iterator(argv[i])) if (e.is_regular_file()) files.push_back(e.path());
        std::sort(files.begin() + first, files.end());
    }
    for (const auto &f : files) {
        std::ifstream file(f, std::ios::binary);
        if (!file) return std::fprintf(stderr, "cannot read %s\n", f.c_str()), 2;
        const std::vector<uint8_t> input((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
        LLVMFuzzerTestOneInput(input.data(), input.size());
    }
    std::printf("%zu inputs replayed\n", files.size());
}
