// Fuzz target: the service driven by a byte-coded sequence of requests over
// two documents (see RunServiceProgram).

#include <cstddef>
#include <cstdint>

#include "fuzz/FuzzSupport.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    QuirelleFuzz::RunServiceProgram(QuirelleFuzz::SharedService(), data, size);
    return 0;
}
