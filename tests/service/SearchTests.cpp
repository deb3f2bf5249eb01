// Text search through the service: page order with wrap-around, one page a
// pass, stopping, closing, and results that point at the page text.

#include <atomic>

#include "tests/service/ServiceTest.h"

namespace QuirelleTest {
namespace {

// Collects one search's callbacks.
struct Hits {
    struct Step {
        unsigned page;
        std::vector<SearchResultInfo> results;
        std::shared_ptr<ITextObject> text;
    };
    IPDFProvider::SearchCallback Callback() {
        return [this](unsigned page, const std::vector<SearchResultInfo>& results,
                      const std::shared_ptr<ITextObject>& text) {
            if (onPage) onPage(page);
            steps.Add({page, results, text});
        };
    }
    std::vector<unsigned> WaitForPages(size_t n) {
        std::vector<unsigned> pages;
        for (const Step& step : steps.WaitFor(n)) pages.push_back(step.page);
        return pages;
    }
    std::vector<unsigned> Pages() { return WaitForPages(0); }
    std::function<void(unsigned)> onPage;  // on the worker, before the page is recorded
    Recorded<Step> steps;
};

using Search = ServiceTest;

// Waits until every step queued so far has run: a search over a one-page
// document started now reports after them (searches take turns).
void Drain(IPDFProvider& service, int64_t onePageDoc, int rounds = 1) {
    for (int i = 0; i < rounds; ++i) {
        Hits marker;
        service.SearchInDocument(onePageDoc, 0, L"x", marker.Callback());
        marker.WaitForPages(1);
    }
}

TEST_F(Search, VisitsEveryPageOnceFromTheStartPageWrappingAround) {
    const int64_t doc = OpenNumbered(5);
    const int64_t marker = OpenNumbered(1);
    const int64_t empty = Await(service->CreateDocument()).id;
    Hits hits, none;
    const int64_t first = service->SearchInDocument(doc, 3, L"page", hits.Callback());
    // Empty documents, empty callbacks and unknown ids search nothing.
    service->SearchInDocument(empty, 0, L"page", none.Callback());
    service->SearchInDocument(marker, 0, L"page", nullptr);
    service->SearchInDocument(4242, 0, L"page", none.Callback());
    EXPECT_EQ(hits.WaitForPages(5), (std::vector<unsigned>{3, 4, 0, 1, 2}));
    Drain(*service, marker, 2);
    EXPECT_EQ(hits.Pages().size(), 5u);
    EXPECT_TRUE(none.Pages().empty());
    // Every page says "Page N": one case-insensitive hit each, pointing at it.
    for (const Hits::Step& step : hits.steps.WaitFor(5)) {
        ASSERT_EQ(step.results.size(), 1u);
        EXPECT_EQ(step.text->GetText().substr(step.results[0].charIndex, step.results[0].charCount), L"Page");
    }
    // Search ids count up across documents; a start page past the end wraps.
    Hits wrapped;
    EXPECT_EQ(service->SearchInDocument(marker, 7, L"page", wrapped.Callback()), first + 6);
    EXPECT_EQ(wrapped.WaitForPages(1), (std::vector<unsigned>{0}));
}

TEST_F(Search, TwoSearchesTakeTurnsPageByPage) {
    const int64_t doc = OpenNumbered(3);
    std::vector<std::string> order;
    std::mutex mutex;
    Hits a, b;
    for (auto [hits, name] : {std::pair{&a, "a"}, std::pair{&b, "b"}}) {
        hits->onPage = [&, name](unsigned page) {
            std::lock_guard<std::mutex> lock(mutex);
            order.push_back(name + std::to_string(page));
        };
    }
    const int64_t clockDoc = OpenNumbered(1);
    {
        // Hold the worker so both searches are queued before either steps.
        PassClock clock(*service, clockDoc);
        service->SearchInDocument(doc, 0, L"page", a.Callback());
        service->SearchInDocument(doc, 1, L"page", b.Callback());
        clock.Release();
        a.WaitForPages(3);
        b.WaitForPages(3);
    }
    EXPECT_EQ(order, (std::vector<std::string>{"a0", "b1", "a1", "b2", "a2", "b0"}));
}

TEST_F(Search, StoppingBeforeTheFirstStepOrFromTheCallbackAndLettingTheCallbackGo) {
    const int64_t doc = OpenNumbered(6);
    const int64_t marker = OpenNumbered(1);
    const int64_t clockDoc = OpenNumbered(40);
    Hits never;
    {
        // The worker is held, so the search cannot have taken a step yet. The
        // service holds the last copy of the callback, whose state asks the
        // service something as it goes: it must go outside the service's lock.
        struct AsksWhenGone {
            Quirelle& service;
            int64_t doc;
            ~AsksWhenGone() { service.GetPageCount(doc); }
        };
        PassClock clock(*service, clockDoc);
        service->StopSearch(service->SearchInDocument(
            doc, 0, L"page",
            [callback = never.Callback(), asks = std::make_shared<AsksWhenGone>(AsksWhenGone{*service, doc})](
                unsigned page, const std::vector<SearchResultInfo>& results,
                const std::shared_ptr<ITextObject>& text) { callback(page, results, text); }));
    }
    EXPECT_EQ(service->GetPageCount(doc), 6);

    Hits once;
    int64_t selfId = -1;
    std::atomic<bool> idKnown{false};
    once.onPage = [&](unsigned) {
        while (!idKnown) std::this_thread::yield();
        service->StopSearch(selfId);
    };
    selfId = service->SearchInDocument(doc, 2, L"page", once.Callback());
    idKnown = true;
    once.WaitForPages(1);
    Drain(*service, marker, 3);
    EXPECT_TRUE(never.Pages().empty());
    EXPECT_EQ(once.Pages(), (std::vector<unsigned>{2}));
    service->StopSearch(987654);  // never existed: no effect
}

TEST_F(Search, ClosingTheDocumentEndsItsSearch) {
    // Opened second, so that its id (1) differs from the search's id (0): a
    // close also stops the search whose id equals the document id.
    const int64_t marker = OpenNumbered(1);
    const int64_t doc = OpenNumbered(20);
    Hits hits;
    std::future<void> closed;
    // Closed from the first page's callback: the close step ends the same pass.
    hits.onPage = [&](unsigned page) {
        if (page == 0) closed = service->CloseDoument(doc);
    };
    EXPECT_EQ(service->SearchInDocument(doc, 0, L"page", hits.Callback()), 0);
    hits.WaitForPages(1);
    // Once the close is done, so is the pass's purge of stopped search ids,
    // which would otherwise take the marker searches (ids 1 to 3) too.
    EXPECT_NO_THROW(Await(std::move(closed)));
    Drain(*service, marker, 3);
    EXPECT_EQ(hits.Pages(), (std::vector<unsigned>{0}));
}

TEST_F(Search, PageImagesKeepArrivingBetweenTheStepsOfALongSearch) {
    const int64_t doc = OpenNumbered(60);
    Hits hits;
    // Worker-side only: each page asks for a picture, and the next page checks
    // that the picture was drawn in between.
    std::vector<std::future<QImage>> pictures;
    int servedBetweenPages = 0;
    hits.onPage = [&](unsigned page) {
        if (page > 0 && page <= 5 && IsReady(pictures[page - 1])) ++servedBetweenPages;
        if (page < 5) pictures.push_back(service->GeneratePageImage(doc, page, 30, 30));
    };
    service->SearchInDocument(doc, 0, L"page", hits.Callback());
    hits.WaitForPages(60);
    EXPECT_EQ(servedBetweenPages, 5);
    for (auto& picture : pictures) EXPECT_FALSE(picture.get().isNull());
}

}  // namespace
}  // namespace QuirelleTest
