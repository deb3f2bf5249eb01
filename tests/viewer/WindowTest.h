// A viewer window on a real service, shown under the virtual X server. Each
// test leaves a screenshot named after it in the build's artifacts/viewer;
// settings written during a test are cleared after it.
#pragma once

#include <gtest/gtest.h>

#include <QApplication>
#include <QDir>
#include <QSettings>
#include <QTest>

#include "ViewerWindow.h"
#include "tests/support/PdfBuilder.h"

namespace QuirelleTest {

constexpr int kWindowTimeout = 60'000;

// Shows the window at the tests' size, with the keyboard.
inline void ShowWindow(Orvane::PDF::ViewerWindow& window) {
    window.resize(1000, 760);
    window.show();
    ASSERT_TRUE(QTest::qWaitForWindowExposed(&window));
    QApplication::setActiveWindow(&window);  // no window manager gives it the keyboard
}

// Saves the screenshot, closes the window without saving its document and
// forgets the settings.
inline void LeaveWindow(Orvane::PDF::ViewerWindow& window) {
    const QString dir = QStringLiteral(QUIRELLE_ARTIFACTS_DIR);
    QDir().mkpath(dir);
    window.grab().save(dir + "/" + ::testing::UnitTest::GetInstance()->current_test_info()->name() + ".png");
    window.unsavedPrompt = [](const QString&) { return Orvane::PDF::ViewerWindow::Unsaved::Discard; };
    window.close();
    QSettings().clear();
}

class WindowTest : public ::testing::Test {
protected:
    void SetUp() override { ShowWindow(window); }
    void TearDown() override { LeaveWindow(window); }

    TempDir temp;
    Orvane::PDF::Quirelle service{nullptr};
    Orvane::PDF::ViewerWindow window{service};
};

}  // namespace QuirelleTest
