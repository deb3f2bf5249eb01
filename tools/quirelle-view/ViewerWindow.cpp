#include "ViewerWindow.h"

#include <orvane/pdf/ImageFiles.h>

#include <QAction>
#include <QDesktopServices>
#include <QFileDialog>
#include <QFileInfo>
#include <QInputDialog>
#include <QLabel>
#include <QMenuBar>
#include <QMessageBox>
#include <QSplitter>
#include <QStatusBar>
#include <QToolBar>
#include <QUrl>
#include <QVBoxLayout>
#include <algorithm>

#include "FindBar.h"

namespace Orvane::PDF {

namespace {
const QString kPdfFilter = QObject::tr("PDF files (*.pdf)");
}  // namespace

QString ViewerWindow::OpenFilter() {
    QString patterns = "*.pdf";
    for (std::string_view extension : kImageFileExtensions)
        patterns += " *" + QString::fromLatin1(extension.data(), static_cast<int>(extension.size()));
    return tr("Documents (%1);;All files (*)").arg(patterns);
}

ViewerWindow::ViewerWindow(IPDFProvider& service, QWidget* parent)
    : QMainWindow(parent),
      service_(service),
      view_(new QuirelleView(service)),
      thumbnails_(new ThumbnailStrip(service)),
      findBar_(new FindBar(service, *view_)) {
    auto pane = new QWidget;
    auto column = new QVBoxLayout(pane);
    column->setContentsMargins(0, 0, 0, 0);
    column->setSpacing(0);
    column->addWidget(view_, 1);
    column->addWidget(findBar_);
    auto splitter = new QSplitter;
    splitter->addWidget(thumbnails_);
    splitter->addWidget(pane);
    splitter->setStretchFactor(1, 1);
    splitter->setSizes({thumbnails_->minimumWidth(), 1});
    setCentralWidget(splitter);

    passwordPrompt = [this](const QString& file, bool again, QString& password) {
        bool ok = false;
        password = QInputDialog::getText(
            this, tr("Password"),
            (again ? tr("Wrong password. ") : QString()) + tr("%1 is protected. Password:").arg(file),
            QLineEdit::Password, QString(), &ok);
        return ok;
    };
    connect(view_, &QuirelleView::CurrentPageChanged, this, [this](int page) {
        thumbnails_->SetCurrentPage(page);
        UpdateStatus();
    });
    connect(view_, &QuirelleView::ZoomChanged, this, &ViewerWindow::UpdateStatus);
    connect(view_, &QuirelleView::UriActivated, this, [](const QString& uri) { QDesktopServices::openUrl(QUrl(uri)); });
    connect(thumbnails_, &ThumbnailStrip::PageActivated, this, [this](int page) { view_->GoToPage(page); });
    connect(thumbnails_, &ThumbnailStrip::MovePagesRequested, this, &ViewerWindow::MovePages);
    BuildMenus();
    UpdateTitle();
    resize(1000, 760);
}

ViewerWindow::~ViewerWindow() = default;

void ViewerWindow::BuildMenus() {
    auto add = [this](QMenu* menu, const QString& text, QKeySequence keys, auto slot) {
        QAction* action = menu->addAction(text, this, slot);
        action->setShortcut(keys);
        return action;
    };
    QMenu* file = menuBar()->addMenu(tr("&File"));
    QAction* open = add(file, tr("&Open..."), QKeySequence::Open, [this] {
        const QString path = QFileDialog::getOpenFileName(this, tr("Open"), QString(), OpenFilter());
        if (!path.isEmpty()) OpenFile(path);
    });
    add(file, tr("&Import pages..."), QKeySequence(tr("Ctrl+I")), &ViewerWindow::ImportFile);
    add(file, tr("&Export selected pages..."), QKeySequence(tr("Ctrl+E")), &ViewerWindow::ExportSelected);
    file->addSeparator();
    QAction* save = add(file, tr("&Save"), QKeySequence::Save, &ViewerWindow::Save);
    add(file, tr("Save &as..."), QKeySequence::SaveAs, [this] {
        const QString path = QFileDialog::getSaveFileName(this, tr("Save as"), path_, kPdfFilter);
        if (!path.isEmpty()) SaveAs(path);
    });
    file->addSeparator();
    add(file, tr("&Quit"), QKeySequence::Quit, &QWidget::close);

    QMenu* viewMenu = menuBar()->addMenu(tr("&View"));
    add(viewMenu, tr("&Find..."), QKeySequence::Find, [this] { findBar_->Activate(); });
    add(viewMenu, tr("Find &next"), QKeySequence::FindNext, [this] { findBar_->Next(); });
    add(viewMenu, tr("Find &previous"), QKeySequence::FindPrevious, [this] { findBar_->Previous(); });
    viewMenu->addSeparator();
    QAction* zoomIn = add(viewMenu, tr("Zoom &in"), QKeySequence::ZoomIn, [this] { view_->ZoomIn(); });
    QAction* zoomOut = add(viewMenu, tr("Zoom &out"), QKeySequence::ZoomOut, [this] { view_->ZoomOut(); });
    QAction* fitWidth = add(viewMenu, tr("Fit &width"), QKeySequence(tr("Ctrl+2")),
                            [this] { view_->SetZoomMode(QuirelleView::ZoomMode::FitWidth); });
    QAction* fitPage = add(viewMenu, tr("Fit &page"), QKeySequence(tr("Ctrl+1")),
                           [this] { view_->SetZoomMode(QuirelleView::ZoomMode::FitPage); });
    add(viewMenu, tr("Actual si&ze"), QKeySequence(tr("Ctrl+0")), [this] { view_->SetZoom(1.0); });

    QMenu* pages = menuBar()->addMenu(tr("&Pages"));
    QAction* rotate = add(pages, tr("Rotate &clockwise"), QKeySequence(tr("Ctrl+R")),
                          [this] { Rotate(IPDFProvider::RotateClockwise); });
    add(pages, tr("Rotate counter-clockwise"), QKeySequence(tr("Ctrl+Shift+R")),
        [this] { Rotate(IPDFProvider::RotateCounterClockwise); });
    add(pages, tr("&Delete"), QKeySequence(tr("Ctrl+Del")), &ViewerWindow::DeleteSelected);
    add(pages, tr("Move &up"), QKeySequence(tr("Ctrl+Shift+Up")), [this] {
        const QVector<int> selected = TargetPages();
        if (!selected.isEmpty() && selected.first() > 0) MovePages(selected, selected.first() - 1);
    });
    add(pages, tr("Move do&wn"), QKeySequence(tr("Ctrl+Shift+Down")), [this] {
        const QVector<int> selected = TargetPages();
        if (!selected.isEmpty() && selected.last() + 1 < view_->PageCount()) MovePages(selected, selected.last() + 2);
    });

    QToolBar* tools = addToolBar(tr("Tools"));
    tools->setMovable(false);
    for (QAction* action : {open, save, zoomOut, zoomIn, fitWidth, fitPage, rotate}) tools->addAction(action);
    statusBar()->showMessage(tr("Open a PDF or image file (Ctrl+O)"));
}

void ViewerWindow::OpenFile(const QString& path) {
    OpenDocument(path, std::string(), false, [this, path](int64_t id) {
        if (id < 0) {
            emit Opened(false);
            return;
        }
        if (doc_ >= 0) service_.CloseDoument(doc_);
        path_ = path;
        modified_ = false;
        Show(id);
        emit Opened(true);
    });
}

void ViewerWindow::OpenDocument(const QString& path, const std::string& password, bool again,
                                std::function<void(int64_t)> done) {
    WhenReady(this, service_.OpenDocument(path.toStdString(), password),
              [this, path, again, done](std::future<IPDFProvider::OpenDocInfo>& answer) {
                  const IPDFProvider::OpenDocInfo info = answer.get();
                  if (info.id >= 0) return done(info.id);
                  QString password;
                  if (!info.passwordError) {
                      ShowError(tr("Cannot open %1: not a PDF or image file, or damaged.").arg(path));
                  } else if (passwordPrompt(QFileInfo(path).fileName(), again, password)) {
                      return OpenDocument(path, password.toStdString(), true, done);
                  }
                  done(-1);
              });
}

void ViewerWindow::Show(int64_t id) {
    doc_ = id;
    findBar_->Clear();
    view_->SetDocument(id);
    thumbnails_->SetDocument(id);
    UpdateTitle();
    UpdateStatus();
}

QVector<int> ViewerWindow::TargetPages() const {
    QVector<int> pages = thumbnails_->SelectedPages();
    if (pages.isEmpty() && view_->CurrentPage() >= 0) pages.push_back(view_->CurrentPage());
    return pages;
}

void ViewerWindow::RunEdit(const QString& what, std::vector<std::future<void>> steps) {
    if (steps.empty()) return;
    busy_ = true;
    // The worker runs one document's edits in the order they were queued:
    // once the last is done, all are.
    auto last = std::move(steps.back());
    steps.pop_back();
    auto earlier = std::make_shared<std::vector<std::future<void>>>(std::move(steps));
    WhenReady(this, std::move(last), [this, what, earlier](std::future<void>& done) {
        busy_ = false;
        try {
            for (auto& step : *earlier) step.get();
            done.get();
        } catch (const std::exception& e) {
            ShowError(tr("%1 failed: %2").arg(what, QString::fromStdString(e.what())));
        }
        modified_ = true;
        findBar_->Clear();
        view_->Reload();
        thumbnails_->Reload();
        thumbnails_->clearSelection();
        UpdateTitle();
        statusBar()->showMessage(what, 3000);
        emit Edited();
    });
}

void ViewerWindow::MovePages(const QVector<int>& pages, int destination) {
    if (doc_ < 0 || busy_ || pages.isEmpty()) return;
    std::vector<std::future<void>> steps;
    steps.push_back(service_.MovePages(doc_, std::vector<unsigned>(pages.begin(), pages.end()),
                                       static_cast<unsigned>(destination)));
    RunEdit(tr("Moved %n page(s)", nullptr, pages.size()), std::move(steps));
}

void ViewerWindow::Rotate(IPDFProvider::PageRotation rotation) {
    if (doc_ < 0 || busy_) return;
    std::vector<std::future<void>> steps;
    for (int page : TargetPages()) steps.push_back(service_.RotatePage(doc_, static_cast<unsigned>(page), rotation));
    RunEdit(tr("Rotated"), std::move(steps));
}

void ViewerWindow::DeleteSelected() {
    if (doc_ < 0 || busy_) return;
    QVector<int> pages = TargetPages();
    std::sort(pages.rbegin(), pages.rend());  // highest first: each deletion renumbers the pages behind it
    std::vector<std::future<void>> steps;
    steps.push_back(service_.DeletePages(doc_, std::vector<unsigned>(pages.begin(), pages.end())));
    RunEdit(tr("Deleted %n page(s)", nullptr, pages.size()), std::move(steps));
}

void ViewerWindow::ImportFile() {
    if (doc_ < 0 || busy_) return;
    const QString path = QFileDialog::getOpenFileName(this, tr("Import pages from"), QString(), OpenFilter());
    if (path.isEmpty()) return;
    const int position = view_->CurrentPage() + 1;
    OpenDocument(path, std::string(), false, [this, position](int64_t source) {
        if (source < 0 || doc_ < 0) return;
        std::vector<std::future<void>> steps;
        steps.push_back(service_.ImportAllPages(source, doc_, position));
        steps.push_back(service_.CloseDoument(source));
        RunEdit(tr("Imported pages"), std::move(steps));
    });
}

void ViewerWindow::ExportSelected() {
    if (doc_ < 0) return;
    const QVector<int> pages = TargetPages();
    const QString path =
        QFileDialog::getSaveFileName(this, tr("Export %n page(s)", nullptr, pages.size()), QString(), kPdfFilter);
    if (path.isEmpty()) return;
    WhenReady(this, service_.ExportPagesTo(doc_, std::vector<unsigned>(pages.begin(), pages.end()), path.toStdString()),
              [this, path](std::future<bool>& written) {
                  if (written.get()) {
                      statusBar()->showMessage(tr("Exported to %1").arg(path), 5000);
                  } else {
                      ShowError(tr("Could not export to %1.").arg(path));
                  }
              });
}

void ViewerWindow::Save() {
    if (doc_ < 0) return;
    // An image file opened as a document is saved as a new PDF, never over the image.
    if (path_.isEmpty() || !path_.endsWith(QLatin1String(".pdf"), Qt::CaseInsensitive)) {
        const QString path = QFileDialog::getSaveFileName(this, tr("Save as"), QString(), kPdfFilter);
        if (!path.isEmpty()) SaveAs(path);
        return;
    }
    SaveAs(path_);
}

void ViewerWindow::SaveAs(const QString& path) {
    if (doc_ < 0 || busy_) return;
    busy_ = true;
    auto saving = path == path_ ? service_.SaveDocument(doc_) : service_.SaveDocumentAs(doc_, path.toStdString());
    WhenReady(this, std::move(saving), [this, path](std::future<bool>& answer) {
        busy_ = false;
        bool ok = false;
        QString reason;
        try {
            ok = answer.get();
        } catch (const std::exception& e) {
            reason = QString::fromStdString(e.what());
        }
        if (ok) {
            path_ = path;
            modified_ = false;
            UpdateTitle();
            statusBar()->showMessage(tr("Saved %1").arg(path), 5000);
        } else {
            ShowError(tr("Could not save %1. %2").arg(path, reason));
        }
        emit Saved(ok);
    });
}

void ViewerWindow::ShowError(const QString& text) {
    statusBar()->showMessage(text);
    auto box = new QMessageBox(QMessageBox::Warning, tr("quirelle-view"), text, QMessageBox::Ok, this);
    box->setAttribute(Qt::WA_DeleteOnClose);
    box->open();
}

void ViewerWindow::UpdateTitle() {
    const QString name = path_.isEmpty() ? tr("quirelle-view") : QFileInfo(path_).fileName();
    setWindowTitle(modified_ ? name + QLatin1String(" *") : name);
}

void ViewerWindow::UpdateStatus() {
    if (doc_ < 0) return;
    statusBar()->showMessage(tr("Page %1 of %2   %3 %")
                                 .arg(view_->CurrentPage() + 1)
                                 .arg(view_->PageCount())
                                 .arg(qRound(view_->Zoom() * 100)));
}

}  // namespace Orvane::PDF
