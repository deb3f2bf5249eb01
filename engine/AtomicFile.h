#pragma once

// Writing a file so that whoever reads it sees the old file or the whole new
// one, never a part: the new file is written beside the target, flushed, and
// renamed over it. POSIX only; nothing here touches the engine.

#include <sys/types.h>

#include <filesystem>
#include <string>

namespace Orvane::PDF::Pdfium {

// The new file, written in the target's directory. It has no name while it
// is written (O_TMPFILE), so a process that dies while saving leaves nothing
// behind; a filesystem that cannot make unnamed files gets a hidden named
// file instead, removed unless committed.
class NewFile {
public:
    // Throws Orvane::Exception when the directory takes no new file.
    explicit NewFile(const std::filesystem::path& target);
    // Removes the file unless committed.
    ~NewFile();
    NewFile(const NewFile&) = delete;
    NewFile& operator=(const NewFile&) = delete;

    int fd() const { return fd_; }

    // Flushes the data to the disk and puts the file in the target's place
    // (Orvane::Exception when it cannot; the target is then as it was).
    void commit();

private:
    void linkIntoPlace();
    void replaceTarget(const std::string& from);

    std::filesystem::path target_;
    int fd_ = -1;
    std::string path_;  // empty for an unnamed file
    bool committed_ = false;
};

// The permission bits for a new file: those of the file it replaces, else
// what the process's umask leaves of rw-rw-rw-.
mode_t modeFor(const std::filesystem::path& target);

}  // namespace Orvane::PDF::Pdfium
