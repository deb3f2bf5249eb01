#include "engine/AtomicFile.h"

#include <fcntl.h>
#include <glog/logging.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <utility>
#include <vector>

#include "orvane/Exception.h"

namespace Orvane::PDF::Pdfium {
namespace {

namespace fs = std::filesystem;

std::string errorText(int err) {
    return std::strerror(err);
}

// The directory a file at target lives in.
fs::path directoryOf(const fs::path& target) {
    return target.has_parent_path() ? target.parent_path() : fs::path(".");
}

// A name for a file beside the target that no other file has yet: hidden,
// after the target's name (cut short enough for any file name the target
// itself may have), with six random letters and digits.
std::string hiddenName(const fs::path& target) {
    static const char letters[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789";
    static std::atomic<uint64_t> counter{0};
    uint64_t seed = uint64_t(std::chrono::steady_clock::now().time_since_epoch().count()) ^
                    (uint64_t(::getpid()) << 32) ^ (counter.fetch_add(1) * 0x9E3779B97F4A7C15ull);
    std::string base = target.filename().string();
    if (base.size() > 200) base.resize(200);
    std::string name = "." + base + ".";
    for (int i = 0; i < 6; ++i) {
        seed = seed * 6364136223846793005ull + 1442695040888963407ull;
        name += letters[(seed >> 33) % (sizeof letters - 1)];
    }
    return (directoryOf(target) / name).string();
}

}  // namespace

NewFile::NewFile(const fs::path& target) : target_(target) {
    const fs::path dir = directoryOf(target);
#ifdef O_TMPFILE
    // Linking the file into place goes through its /proc/self/fd entry.
    if (::access("/proc/self/fd", X_OK) == 0) {
        fd_ = ::open(dir.c_str(), O_TMPFILE | O_WRONLY | O_CLOEXEC, 0600);
        if (fd_ >= 0) return;
    }
#endif
    std::string pattern = hiddenName(target);
    pattern.replace(pattern.size() - 6, 6, "XXXXXX");
    std::vector<char> name(pattern.begin(), pattern.end());
    name.push_back('\0');
    fd_ = ::mkstemp(name.data());
    if (fd_ < 0) {
        throw Orvane::Exception("cannot create a temporary file in " + dir.string() + ": " + errorText(errno));
    }
    path_ = name.data();
}

NewFile::~NewFile() {
    if (fd_ >= 0) ::close(fd_);
    if (!path_.empty() && !committed_ && ::unlink(path_.c_str()) != 0 && errno != ENOENT) {
        LOG(WARNING) << "cannot remove the temporary file " << path_ << ": " << errorText(errno);
    }
}

void NewFile::commit() {
    if (::fsync(fd_) != 0) throw Orvane::Exception("cannot write " + target_.string() + ": " + errorText(errno));
    if (path_.empty()) {
        linkIntoPlace();
    } else {
        if (::close(std::exchange(fd_, -1)) != 0) {
            throw Orvane::Exception("cannot write " + path_ + ": " + errorText(errno));
        }
        replaceTarget(path_);
    }
    committed_ = true;
    if (fd_ >= 0) ::close(std::exchange(fd_, -1));
    // The new name is durable once the directory is.
    const fs::path dir = directoryOf(target_);
    const int dirFd = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dirFd < 0 || ::fsync(dirFd) != 0) {
        LOG(WARNING) << "cannot flush the directory " << dir.string() << ": " << errorText(errno);
    }
    if (dirFd >= 0) ::close(dirFd);
}

// Gives the unnamed file the target's name. linkat cannot replace a file,
// so over an existing target the file is linked under a hidden name and
// renamed at once: that name exists only between the two calls.
void NewFile::linkIntoPlace() {
    const std::string self = "/proc/self/fd/" + std::to_string(fd_);
    if (::linkat(AT_FDCWD, self.c_str(), AT_FDCWD, target_.c_str(), AT_SYMLINK_FOLLOW) == 0) return;
    if (errno != EEXIST) {
        throw Orvane::Exception("cannot write " + target_.string() + ": " + errorText(errno));
    }
    for (int attempt = 0;; ++attempt) {
        const std::string hidden = hiddenName(target_);
        if (::linkat(AT_FDCWD, self.c_str(), AT_FDCWD, hidden.c_str(), AT_SYMLINK_FOLLOW) == 0) {
            try {
                replaceTarget(hidden);
            } catch (...) {
                ::unlink(hidden.c_str());
                throw;
            }
            return;
        }
        if (errno != EEXIST || attempt == 100) {
            throw Orvane::Exception("cannot write " + target_.string() + ": " + errorText(errno));
        }
    }
}

void NewFile::replaceTarget(const std::string& from) {
    if (::rename(from.c_str(), target_.c_str()) != 0) {
        throw Orvane::Exception("cannot replace " + target_.string() + ": " + errorText(errno));
    }
}

mode_t modeFor(const fs::path& target) {
    struct stat st;
    if (::stat(target.c_str(), &st) == 0) return st.st_mode & 07777;
    mode_t mask = 022;
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.rfind("Umask:", 0) == 0) {
            mask = mode_t(std::strtoul(line.c_str() + 6, nullptr, 8));
            break;
        }
    }
    return 0666 & ~mask;
}

}  // namespace Orvane::PDF::Pdfium
