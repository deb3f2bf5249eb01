// Saving never loses the file it replaces and leaves nothing beside it: not
// when the saving process is killed at any moment, not when the location is
// missing, read-only or full, nor when the write fails half-way.

#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <QImage>
#include <chrono>
#include <map>
#include <random>
#include <thread>

#include "orvane/Exception.h"
#include "tests/engine/DocumentTestSupport.h"

extern char** environ;

namespace QuirelleTest {
namespace {

namespace fs = std::filesystem;

std::vector<std::string> Names(const fs::path& dir) {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(dir)) names.push_back(entry.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
}

// The file without its trailer dictionary, whose /ID changes with every save.
std::string WithoutTrailer(const std::string& bytes) {
    const size_t trailer = bytes.rfind("trailer");
    const size_t end = bytes.find("startxref", trailer);
    if (trailer == std::string::npos || end == std::string::npos) return bytes;
    return bytes.substr(0, trailer) + bytes.substr(end);
}

// Starts save_loop and returns its pid once it has begun saving.
pid_t StartSaving(const fs::path& first, const fs::path& second, const fs::path& target) {
    int fds[2];
    if (::pipe(fds) != 0) return -1;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, fds[1], STDOUT_FILENO);
    posix_spawn_file_actions_addclose(&actions, fds[0]);
    const std::string args[] = {QUIRELLE_SAVE_LOOP, first.string(), second.string(), target.string()};
    char* argv[] = {const_cast<char*>(args[0].c_str()), const_cast<char*>(args[1].c_str()),
                    const_cast<char*>(args[2].c_str()), const_cast<char*>(args[3].c_str()), nullptr};
    pid_t pid = -1;
    if (::posix_spawn(&pid, argv[0], &actions, nullptr, argv, environ) != 0) pid = -1;
    posix_spawn_file_actions_destroy(&actions);
    ::close(fds[1]);
    char ready = 0;
    if (pid > 0 && ::read(fds[0], &ready, 1) != 1) {
        ::kill(pid, SIGKILL);
        ::waitpid(pid, nullptr, 0);
        pid = -1;
    }
    ::close(fds[0]);
    return pid;
}

// A page of noise: a few hundred KB that do not compress.
std::shared_ptr<Pdfium::PdfDocument> NoiseDocument(int size) {
    QImage noise(size, size, QImage::Format_RGB32);
    std::mt19937 random(size);
    for (int y = 0; y < size; ++y)
        for (int x = 0; x < size; ++x) noise.setPixel(x, y, random());
    auto doc = std::make_shared<Pdfium::PdfDocument>(nullptr);
    doc->CreatePageFromImage(0, Util::CreateBitmapFromQImage(noise), 100, 100);
    return doc;
}

class SaveTest : public FileTest {};

TEST_F(SaveTest, ProcessKilledWhileSavingLeavesTheOldOrTheNewFileAndNothingElse) {
    // Two documents whose saves differ, each saved once to know its bytes.
    const fs::path first = temp.File("first.pdf"), second = temp.File("second.pdf");
    NoiseDocument(300)->Save(first, 0);
    PdfBuilder().AddNumberedPages(200).Save(second);
    std::map<std::string, int> seen;
    std::chrono::microseconds round{0};
    for (const fs::path& source : {first, second}) {
        const fs::path saved = temp.File("saved.pdf");
        const auto start = std::chrono::steady_clock::now();
        OpenFile(source)->Save(saved, 0);
        round += std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now() - start);
        ASSERT_TRUE(QpdfClean(saved));
        seen[WithoutTrailer(ReadFile(saved))] = 0;
    }
    ASSERT_EQ(seen.size(), 2u);
    const fs::path dir = temp.File("out"), target = dir / "target.pdf";
    fs::create_directory(dir);
    OpenFile(first)->Save(target, 0);

    std::mt19937 random(20261123);
    // Kills spread over about two rounds of saving (slower under sanitizers).
    std::uniform_int_distribution<long> delayUs(0, std::max(10000L, long(2 * round.count())));
    int leftLinks = 0;
    for (int kill = 0; kill < 200; ++kill) {
        const pid_t pid = StartSaving(first, second, target);
        ASSERT_GT(pid, 0);
        std::this_thread::sleep_for(std::chrono::microseconds(delayUs(random)));
        ::kill(pid, SIGKILL);
        int status = 0;
        ASSERT_EQ(::waitpid(pid, &status, 0), pid);
        ASSERT_TRUE(WIFSIGNALED(status)) << "save_loop stopped by itself, status " << status;
        // linkat cannot replace a file: a kill between linking the finished
        // file under a hidden name and renaming it over the target leaves
        // that name behind, a whole copy of a save. Nothing else may remain.
        for (const std::string& name : Names(dir)) {
            if (name == "target.pdf") continue;
            ASSERT_EQ(seen.count(WithoutTrailer(ReadFile(dir / name))), 1u) << name << " after kill " << kill;
            fs::remove(dir / name);
            ++leftLinks;
        }
        const auto found = seen.find(WithoutTrailer(ReadFile(target)));
        ASSERT_NE(found, seen.end()) << "after kill " << kill << ", the file is neither the old nor the new one";
        ASSERT_TRUE(QpdfClean(target)) << "after kill " << kill;
        ++found->second;
    }
    // The kills fell on both sides of a save; the window between link and
    // rename is a few microseconds of CPU (about one kill in 150 falls in it
    // on a loaded machine).
    for (const auto& [bytes, count] : seen) EXPECT_GT(count, 0);
    EXPECT_LE(leftLinks, 10);
}

// A tmpfs of the given size at dir, unmounted when the object goes. Mounting
// needs root: Mounted() is false without it.
class ScratchMount {
public:
    ScratchMount(const fs::path& dir, const std::string& size) : dir_(dir) {
        fs::create_directory(dir);
        mounted_ = ::geteuid() == 0 && ::mount("tmpfs", dir.c_str(), "tmpfs", 0, ("size=" + size).c_str()) == 0;
    }
    ~ScratchMount() {
        if (mounted_) ::umount(dir_.c_str());
    }
    bool Mounted() const { return mounted_; }
    bool MakeReadOnly() const {
        return ::mount(nullptr, dir_.c_str(), nullptr, MS_REMOUNT | MS_RDONLY, "size=1m") == 0;
    }

private:
    fs::path dir_;
    bool mounted_ = false;
};

TEST_F(SaveTest, AFailedSaveThrowsAndKeepsTheOldFile) {
    auto doc = NoiseDocument(256);
    fs::create_directory(temp.File("dir.pdf"));
    for (const fs::path& bad : {temp.File("no-such-dir") / "x.pdf", fs::path(), temp.File("dir.pdf")}) {
        EXPECT_THROW(doc->Save(bad, 0), Orvane::Exception) << bad;
    }
    EXPECT_TRUE(fs::is_directory(temp.File("dir.pdf")));

    const std::string old = PdfBuilder().AddNumberedPages(1).Build();
    for (const std::string where : {"read-only", "file size limit", "full"}) {
        SCOPED_TRACE(where);
        const fs::path dir = temp.File(where), target = dir / "target.pdf";
        ScratchMount mount(dir, where == "full" ? "64k" : "1m");
        if (!mount.Mounted() && where == "full") GTEST_SKIP() << "mounting a small tmpfs needs root";
        WriteFile(target, old);
        if (where == "read-only" && mount.Mounted()) {
            ASSERT_TRUE(mount.MakeReadOnly());
        } else if (where == "read-only") {
            fs::permissions(dir, fs::perms::owner_read | fs::perms::owner_exec);
        }
        struct rlimit before, limit;
        ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &before), 0);
        limit = before;
        if (where == "file size limit") limit.rlim_cur = 4096;  // the write fails half-way
        const auto oldHandler = ::signal(SIGXFSZ, SIG_IGN);
        ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &limit), 0);
        EXPECT_THROW(doc->Save(target, 0), Orvane::Exception);
        ::setrlimit(RLIMIT_FSIZE, &before);
        ::signal(SIGXFSZ, oldHandler);
        EXPECT_EQ(ReadFile(target), old);
        EXPECT_EQ(Names(dir), std::vector<std::string>{"target.pdf"});
        if (!mount.Mounted()) fs::permissions(dir, fs::perms::owner_all);
    }
}

// Streams under no filter are deflated as they are written, each into room
// sized for zlib's defaults; one that does not compress must still fit.
TEST_F(SaveTest, StreamsThatDoNotCompressAreWrittenWhole) {
    std::vector<std::string> objects = {"<< /Type /Catalog /Pages 2 0 R /Noise [4 0 R 5 0 R 6 0 R 7 0 R 8 0 R 9 0 R] >>",
                                        "<< /Type /Pages /Kids [3 0 R] /Count 1 >>",
                                        "<< /Type /Page /Parent 2 0 R /MediaBox [0 0 100 100] >>"};
    std::mt19937 random(5);
    for (size_t size : {10, 63, 64, 3000, 5000, 12000}) {
        std::string noise(size, ' ');
        for (char& c : noise) c = char(random());
        objects.push_back(RawStream("", noise));
    }
    const fs::path saved = temp.File("saved.pdf");
    Open(RawPdf(objects))->Save(saved, 0);
    EXPECT_TRUE(QpdfClean(saved));
}

}  // namespace
}  // namespace QuirelleTest
