// Writes the seed corpora of the fuzz targets: make_fuzz_seeds DIR makes
// DIR/engine, DIR/image and DIR/service.

#include <filesystem>
#include <fstream>
#include <iostream>

#include "fuzz/FuzzSupport.h"

int main(int argc, char** argv) {
    namespace fs = std::filesystem;
    if (argc != 2) {
        std::cerr << "usage: make_fuzz_seeds DIR\n";
        return 2;
    }
    const std::pair<const char*, std::vector<std::string>> corpora[] = {{"engine", QuirelleFuzz::EngineSeeds()},
                                                                         {"image", QuirelleFuzz::ImageSeeds()},
                                                                         {"service", QuirelleFuzz::ServiceSeeds()}};
    for (const auto& [name, seeds] : corpora) {
        const fs::path dir = fs::path(argv[1]) / name;
        fs::create_directories(dir);
        for (size_t i = 0; i < seeds.size(); ++i) {
            std::ofstream(dir / ("seed-" + std::to_string(i)), std::ios::binary).write(seeds[i].data(), seeds[i].size());
        }
    }
    return 0;
}
