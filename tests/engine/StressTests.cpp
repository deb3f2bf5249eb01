// Every kind of request over many pages with tiny limits (budgets of 1 to
// 50 ms, memory limits of 8 to 64 MiB above what the engine holds): nothing
// may hang, and every answer is the whole answer, a null picture or an
// exception naming the limit. A few seconds by default;
// QUIRELLE_STRESS_SECONDS runs it longer (bench/stress.sh).

#include <QImage>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <iostream>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "engine/Context.h"
#include "engine/Engine.h"
#include "engine/PdfDocument.h"
#include "orvane/Exception.h"
#include "orvane/pdf/EngineLimits.h"
#include "tests/engine/DocumentTestSupport.h"
#include "tests/support/HostilePdf.h"

namespace QuirelleTest {
namespace {

using namespace Orvane::PDF;
using Clock = std::chrono::steady_clock;

using Stress = EngineTest;

double Seconds() {
    const char* text = std::getenv("QUIRELLE_STRESS_SECONDS");
    return text != nullptr && std::atof(text) > 0 ? std::atof(text) : 3.0;
}

// Pages of text in four sizes, a picture and links: the glyph cache, FreeType,
// the store and the recorded pages all in use.
PdfBuilder Manual(int pages) {
    PdfBuilder builder;
    for (int p = 0; p < pages; ++p) {
        PageLayout page;
        for (int line = 0; line < 45; ++line) {
            page.text.push_back({72, 760.0 - 16 * line, 9.0 + (line % 4),
                                 "Page " + std::to_string(p) + " line " + std::to_string(line) +
                                     ": the quick brown fox jumps over the lazy dog, fi"});
        }
        if (p % 3 == 0) page.images.push_back({Rect{300, 400, 500, 200}, 400, 300, 0x208040u + unsigned(p)});
        page.links.push_back({Rect{72, 760, 200, 740}, "", (p + 1) % pages});
        builder.AddPage(page);
    }
    return builder;
}

TEST_F(Stress, TinyLimitsNeverHangAndNeverAnswerHalfAnAnswer) {
    const auto manualPath = temp.File("manual.pdf");
    WriteFile(manualPath, Manual(30).Build());
    std::vector<std::filesystem::path> files{manualPath};
    for (const HostilePdf& hostile : HostilePdfs()) {
        files.push_back(temp.File("hostile" + std::to_string(files.size()) + ".pdf"));
        WriteFile(files.back(), hostile.bytes);
    }
    std::vector<std::shared_ptr<Pdfium::PdfDocument>> documents;
    for (const auto& file : files) documents.push_back(std::make_shared<Pdfium::PdfDocument>(nullptr, file.string(), ""));

    // What the manual's pages look like and say without limits.
    std::vector<QImage> pictures;
    std::vector<std::wstring> texts;
    for (unsigned i = 0; i < documents[0]->GetPageCount(); ++i) {
        pictures.push_back(Render(documents[0]->GetPage(i), 600, 600));
        texts.push_back(documents[0]->GetPage(i)->GetTextObject()->GetText());
    }

    std::atomic<int64_t> lastAnswer{Clock::now().time_since_epoch().count()};
    std::atomic<bool> done{false};
    std::string current;  // what runs now; read by the hang report only
    std::thread hangCheck([&] {
        while (!done) {
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
            if (Clock::now() - Clock::time_point(Clock::duration(lastAnswer.load())) > std::chrono::seconds(20)) {
                std::cerr << "no answer for 20 s: " << current << std::endl;
                std::abort();  // the worker can never come back
            }
        }
    });

    std::mt19937 random(20261125);
    const auto end = Clock::now() + std::chrono::duration<double>(Seconds());
    int requests = 0, whole = 0, limited = 0;
    while (Clock::now() < end) {
        EngineLimits limits = saved;
        limits.timeBudget = std::chrono::milliseconds(1 + random() % 50);
        limits.memoryLimitBytes = Pdfium::MemoryInUse() + ((size_t(8) + random() % 57) << 20);
        SetEngineLimits(limits);
        const size_t which = random() % 4 == 0 ? 1 + random() % (documents.size() - 1) : 0;
        auto& document = documents[which];
        const unsigned index = random() % document->GetPageCount();
        const int operation = int(random() % 8);
        current = "document " + std::to_string(which) + " page " + std::to_string(index) + " operation " +
                  std::to_string(operation);
        const auto start = Clock::now();
        try {
            const Pdfium::RequestBudget budget;
            auto page = document->GetPage(index);
            switch (operation) {
                case 0:
                case 1: {
                    const QImage picture = Render(page, 600, 600);
                    if (which == 0) {
                        EXPECT_TRUE(picture == pictures[index]) << current << ": a different picture";
                    }
                    break;
                }
                case 2: {
                    const std::wstring text = page->GetTextObject()->GetText();
                    if (which == 0) {
                        EXPECT_EQ(text, texts[index]) << current;
                    }
                    break;
                }
                case 3:
                    page->GetTextObject()->FindText(L"fox", 0);
                    break;
                case 4:
                    page->GetObjectBoundsAt(100, 100, IPageObject::Text);
                    break;
                case 5:
                    for (const auto& annotation : page->GetAllAnnotations()) {
                        if (auto link = std::dynamic_pointer_cast<ILinkAnnotation>(annotation)) link->GetDestination();
                    }
                    break;
                case 6:
                    // Only the hostile files change: the manual's answers are known.
                    if (which != 0) page->SetRotation(IPage::Rotation((random() % 4)));
                    break;
                case 7:
                    document->Save(temp.File("saved.pdf").string(), 0);
                    break;
            }
            ++whole;
        } catch (const Orvane::Exception& e) {
            const std::string message = e.what();
            const bool namesLimit = message.find("time budget") != std::string::npos ||
                                    message.find("memory limit") != std::string::npos;
            // Hostile files may also fail for what they are.
            EXPECT_TRUE(namesLimit || which != 0) << current << ": " << message;
            ++limited;
        } catch (const std::exception& e) {
            EXPECT_NE(which, 0u) << current << ": " << e.what();
            ++limited;
        }
        const auto took = Clock::now() - start;
        EXPECT_LT(took, limits.timeBudget + std::chrono::milliseconds(1500)) << current;
        lastAnswer = Clock::now().time_since_epoch().count();
        ++requests;
    }
    done = true;
    hangCheck.join();
    SetEngineLimits(saved);
    std::cout << requests << " requests: " << whole << " whole, " << limited << " cut by the limits\n";
    EXPECT_GT(whole, 0);
    EXPECT_GT(limited, 0);
    documents.clear();
}

}  // namespace
}  // namespace QuirelleTest
