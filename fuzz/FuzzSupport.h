#pragma once

// Shared by the fuzz targets, their regression runners and the damaged-file
// tests: the documents the fixture builder makes, the seed inputs of each
// target, and drivers that put one document through every engine call or
// every service request. Failures that the engine and the service report
// (exceptions, failed futures, false) are expected and swallowed; a crash,
// a hang or a leak is what these drivers are for.

#include <Quirelle>
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace QuirelleFuzz {

// One file of each kind the builder makes: text, shapes, images with and
// without alpha, links of every kind, annotations, rotation and crop box,
// inherited attributes, named destinations and each encryption method.
std::vector<std::string> FixtureDocuments();

// A directory of this process for scratch files, made on first use (on
// /dev/shm where it exists); removed at exit.
const std::filesystem::path& ScratchDir();
// Writes bytes to a file of the scratch directory and returns its path.
std::filesystem::path WriteScratch(const std::string& name, const std::string& bytes);

// Opens bytes with the engine on the calling thread (which must hold the
// engine's context) and calls everything on it: page geometry, a small
// render, text and search, annotations and links, object bounds, import into
// a new document, save, delete, blank page.
void ExerciseEngine(const std::string& bytes);

// Every request of the service on an open document (or on an id that is
// not open), each awaited; scratch files go to the scratch directory.
void ExerciseService(Orvane::PDF::Quirelle& service, int64_t id);

// The service's requests driven by a byte code over two documents: how the
// service fuzz target reads its input. The input is: a 4-byte length and
// the first document, a 4-byte length and the second document, then one
// request per byte with its arguments taken from the bytes that follow.
void RunServiceProgram(Orvane::PDF::Quirelle& service, const uint8_t* data, size_t size);
std::string ServiceProgram(const std::string& first, const std::string& second, const std::string& requests);

// Logs errors only: the fuzz targets run millions of inputs.
void QuietLogs();
// A Quirelle for the whole process (the fuzz targets run many inputs); also
// quiets the logs.
Orvane::PDF::Quirelle& SharedService();

// Seed inputs of each target.
std::vector<std::string> EngineSeeds();
std::vector<std::string> ImageSeeds();
std::vector<std::string> ServiceSeeds();

}  // namespace QuirelleFuzz
