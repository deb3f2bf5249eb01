// Saves two documents over one file in turn, forever, for the test that kills
// a saving process: save_loop FIRST SECOND TARGET. Writes one byte to its
// standard output once both documents are open and the saving begins.

#include <unistd.h>

#include <exception>
#include <iostream>

#include "engine/Context.h"
#include "engine/PdfDocument.h"

using Orvane::PDF::Pdfium::PdfDocument;

int main(int argc, char** argv) {
    if (argc != 4) {
        std::cerr << "usage: save_loop FIRST SECOND TARGET\n";
        return 2;
    }
    try {
        Orvane::PDF::Pdfium::PdfiumInitializer::Instance().InitLibrary();
        PdfDocument first(nullptr, Orvane::ioPath(argv[1]), "");
        PdfDocument second(nullptr, Orvane::ioPath(argv[2]), "");
        const Orvane::ioPath target(argv[3]);
        if (::write(STDOUT_FILENO, "r", 1) != 1) return 1;
        for (;;) {
            first.Save(target, 0);
            second.Save(target, 0);
        }
    } catch (const std::exception& e) {
        std::cerr << "save_loop: " << e.what() << "\n";
        return 1;
    }
}
