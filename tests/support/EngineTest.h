#pragma once

// Base fixture for tests that drive the engine directly: the test thread gets
// its MuPDF context for the test's duration, and a scratch directory.

#include <gtest/gtest.h>

#include <memory>

#include "engine/Context.h"
#include "tests/support/PdfBuilder.h"

namespace QuirelleTest {

class EngineTest : public ::testing::Test {
protected:
    void SetUp() override { Orvane::PDF::Pdfium::PdfiumInitializer::Instance().InitLibrary(); }
    // Tests release their documents before this runs (members of the test die
    // after TearDown, so keep documents as locals or reset them).
    void TearDown() override { Orvane::PDF::Pdfium::PdfiumInitializer::Instance().Uninitialize(); }

    TempDir temp;
};

}  // namespace QuirelleTest
