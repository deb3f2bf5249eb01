// Runs one fuzz target's code outside libFuzzer: on its seed inputs, then on
// every file under the directories given (the inputs that once failed).
// A crash, a sanitizer report or an exception out of the target ends the
// process with a failure, as under the fuzzer.

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <string>
#include <vector>

#include "fuzz/FuzzSupport.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

int main(int argc, char** argv) {
    namespace fs = std::filesystem;
    int count = 0;
    auto run = [&](const std::string& input) {
        LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(input.data()), input.size());
        ++count;
    };
    for (const std::string& seed : QUIRELLE_FUZZ_SEEDS()) run(seed);
    for (int i = 1; i < argc; ++i) {
        std::vector<fs::path> files;
        if (!fs::is_directory(argv[i])) continue;
        for (const auto& entry : fs::recursive_directory_iterator(argv[i]))
            if (entry.is_regular_file()) files.push_back(entry.path());
        std::sort(files.begin(), files.end());
        for (const fs::path& file : files) {
            std::cout << file.filename().string() << std::endl;
            std::ifstream in(file, std::ios::binary);
            run(std::string(std::istreambuf_iterator<char>(in), {}));
        }
    }
    std::cout << count << " inputs" << std::endl;
    return 0;
}
