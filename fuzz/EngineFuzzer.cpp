// Fuzz target: any bytes opened as a PDF by the engine, then every engine call.

#include <cstddef>
#include <cstdint>
#include <string>

#include "engine/Context.h"
#include "fuzz/FuzzSupport.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const bool ready = [] {
        QuirelleFuzz::QuietLogs();
        Orvane::PDF::Pdfium::PdfiumInitializer::Instance().InitLibrary();
        return true;
    }();
    (void)ready;
    QuirelleFuzz::ExerciseEngine(std::string(reinterpret_cast<const char*>(data), size));
    return 0;
}
