// Runs the quirelle binary in a directory, as a person runs it from a shell.
#pragma once

#include <sys/wait.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "tests/support/PdfBuilder.h"

namespace QuirelleTest {

struct CliResult {
    int status = -1;
    std::string out, err;
};

// `args` is shell text: quoting is the caller's.
inline CliResult RunCli(const std::filesystem::path& dir, const std::string& args) {
    const std::string command = "cd '" + dir.string() + "' && '" QUIRELLE_CLI "' " + args + " >out.txt 2>err.txt";
    const int raw = std::system(command.c_str());
    return {WIFEXITED(raw) ? WEXITSTATUS(raw) : -1, ReadFile(dir / "out.txt"), ReadFile(dir / "err.txt")};
}

}  // namespace QuirelleTest
