// Writes the generated documents into a directory, for bench/compare.sh:
//   quirelle_bench_documents DIR   ->  DIR/heavy.pdf, DIR/long.pdf (1,000 pages),
//                                  DIR/outlined.pdf (1,000 pages, 2,000 outline entries)

#include <cstdio>
#include <exception>
#include <filesystem>

#include "common/Generated.h"

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s DIR\n", argv[0]);
        return 2;
    }
    try {
        const std::filesystem::path dir = argv[1];
        std::filesystem::create_directories(dir);
        QuirelleBench::BuildHeavyDocument().builder.Save(dir / "heavy.pdf");
        QuirelleBench::WriteLongDocument(dir / "long.pdf", 1000);
        QuirelleBench::WriteOutlinedDocument(dir / "outlined.pdf", 1000);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "%s: %s\n", argv[0], e.what());
        return 1;
    }
    return 0;
}
