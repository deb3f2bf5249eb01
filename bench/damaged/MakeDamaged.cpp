// Writes damaged copies of PDF files for the damaged-file open run
// (bench/damaged-open.sh): quirelle_make_damaged OUT_DIR FILE...
// Every FILE gives truncations and copies with the cross-reference table
// gone, every offset wrong, a looping update, a lying page count and the
// object streams gone (where the file has what the damage needs); the small
// files of every repaired class and damaged copies of builder-made files
// are added.

#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "tests/support/DamagedPdf.h"
#include "tests/support/PdfBuilder.h"

namespace {

namespace fs = std::filesystem;
using namespace QuirelleTest;

int written = 0;

void Write(const fs::path& dir, const std::string& name, const std::string& bytes) {
    if (bytes.empty()) return;
    WriteFile(dir / (name + ".pdf"), bytes);
    ++written;
}

void Damage(const fs::path& dir, const std::string& name, const std::string& file) {
    for (const double fraction : {0.3, 0.6, 0.9, 0.99}) {
        Write(dir, name + ".cut" + std::to_string(int(fraction * 100)), Truncated(file, fraction));
    }
    Write(dir, name + ".noxref", WithoutXref(file));
    Write(dir, name + ".shifted", WithShiftedObjects(file));
    Write(dir, name + ".prevloop", WithLoopingUpdate(file));
    Write(dir, name + ".lyingcount", WithLyingCount(file));
    Write(dir, name + ".noobjstm", WithoutObjectStreams(file));
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fprintf(stderr, "usage: %s OUT_DIR FILE...\n", argv[0]);
        return 2;
    }
    const fs::path out = argv[1];
    fs::create_directories(out);
    for (int i = 2; i < argc; ++i) {
        const fs::path in = argv[i];
        Damage(out, in.stem().string(), ReadFile(in));
    }
    int n = 0;
    for (const DamagedPdf& damaged : DamagedPdfs()) Write(out, "class" + std::to_string(n++), damaged.bytes);
    const std::vector<std::string> fixtures = {PdfBuilder().AddNumberedPages(3).Build(),
                                               PdfBuilder().AddNumberedPages(12, 300, 400).InheritAttributes().Build(),
                                               CompressedPdf(5)};
    for (size_t i = 0; i < fixtures.size(); ++i) Damage(out, "fixture" + std::to_string(i), fixtures[i]);
    std::printf("%d damaged files in %s\n", written, out.c_str());
    return 0;
}
