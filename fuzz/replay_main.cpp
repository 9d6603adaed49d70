// Runs a fuzz target without libFuzzer, as a ctest case: every seed file in
// the directories given, then pseudo-random inputs from a fixed start (the
// same on every run). A model mismatch traps and fails the case.
#include <dirent.h>

#include <fstream>
#include <iterator>

#include "fuzz_common.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

int main(int argc, char** argv) {
    int inputs = 0;
    for (int i = 1; i < argc; ++i) {
        DIR* d = opendir(argv[i]);
        while (dirent* ent = d ? readdir(d) : nullptr) {
            if (ent->d_name[0] == '.') continue;
            std::ifstream f(std::string(argv[i]) + "/" + ent->d_name, std::ios::binary);
            std::vector<uint8_t> data((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
            LLVMFuzzerTestOneInput(data.data(), data.size());
            ++inputs;
        }
        if (d) closedir(d);
    }
    uint32_t s = 0x9e3779b9u;
    for (int n = 0; n < 3000; ++n, ++inputs) {
        std::vector<uint8_t> data(n % 400);
        for (uint8_t& b : data) b = static_cast<uint8_t>(fuzz::xorshift(s) >> 7);
        LLVMFuzzerTestOneInput(data.data(), data.size());
    }
    printf("%d inputs, model agreed on every one\n", inputs);
    return 0;
}
