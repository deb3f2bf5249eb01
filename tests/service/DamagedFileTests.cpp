// Damaged copies of every file the builder makes (truncated, with flipped
// bytes, without their cross-reference table): each open answers within the
// time budget, and every request on what opened answers.

#include <chrono>
#include <random>

#include "fuzz/FuzzSupport.h"
#include "tests/service/ServiceTest.h"
#include "tests/support/DamagedPdf.h"

namespace QuirelleTest {
namespace {

std::vector<std::string> DamagedCopies(const std::string& file, std::mt19937& random) {
    std::vector<std::string> copies;
    for (int i = 1; i < 12; ++i) copies.push_back(file.substr(0, file.size() * i / 12));
    std::uniform_int_distribution<size_t> position(0, file.size() - 1);
    for (int i = 0; i < 12; ++i) {
        std::string flipped = file;
        for (int n = 0; n <= i % 3; ++n) flipped[position(random)] ^= char(1 + random() % 255);
        copies.push_back(flipped);
    }
    const size_t xref = file.rfind("\nxref"), trailer = file.rfind("trailer");
    if (xref != std::string::npos && trailer > xref) copies.push_back(file.substr(0, xref + 1) + file.substr(trailer));
    for (const std::string& damaged : {WithoutXref(file), WithShiftedObjects(file), WithLoopingUpdate(file),
                                       WithLyingCount(file), WithoutObjectStreams(file)}) {
        if (!damaged.empty()) copies.push_back(damaged);
    }
    return copies;
}

TEST(DamagedFiles, OpenAnswersWithinTheBudgetAndEveryRequestOnWhatOpenedAnswers) {
    TempDir temp;
    Quirelle service(nullptr);
    std::mt19937 random(8);
    int opened = 0, copies = 0;
    for (const std::string& file : QuirelleFuzz::FixtureDocuments()) {
        for (const std::string& damaged : DamagedCopies(file, random)) {
            const auto path = temp.File("damaged" + std::to_string(copies++) + ".pdf");
            WriteFile(path, damaged);
            auto open = service.OpenDocument(path, "");
            // The default budget is 5 s; a second more for a loaded machine.
            ASSERT_EQ(open.wait_for(std::chrono::seconds(6)), std::future_status::ready) << "copy " << copies - 1;
            int64_t id = -1;
            try {
                id = open.get().id;
            } catch (const std::exception&) {
                continue;
            }
            ++opened;
            QuirelleFuzz::ExerciseService(service, id);
            Await(service.CloseDoument(id));
        }
    }
    // Most damage is repaired: the requests ran on real documents.
    EXPECT_GT(opened, copies / 2);
}

}  // namespace
}  // namespace QuirelleTest
