// Link annotations: URIs, explicit destinations (unset values read as 0),
// named destinations from the /Names tree and from /Dests, and GoTo actions.

#include <gtest/gtest.h>

#include <tuple>

#include "tests/engine/DocumentTestSupport.h"

namespace QuirelleTest {
namespace {

using Links = FileTest;

struct Expected {
    int type;
    std::string uri;
    LinkDestination destination;  // compared for destination links only
};

void ExpectLinks(IPage& page, const std::vector<Expected>& expected) {
    const auto links = page.GetAnnotations(IAnnotation::Link);
    ASSERT_EQ(links.size(), expected.size());
    for (size_t i = 0; i < links.size(); ++i) {
        auto& link = dynamic_cast<ILinkAnnotation&>(*links[i]);
        const LinkDestination d = link.GetDestination(), e = expected[i].destination;
        EXPECT_EQ(link.GetLinkType(), expected[i].type) << i;
        EXPECT_EQ(link.GetUri(), expected[i].uri) << i;
        EXPECT_EQ(d.pageIndex, e.pageIndex) << i;
        if (e.pageIndex >= 0) {
            EXPECT_EQ(std::make_tuple(d.x, d.y, d.zoom), std::make_tuple(e.x, e.y, e.zoom)) << i;
        }
    }
}

LinkLayout To(int page, std::optional<double> left, std::optional<double> top, std::optional<double> zoom,
              const std::string& fit = "", const std::string& name = "") {
    return {Rect{0, 10, 10, 0}, "", page, left, top, zoom, fit, name};
}

TEST_F(Links, UrisAndExplicitAndNamedDestinations) {
    PageLayout layout;
    LinkLayout fitR = To(1, 20, 400, std::nullopt, "FitR");
    fitR.bottom = 30;
    fitR.right = 200;
    layout.links = {{Rect{0, 100, 100, 0}, "https://example.com/a?b=c&d=%20"},
                    To(2, 10, 700, 2),
                    To(1, std::nullopt, std::nullopt, std::nullopt),
                    To(1, std::nullopt, 500, 0),
                    To(1, 40, std::nullopt, std::nullopt),
                    To(2, {}, {}, {}, "Fit"),
                    To(0, {}, 300, {}, "FitH"),
                    fitR,
                    To(-1, {}, {}, {}, "", "chapter-2"),
                    To(-1, {}, {}, {}, "", "legacy"),
                    To(-1, {}, {}, {}, "", "missing")};
    auto page = Open(PdfBuilder()
                         .AddPage(layout)
                         .AddNumberedPages(2)
                         .AddNamedDestination("chapter-2", 2, 30, 650)
                         .AddNamedDestination("legacy", 1, 15, 25, false))
                    ->GetPage(0);
    const int D = ILinkAnnotation::Destination;
    ExpectLinks(*page, {{ILinkAnnotation::Uri, "https://example.com/a?b=c&d=%20", {-1}},
                        {D, "", {2, 10, 700, 2}},
                        {D, "", {1, 0, 0, 0}},  // null left, top and zoom
                        {D, "", {1, 0, 500, 0}},
                        {D, "", {1, 40, 0, 0}},
                        {D, "", {2, 0, 0, 0}},
                        {D, "", {0, 0, 300, 0}},
                        {D, "", {1, 20, 400, 0}},
                        {D, "", {2, 30, 650, 0}},  // from the /Names tree
                        {D, "", {1, 15, 25, 0}},   // from /Dests
                        {ILinkAnnotation::Other, "", {-1}}});
}

TEST_F(Links, GoToActionsNameTreeKidsAndTargetsOutsideTheDocument) {
    auto page =
        Open(RawPdf({
                 "<< /Type /Catalog /Pages 2 0 R /Names << /Dests 9 0 R >> >>",
                 "<< /Type /Pages /Count 2 /Kids [3 0 R 4 0 R] >>",
                 "<< /Type /Page /Parent 2 0 R /MediaBox [0 0 612 792] /Annots [5 0 R 6 0 R 7 0 R 8 0 R 12 0 R] >>",
                 "<< /Type /Page /Parent 2 0 R /MediaBox [0 0 612 792] >>",
                 "<< /Subtype /Link /Rect [0 0 10 10] /A << /S /GoTo /D [4 0 R /XYZ 5 6 1.5] >> >>",
                 "<< /Subtype /Link /Rect [0 0 10 10] /A << /S /GoTo /D (zeta) >> >>",
                 "<< /Subtype /Link /Rect [0 0 10 10] /Dest [13 0 R /Fit] >>",  // not a page of the document
                 "<< /Subtype /Link /Rect [0 0 10 10] /A << /S /Named /N /NextPage >> >>",
                 "<< /Kids [10 0 R 11 0 R] >>",
                 "<< /Limits [(alpha) (beta)] /Names [(alpha) [3 0 R /Fit] (beta) [3 0 R /Fit]] >>",
                 "<< /Limits [(gamma) (zeta)] /Names [(gamma) [3 0 R /Fit] (zeta) << /D [4 0 R /XYZ null 80 null] >>] "
                 ">>",
                 "<< /Subtype /Link /Rect [0 0 10 10] /Dest [1 /XYZ 7 8 0] >>",  // a page number for a page
                 "<< /Type /Page /MediaBox [0 0 10 10] >>",
             }))
            ->GetPage(0);
    const int D = ILinkAnnotation::Destination, Other = ILinkAnnotation::Other;
    ExpectLinks(*page, {{D, "", {1, 5, 6, 1.5f}},
                        {D, "", {1, 0, 80, 0}},
                        {Other, "", {-1}},
                        {Other, "", {-1}},
                        {D, "", {1, 7, 8, 0}}});
}

}  // namespace
}  // namespace QuirelleTest
