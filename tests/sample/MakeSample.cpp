// Writes the bundled sample PDF: make_sample [output], by default
// samples/sample.pdf in the source tree.

#include <exception>
#include <iostream>

#include "tests/support/PdfBuilder.h"

using namespace QuirelleTest;

int main(int argc, char** argv) {
    try {
        PdfBuilder builder;

        // Page 1, Letter: title, body text, colour swatches, two images and
        // the three kinds of link. An outline of four entries leads through them.
        PageLayout first;
        first.text = {{72, 720, 24, "Quirelle sample"},
                      {72, 680, 12, "This file exercises text, shapes, images and links."},
                      {72, 660, 12, "Visit https://example.org/quirelle for more."},
                      {72, 640, 12, "Go to page 2 (explicit destination)."},
                      {72, 620, 12, "Go to chapter three (named destination)."}};
        first.rects = {{{72, 560, 172, 500}, 0xE53935},
                       {{192, 560, 292, 500}, 0x43A047},
                       {{312, 560, 412, 500}, 0x1E88E5},
                       {{432, 560, 532, 500}, 0xFDD835}};
        first.images = {{{72, 460, 172, 360}, 16, 16, 0x8E24AA, std::nullopt},
                        {{132, 420, 232, 320}, 16, 16, 0x00ACC1, 128}};
        LinkLayout namedDest{{72, 632, 330, 616}};
        namedDest.namedDestination = "chapter3";
        first.links = {
            {{72, 672, 400, 656}, "https://example.org/quirelle"}, {{72, 652, 300, 636}, "", 1, 72, 800}, namedDest};
        builder.AddPage(first);

        // Page 2, A4.
        PageLayout second;
        second.width = 595;
        second.height = 842;
        second.text = {{72, 790, 18, "Page two: A4"},
                       {72, 760, 12, "An A4 page with a translucent image over a shape."}};
        second.rects = {{{72, 700, 272, 600}, 0x3949AB}};
        second.images = {{{172, 650, 372, 550}, 8, 8, 0xFB8C00, 96}};
        builder.AddPage(second);

        // Page 3, Letter shown rotated by 90 degrees.
        PageLayout third;
        third.rotate = 90;
        third.text = {{72, 720, 18, "Chapter three"}, {72, 690, 12, "This page is rotated by 90 degrees."}};
        third.rects = {{{72, 660, 540, 650}, 0x6D4C41}};
        builder.AddPage(third);

        builder.AddNamedDestination("chapter3", 2, 72, 740);
        // The outline: sections of the first page, then one entry per page.
        builder.AddOutline({{"Quirelle sample", 0, 0},
                            {"Text and links", 1, 0},
                            {"Swatches and images", 1, 0},
                            {"Page two: A4", 0, 1},
                            {"Chapter three", 0, -1, "chapter3"}});

        const auto output = argc > 1 ? std::filesystem::path(argv[1]) : SamplesDir() / "sample.pdf";
        builder.Save(output);
        std::cout << "wrote " << output.string() << "\n";
        return 0;
    } catch (const std::exception& e) {
        std::cerr << "make_sample: " << e.what() << "\n";
        return 1;
    }
}
