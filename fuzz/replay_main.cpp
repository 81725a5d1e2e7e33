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

namespace {

bool run_file(const std::filesystem::path &path) {
    std::ifstream file(path, std::ios::binary);
    if (!file) return false;
    const std::vector<uint8_t> input((std::istreambuf_iterator<char>(file)),
                                     std::istreambuf_iterator<char>());
    LLVMFuzzerTestOneInput(input.data(), input.size());
    return true;
}

}  // namespace

int main(int argc, char **argv) {
    LLVMFuzzerInitialize(&argc, &argv);
    int inputs = 0;
    for (int i = 1; i < argc; ++i) {
        const std::filesystem::path arg(argv[i]);
        std::vector<std::filesystem::path> files;
        if (std::filesystem::is_directory(arg)) {
            for (const auto &entry : std::filesystem::directory_iterator(arg)) {
                if (entry.is_regular_file()) files.push_back(entry.path());
            }
            std::sort(files.begin(), files.end());
        } else {
            files.push_back(arg);
        }
        for (const auto &f : files) {
            if (!run_file(f)) {
                std::fprintf(stderr, "cannot read %s\n", f.c_str());
                return 2;
            }
            ++inputs;
        }
    }
    std::printf("%d inputs replayed\n", inputs);
    return 0;
}
