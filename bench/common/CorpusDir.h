#pragma once

// Where bench/fetch-corpus.sh keeps the real-document corpus: the downloaded
// packages in debs/, the unpacked files in x/.

#include <cstdlib>
#include <filesystem>

namespace QuirelleBench {

inline std::filesystem::path CorpusDir() {
    auto env = [](const char* name) -> const char* {
        const char* value = std::getenv(name);
        return value != nullptr && *value != '\0' ? value : nullptr;
    };
    if (const char* dir = env("QUIRELLE_CORPUS_DIR")) return dir;
    if (const char* cache = env("XDG_CACHE_HOME")) return std::filesystem::path(cache) / "quirelle-corpus";
    const char* home = env("HOME");
    return std::filesystem::path(home != nullptr ? home : "/tmp") / ".cache" / "quirelle-corpus";
}

}  // namespace QuirelleBench
