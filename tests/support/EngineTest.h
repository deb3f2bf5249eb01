#pragma once

// Base fixture for tests that drive the engine directly: the test thread gets
// its MuPDF context for the test's duration, and a scratch directory.

#include <gtest/gtest.h>

#include <chrono>
#include <cstddef>
#include <memory>

#include "engine/Context.h"
#include "orvane/pdf/EngineLimits.h"
#include "tests/support/PdfBuilder.h"

namespace QuirelleTest {

class EngineTest : public ::testing::Test {
protected:
    void SetUp() override { Orvane::PDF::Pdfium::PdfiumInitializer::Instance().InitLibrary(); }
    // Tests release their documents before this runs (members of the test die
    // after TearDown, so keep documents as locals or reset them).
    void TearDown() override {
        Orvane::PDF::SetEngineLimits(saved);
        Orvane::PDF::Pdfium::PdfiumInitializer::Instance().Uninitialize();
    }
    // The engine's limits for the rest of the test (restored after it).
    void SetTimeBudget(std::chrono::milliseconds budget) {
        Orvane::PDF::EngineLimits limits = saved;
        limits.timeBudget = budget;
        Orvane::PDF::SetEngineLimits(limits);
    }
    void SetMemoryLimit(size_t bytes) {
        Orvane::PDF::EngineLimits limits = saved;
        limits.memoryLimitBytes = bytes;
        Orvane::PDF::SetEngineLimits(limits);
    }
    const Orvane::PDF::EngineLimits saved = Orvane::PDF::GetEngineLimits();

    TempDir temp;
};

}  // namespace QuirelleTest
