// Link annotations: URIs and in-document destinations in the forms files
// give them (explicit arrays, /Dests and /Names named destinations, GoTo
// actions), and links that lead nowhere.

#include <gtest/gtest.h>

#include "tests/engine/PageTestSupport.h"

using namespace QuirelleTest;
using namespace Orvane::PDF;

namespace {

class Links : public PageTest {
protected:
    std::vector<std::shared_ptr<ILinkAnnotation>> LinksOf(const std::shared_ptr<IDocument>& document) {
        std::vector<std::shared_ptr<ILinkAnnotation>> links;
        for (const auto& annotation : document->GetPage(0)->GetAnnotations(IAnnotation::Link))
            links.push_back(std::dynamic_pointer_cast<ILinkAnnotation>(annotation));
        return links;
    }
};

void ExpectDestination(ILinkAnnotation& link, int page, double x, double y, float zoom) {
    ASSERT_EQ(link.GetLinkType(), ILinkAnnotation::Destination);
    const LinkDestination d = link.GetDestination();
    EXPECT_EQ(d.pageIndex, page);
    EXPECT_DOUBLE_EQ(d.x, x);
    EXPECT_DOUBLE_EQ(d.y, y);
    EXPECT_FLOAT_EQ(d.zoom, zoom);
}

LinkSpec To(int page, std::optional<double> left, std::optional<double> top, std::optional<double> zoom,
            const std::string& fit = "") {
    LinkSpec link = Link(Rect{0, 10, 10, 0});
    link.targetPage = page;
    link.left = left;
    link.top = top;
    link.zoom = zoom;
    link.fitMode = fit;
    return link;
}

}  // namespace

TEST_F(Links, UriLinksAndOverlapsInPageOrder) {
    PageSpec spec;
    spec.links = {Link(Rect{0, 100, 100, 0}), Link(Rect{50, 150, 150, 50})};
    spec.links[0].uri = "https://example.com/a?b=c&d=%20";
    spec.links[1].uri = "second:";
    auto links = LinksOf(Open(PdfBuilder().AddPage(spec)));
    ASSERT_EQ(links.size(), 2u);
    EXPECT_EQ(links[0]->GetLinkType(), ILinkAnnotation::Uri);
    EXPECT_EQ(links[0]->GetUri(), "https://example.com/a?b=c&d=%20");
    EXPECT_EQ(links[0]->GetDestination().pageIndex, -1);
    EXPECT_TRUE(links[0]->Contains(Position{75, 75}));
    EXPECT_TRUE(links[1]->Contains(Position{75, 75}));
}

TEST_F(Links, ExplicitDestinationsLeaveUnsetValuesAtZero) {
    PageSpec spec;
    LinkSpec fitR = To(1, 20, 400, std::nullopt, "FitR");
    fitR.bottom = 30;
    fitR.right = 200;
    spec.links = {To(2, 10, 700, 2),           To(1, std::nullopt, std::nullopt, std::nullopt),
                  To(1, std::nullopt, 500, 0), To(1, 40, std::nullopt, std::nullopt),
                  To(2, {}, {}, {}, "Fit"),    To(0, {}, 300, {}, "FitH"),
                  fitR};
    auto links = LinksOf(Open(PdfBuilder().AddPage(spec).AddNumberedPages(2)));
    ASSERT_EQ(links.size(), 7u);
    ExpectDestination(*links[0], 2, 10, 700, 2);
    ExpectDestination(*links[1], 1, 0, 0, 0);  // null left, top and zoom
    ExpectDestination(*links[2], 1, 0, 500, 0);
    ExpectDestination(*links[3], 1, 40, 0, 0);
    ExpectDestination(*links[4], 2, 0, 0, 0);
    ExpectDestination(*links[5], 0, 0, 300, 0);
    ExpectDestination(*links[6], 1, 20, 400, 0);
}

TEST_F(Links, NamedDestinationsFromDestsAndFromTheNamesTreeTogether) {
    PageSpec spec;
    for (const char* name : {"chapter-2", "legacy", "appendix", "missing"}) {
        spec.links.push_back(Link(Rect{0, 10, 10, 0}));
        spec.links.back().namedDestination = name;
    }
    auto links = LinksOf(Open(PdfBuilder()
                                  .AddPage(spec)
                                  .AddNumberedPages(3)
                                  .AddNamedDestination("chapter-2", 2, 30, 650)
                                  .AddNamedDestination("appendix", 3, 0, 100)
                                  .AddNamedDestination("legacy", 1, 15, 25, false)));
    ASSERT_EQ(links.size(), 4u);
    ExpectDestination(*links[0], 2, 30, 650, 0);
    ExpectDestination(*links[1], 1, 15, 25, 0);
    ExpectDestination(*links[2], 3, 0, 100, 0);
    EXPECT_EQ(links[3]->GetLinkType(), ILinkAnnotation::Other);
}

TEST_F(Links, ActionsNameTreeKidsAndTargetsOutsideTheDocument) {
    auto document = OpenBytes(RawPdf({
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
        "<< /Limits [(gamma) (zeta)] /Names [(gamma) [3 0 R /Fit] (zeta) << /D [4 0 R /XYZ null 80 null] >>] >>",
        "<< /Subtype /Link /Rect [0 0 10 10] /Dest [1 /XYZ 7 8 0] >>",  // a page number for a page
        "<< /Type /Page /MediaBox [0 0 10 10] >>",
    }));
    auto links = LinksOf(document);
    ASSERT_EQ(links.size(), 5u);
    ExpectDestination(*links[0], 1, 5, 6, 1.5f);
    ExpectDestination(*links[1], 1, 0, 80, 0);
    EXPECT_EQ(links[2]->GetLinkType(), ILinkAnnotation::Other);
    EXPECT_EQ(links[3]->GetLinkType(), ILinkAnnotation::Other);
    EXPECT_EQ(links[3]->GetUri(), "");
    ExpectDestination(*links[4], 1, 7, 8, 0);
}
