// The atomic file writer on its own: the new file is written beside the
// target and takes its place only when committed; whatever fails on the way
// leaves the target as it was and nothing else behind.

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <set>
#include <string>

#include "engine/AtomicFile.h"
#include "orvane/Exception.h"
#include "tests/support/PdfBuilder.h"

namespace {

namespace fs = std::filesystem;
using Orvane::PDF::Pdfium::NewFile;
using QuirelleTest::ReadFile;
using QuirelleTest::WriteFile;

std::set<std::string> Names(const fs::path& dir) {
    std::set<std::string> names;
    for (const auto& entry : fs::directory_iterator(dir)) names.insert(entry.path().filename().string());
    return names;
}

void Write(const NewFile& file, const std::string& text) {
    ASSERT_EQ(::write(file.fd(), text.data(), text.size()), ssize_t(text.size()));
}

TEST(AtomicFile, ReplacesTheTargetOnlyOnCommitAndLeavesNothingBehind) {
    QuirelleTest::TempDir temp;
    const fs::path target = temp.File("doc.pdf");
    struct Case {
        const char* name;
        bool existing;                             // a target "old" to replace
        std::function<void(const fs::path&)> run;  // writes "new" through a NewFile
        bool throws;
        std::string after;  // the target's contents then, if it is a file
    } cases[] = {
        {"committed over a file", true,
         [](const fs::path& t) {
             NewFile file(t);
             // Written beside the target, in its directory.
             EXPECT_EQ(fs::read_symlink("/proc/self/fd/" + std::to_string(file.fd())).parent_path(), t.parent_path());
             Write(file, "new");
             file.commit();
         },
         false, "new"},
        {"committed as a new file", false,
         [](const fs::path& t) {
             NewFile file(t);
             Write(file, "new");
             file.commit();
         },
         false, "new"},
        {"given up before the commit", true,
         [](const fs::path& t) {
             NewFile file(t);
             Write(file, "new");
         },
         false, "old"},
        {"a target that cannot be replaced", false,
         [](const fs::path& t) {
             fs::create_directories(t / "inside");  // a directory that is not empty
             NewFile file(t);
             Write(file, "new");
             file.commit();
         },
         true, ""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        fs::remove_all(target);
        if (c.existing) WriteFile(target, "old");
        try {
            c.run(target);
            EXPECT_FALSE(c.throws);
        } catch (const Orvane::Exception& e) {
            EXPECT_TRUE(c.throws) << e.what();
        }
        EXPECT_EQ(Names(temp.Path()), std::set<std::string>{"doc.pdf"});
        if (c.after.empty()) {
            EXPECT_EQ(Names(target), std::set<std::string>{"inside"});
        } else {
            EXPECT_EQ(ReadFile(target), c.after);
        }
    }
    fs::remove_all(target);
    EXPECT_THROW(NewFile(target / "below" / "doc.pdf"), Orvane::Exception);  // no directory to write in
    EXPECT_TRUE(Names(temp.Path()).empty());
}

}  // namespace
