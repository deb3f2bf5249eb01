// Undo keeps, for every page edit, the service calls that take it back and
// the calls that make it again (PageEdit). Rotations turn the other way;
// a move puts the moved run at the end and then each page back at its old
// index, lowest first. Pages that leave the document (a deletion, or the
// undo of an insertion) are first copied into a hidden scratch document,
// created with each document shown, and imported back from there: a slot of
// scratch pages belongs to one edit for its whole life, so redoing and
// undoing again copies nothing more. Pages brought back are copies: links
// from other pages that pointed at the removed ones do not follow them.
//
// The service serves each kind of call from its own queue, so calls of
// different kinds do not keep the order they were made in; an edit's steps
// therefore run one after another, each once the previous one is answered.

#include "ViewerWindow.h"

#include <orvane/pdf/ImageFiles.h>

#include <QAction>
#include <QCloseEvent>
#include <QClipboard>
#include <QCryptographicHash>
#include <QDateTime>
#include <QDialog>
#include <QDialogButtonBox>
#include <QFormLayout>
#include <QDesktopServices>
#include <QFileDialog>
#include <QFileInfo>
#include <QInputDialog>
#include <QIntValidator>
#include <QLabel>
#include <QLineEdit>
#include <QMenuBar>
#include <QMessageBox>
#include <QPainter>
#include <QPrintDialog>
#include <QPrinter>
#include <QSettings>
#include <QSplitter>
#include <QTabBar>
#include <QStatusBar>
#include <QTabWidget>
#include <QToolBar>
#include <QUrl>
#include <QVBoxLayout>
#include <algorithm>
#include <cmath>
#include <stdexcept>

#include "AnnotationCommands.h"
#include "FindBar.h"
#include "PresentationWindow.h"

namespace Orvane::PDF {

namespace {
const QString kPdfFilter = QObject::tr("PDF files (*.pdf)");
constexpr int kRecentFiles = 10;
constexpr qint64 kMaxPrintPixels = 36'000'000;  // an A4 page at 600 dpi; more is drawn scaled
constexpr int kLowResolutionDpi = 150;          // for documents that allow only low-resolution printing

// Where a document was left, under a key that is safe in any settings format.
QString PlaceKey(const QString& path) {
    const QByteArray hash =
        QCryptographicHash::hash(QFileInfo(path).absoluteFilePath().toUtf8(), QCryptographicHash::Sha1);
    return QStringLiteral("places/") + QString::fromLatin1(hash.toHex());
}

std::vector<unsigned> Unsigned(const QVector<int>& pages) {
    return std::vector<unsigned>(pages.begin(), pages.end());
}
}  // namespace

QString ViewerWindow::OpenFilter() {
    QString patterns = "*.pdf";
    for (std::string_view extension : kImageFileExtensions)
        patterns += " *" + QString::fromLatin1(extension.data(), static_cast<int>(extension.size()));
    return tr("Documents (%1);;All files (*)").arg(patterns);
}

struct ViewerWindow::PageEdit {
    QString name;
    Steps undo, redo;
    QVector<int> afterUndo, afterRedo;  // the pages to show or select once done
    bool pagesKept = false;             // the page list stays (an annotation's edit)
};

ViewerWindow::ViewerWindow(IPDFProvider& service, QWidget* parent)
    : QMainWindow(parent),
      service_(service),
      view_(new QuirelleView(service)),
      reader_(dynamic_cast<IReadingProvider*>(&service)),
      thumbnails_(new ThumbnailStrip(service)),
      sidebar_(new QTabWidget),
      findBar_(new FindBar(service, *view_)),
      pageBox_(new QLineEdit),
      pageCountLabel_(new QLabel) {
    auto pane = new QWidget;
    auto column = new QVBoxLayout(pane);
    column->setContentsMargins(0, 0, 0, 0);
    column->setSpacing(0);
    column->addWidget(view_, 1);
    column->addWidget(findBar_);
    // The sidebar: a tab for each way through the document.
    sidebar_->setDocumentMode(true);
    sidebar_->addTab(thumbnails_, tr("Pages"));
    if (reader_ != nullptr) {
        outline_ = new OutlineView(*reader_);
        sidebar_->addTab(outline_, tr("Outline"));
        connect(outline_, &OutlineView::PageActivated, this, [this](int page, double y) {
            view_->JumpToPage(page, y);
            view_->setFocus();
        });
        connect(outline_, &OutlineView::UriActivated, this,
                [](const QString& uri) { QDesktopServices::openUrl(QUrl(uri)); });
        // A document that asks to open with its outline shown.
        connect(outline_, &OutlineView::Loaded, this, [this](int entries) {
            if (entries == 0 || doc_ < 0) return;
            WhenReady(this, reader_->GetDocumentInformation(doc_), [this](std::future<DocumentInformation>& answer) {
                try {
                    if (answer.get().pageMode == "UseOutlines") sidebar_->setCurrentWidget(outline_);
                } catch (const std::exception&) {
                }
            });
        });
    }
    if (auto* annotations = dynamic_cast<IAnnotationProvider*>(&service)) {
        annotations_ = new AnnotationCommands(*view_, *annotations, this);
        sidebar_->addTab(&annotations_->Panel(), tr("Annotations"));
        annotations_->commit = [this](AnnotationCommands::Edit edit) {
            if (busy_ || doc_ < 0) return false;
            const QVector<int> land{edit.page};
            Commit({edit.name, std::move(edit.undo), edit.redo, land, land, true}, edit.redo);
            return true;
        };
        connect(annotations_, &AnnotationCommands::Message, this,
                [this](const QString& text) { statusBar()->showMessage(text, 5000); });
    }
    auto splitter = new QSplitter;
    splitter->addWidget(sidebar_);
    splitter->addWidget(pane);
    splitter->setStretchFactor(1, 1);
    // Wide enough for every tab's name.
    splitter->setSizes({std::max(thumbnails_->minimumWidth(), sidebar_->tabBar()->sizeHint().width()), 1});
    setCentralWidget(splitter);

    passwordPrompt = [this](const QString& file, bool again, QString& password) {
        bool ok = false;
        password = QInputDialog::getText(
            this, tr("Password"),
            (again ? tr("Wrong password. ") : QString()) + tr("%1 is protected. Password:").arg(file),
            QLineEdit::Password, QString(), &ok);
        return ok;
    };
    unsavedPrompt = [this](const QString& file) {
        const auto answer = QMessageBox::warning(this, tr("Unsaved changes"),
                                                 tr("%1 has changes that are not saved. Save them?").arg(file),
                                                 QMessageBox::Save | QMessageBox::Discard | QMessageBox::Cancel);
        return answer == QMessageBox::Save      ? Unsaved::Save
               : answer == QMessageBox::Discard ? Unsaved::Discard
                                                : Unsaved::Cancel;
    };
    confirmPrompt = [this](const QString& question) {
        return QMessageBox::question(this, tr("quirelle-view"), question) == QMessageBox::Yes;
    };
    connect(view_, &QuirelleView::CurrentPageChanged, this, [this](int page) {
        thumbnails_->SetCurrentPage(page);
        if (outline_ != nullptr) outline_->SetCurrentPage(page);
        UpdateStatus();
    });
    connect(view_, &QuirelleView::ZoomChanged, this, &ViewerWindow::UpdateStatus);
    connect(view_, &QuirelleView::HistoryChanged, this, &ViewerWindow::UpdateActions);
    connect(view_, &QuirelleView::UriActivated, this, [](const QString& uri) { QDesktopServices::openUrl(QUrl(uri)); });
    connect(thumbnails_, &ThumbnailStrip::PageActivated, this, [this](int page) { view_->JumpToPage(page); });
    connect(thumbnails_, &ThumbnailStrip::MovePagesRequested, this, &ViewerWindow::MovePages);
    BuildMenus();
    view_->SetDarkMode(QSettings().value("darkMode", false).toBool());
    darkAction_->setChecked(view_->DarkMode());
    UpdateTitle();
    UpdateActions();
    resize(1000, 760);
}

ViewerWindow::~ViewerWindow() {
    if (scratch_ >= 0) service_.CloseDoument(scratch_);
}

void ViewerWindow::BuildMenus() {
    auto add = [this](QMenu* menu, const QString& text, QKeySequence keys, auto slot) {
        QAction* action = menu->addAction(text, this, slot);
        action->setShortcut(keys);
        return action;
    };
    QMenu* file = menuBar()->addMenu(tr("&File"));
    QAction* open = add(file, tr("&Open..."), QKeySequence::Open, [this] {
        const QString path = QFileDialog::getOpenFileName(this, tr("Open"), QString(), OpenFilter());
        if (!path.isEmpty()) OpenFile(path);  // asks about unsaved edits
    });
    recentMenu_ = file->addMenu(tr("Open &recent"));
    connect(recentMenu_, &QMenu::aboutToShow, this, &ViewerWindow::FillRecentMenu);
    FillRecentMenu();
    add(file, tr("&Close"), QKeySequence::Close, &ViewerWindow::CloseFile);
    file->addSeparator();
    add(file, tr("&Import pages..."), QKeySequence(tr("Ctrl+I")), &ViewerWindow::ImportFile);
    add(file, tr("&Export selected pages..."), QKeySequence(tr("Ctrl+E")), &ViewerWindow::ExportSelected);
    file->addSeparator();
    QAction* save = add(file, tr("&Save"), QKeySequence::Save, &ViewerWindow::Save);
    add(file, tr("Save &as..."), QKeySequence::SaveAs, [this] {
        const QString path = QFileDialog::getSaveFileName(this, tr("Save as"), path_, kPdfFilter);
        if (!path.isEmpty()) SaveAs(path);
    });
    QAction* print = add(file, tr("&Print..."), QKeySequence::Print, &ViewerWindow::PrintWithDialog);
    add(file, tr("Prope&rties..."), QKeySequence(tr("Ctrl+D")), &ViewerWindow::ShowProperties)
        ->setEnabled(reader_ != nullptr);
    file->addSeparator();
    add(file, tr("&Quit"), QKeySequence::Quit, &QWidget::close);

    QMenu* edit = menuBar()->addMenu(tr("&Edit"));
    undoAction_ = add(edit, tr("&Undo"), QKeySequence::Undo, &ViewerWindow::Undo);
    redoAction_ = add(edit, tr("&Redo"), QKeySequence::Redo, &ViewerWindow::Redo);
    redoAction_->setShortcuts({QKeySequence(tr("Ctrl+Shift+Z")), QKeySequence(tr("Ctrl+Y"))});
    edit->addSeparator();
    add(edit, tr("&Copy"), QKeySequence::Copy, [this] { view_->CopySelection(); });
    add(edit, tr("Select &all"), QKeySequence::SelectAll, [this] { view_->SelectAll(); });

    QMenu* viewMenu = menuBar()->addMenu(tr("&View"));
    add(viewMenu, tr("&Find..."), QKeySequence::Find, [this] { findBar_->Activate(); });
    add(viewMenu, tr("Find &next"), QKeySequence::FindNext, [this] { findBar_->Next(); });
    add(viewMenu, tr("Find &previous"), QKeySequence::FindPrevious, [this] { findBar_->Previous(); });
    viewMenu->addSeparator();
    backAction_ = add(viewMenu, tr("&Back"), QKeySequence(tr("Alt+Left")), [this] { view_->GoBack(); });
    forwardAction_ = add(viewMenu, tr("For&ward"), QKeySequence(tr("Alt+Right")), [this] { view_->GoForward(); });
    add(viewMenu, tr("&Go to page..."), QKeySequence(tr("Ctrl+G")), [this] {
        pageBox_->setFocus();
        pageBox_->selectAll();
    });
    viewMenu->addSeparator();
    QAction* zoomIn = add(viewMenu, tr("Zoom &in"), QKeySequence::ZoomIn, [this] { view_->ZoomIn(); });
    QAction* zoomOut = add(viewMenu, tr("Zoom &out"), QKeySequence::ZoomOut, [this] { view_->ZoomOut(); });
    QAction* fitWidth = add(viewMenu, tr("Fit &width"), QKeySequence(tr("Ctrl+2")),
                            [this] { view_->SetZoomMode(QuirelleView::ZoomMode::FitWidth); });
    QAction* fitPage = add(viewMenu, tr("Fit &page"), QKeySequence(tr("Ctrl+1")),
                           [this] { view_->SetZoomMode(QuirelleView::ZoomMode::FitPage); });
    add(viewMenu, tr("Actual si&ze"), QKeySequence(tr("Ctrl+0")), [this] { view_->SetZoom(1.0); });
    viewMenu->addSeparator();
    darkAction_ = add(viewMenu, tr("&Dark pages"), QKeySequence(tr("Ctrl+Shift+D")),
                      [this] { SetDarkMode(darkAction_->isChecked()); });
    darkAction_->setCheckable(true);
    add(viewMenu, tr("F&ull screen"), QKeySequence(tr("F11")), &ViewerWindow::ToggleFullScreen);
    add(viewMenu, tr("Pre&sentation"), QKeySequence(tr("F5")), &ViewerWindow::StartPresentation);
    ConnectForms(viewMenu);
    auto escape = new QAction(this);
    escape->setShortcut(QKeySequence(Qt::Key_Escape));
    connect(escape, &QAction::triggered, this, &ViewerWindow::Escape);
    addAction(escape);

    QMenu* pages = menuBar()->addMenu(tr("&Pages"));
    QAction* rotate = add(pages, tr("Rotate &clockwise"), QKeySequence(tr("Ctrl+R")),
                          [this] { Rotate(IPDFProvider::RotateClockwise); });
    add(pages, tr("Rotate counter-clockwise"), QKeySequence(tr("Ctrl+Shift+R")),
        [this] { Rotate(IPDFProvider::RotateCounterClockwise); });
    add(pages, tr("&Delete"), QKeySequence(tr("Ctrl+Del")), &ViewerWindow::DeleteSelected);
    add(pages, tr("Insert &blank page"), QKeySequence(tr("Ctrl+Shift+B")), &ViewerWindow::InsertBlank);
    add(pages, tr("Move &up"), QKeySequence(tr("Ctrl+Shift+Up")), [this] {
        const QVector<int> selected = TargetPages();
        if (!selected.isEmpty() && selected.first() > 0) MovePages(selected, selected.first() - 1);
    });
    add(pages, tr("Move do&wn"), QKeySequence(tr("Ctrl+Shift+Down")), [this] {
        const QVector<int> selected = TargetPages();
        if (!selected.isEmpty() && selected.last() + 1 < view_->PageCount()) MovePages(selected, selected.last() + 2);
    });
    if (annotations_ != nullptr) annotations_->AddMenu(*menuBar());

    QToolBar* tools = addToolBar(tr("Tools"));
    tools->setMovable(false);
    for (QAction* action : {open, save, print}) tools->addAction(action);
    tools->addSeparator();
    tools->addAction(backAction_);
    tools->addAction(forwardAction_);
    // The page box: a page label or number, Enter goes there (a jump Back returns from).
    pageBox_->setMaximumWidth(60);
    pageBox_->setAlignment(Qt::AlignRight);
    pageBox_->setToolTip(tr("Page label or number (Ctrl+G)"));
    connect(pageBox_, &QLineEdit::returnPressed, this, [this] {
        const int page = PageFromText(pageBox_->text());
        if (page >= 0) {
            view_->JumpToPage(page);
            view_->setFocus();
        } else {
            statusBar()->showMessage(tr("No page %1").arg(pageBox_->text()), 3000);
        }
        UpdateStatus();
    });
    tools->addWidget(pageBox_);
    tools->addWidget(pageCountLabel_);
    tools->addSeparator();
    for (QAction* action : {zoomOut, zoomIn, fitWidth, fitPage, rotate, darkAction_}) tools->addAction(action);
    statusBar()->showMessage(tr("Open a PDF or image file (Ctrl+O)"));
}

void ViewerWindow::FillRecentMenu() {
    recentMenu_->clear();
    for (const QString& path : RecentFiles()) {
        recentMenu_->addAction(QFileInfo(path).fileName() + QStringLiteral("  (") + path + QLatin1Char(')'), this,
                               [this, path] { OpenFile(path); });
    }
    recentMenu_->setEnabled(!recentMenu_->isEmpty());
}

QStringList ViewerWindow::RecentFiles() const {
    return QSettings().value("recentFiles").toStringList();
}

void ViewerWindow::AddRecent(const QString& path) {
    QStringList recent = RecentFiles();
    const QString absolute = QFileInfo(path).absoluteFilePath();
    recent.removeAll(absolute);
    recent.prepend(absolute);
    while (recent.size() > kRecentFiles) recent.removeLast();
    QSettings().setValue("recentFiles", recent);
}

bool ViewerWindow::Modified() const {
    return doc_ >= 0 && (unknownEdit_ || savedAt_ != static_cast<int>(done_.size()));
}

void ViewerWindow::KeepWorkThen(std::function<void()> next) {
    if (!Modified()) return next();
    switch (unsavedPrompt(QFileInfo(path_).fileName())) {
        case Unsaved::Discard:
            return next();
        case Unsaved::Save:
            // Goes on only once the save has succeeded.
            if (Save()) afterSave_ = std::move(next);
            return;
        case Unsaved::Cancel:
            return;
    }
}

void ViewerWindow::OpenFile(const QString& path, int page) {
    KeepWorkThen([this, path, page] {
        OpenDocument(path, std::string(), false, [this, path, page](int64_t id) {
            if (id < 0) {
                emit Opened(false);
                return;
            }
            int count = 0;
            try {
                count = service_.GetPageCount(id);
            } catch (const std::exception&) {
            }
            if (count <= 0) {
                service_.CloseDoument(id);
                ShowError(tr("Cannot open %1: no page could be read: the file is damaged.").arg(path));
                emit Opened(false);
                return;
            }
            // The scratch document first, so that every edit can be undone.
            WhenReady(this, service_.CreateDocument(),
                      [this, path, page, id](std::future<IPDFProvider::OpenDocInfo>& scratch) {
                          ForgetDocument();
                          path_ = path;
                          AddRecent(path);
                          Show(id, page);
                          scratch_ = scratch.get().id;
                          emit Opened(true);
                      });
        });
    });
}

void ViewerWindow::CloseFile() {
    KeepWorkThen([this] {
        ForgetDocument();
        Show(-1, -1);
    });
}

void ViewerWindow::ForgetDocument() {
    if (doc_ < 0) return;
    RememberPlace();
    service_.CloseDoument(doc_);
    doc_ = -1;
    path_.clear();
}

void ViewerWindow::RememberPlace() {
    if (doc_ < 0 || path_.isEmpty()) return;
    QSettings settings;
    settings.beginGroup(PlaceKey(path_));
    const QuirelleView::Position where = view_->CurrentPosition();
    settings.setValue("page", where.page);
    settings.setValue("fraction", where.fraction);
    settings.setValue("zoom", view_->Zoom());
    settings.setValue("mode", static_cast<int>(view_->Mode()));
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

void ViewerWindow::Show(int64_t id, int page) {
    doc_ = id;
    done_.clear();
    undone_.clear();
    savedAt_ = 0;
    unknownEdit_ = false;
    if (scratch_ >= 0) service_.CloseDoument(scratch_);
    scratch_ = -1;
    findBar_->Clear();
    view_->SetDocument(id);
    thumbnails_->SetDocument(id);
    sidebar_->setCurrentWidget(thumbnails_);
    if (outline_ != nullptr) outline_->SetDocument(id);
    if (annotations_ != nullptr) annotations_->SetDocument(id);
    LoadLabels();
    if (id >= 0) {
        // Where the document was left, unless a page was asked for.
        QSettings settings;
        settings.beginGroup(PlaceKey(path_));
        QuirelleView::Position where{settings.value("page", 0).toInt(), settings.value("fraction", 0.0).toDouble()};
        if (page >= 0) where = {page, 0.0};
        const auto mode = static_cast<QuirelleView::ZoomMode>(settings.value("mode", 1).toInt());
        if (mode == QuirelleView::ZoomMode::Custom) {
            view_->SetZoom(settings.value("zoom", 1.0).toDouble());
        } else {
            view_->SetZoomMode(mode);
        }
        view_->SetPosition(where);
    }
    UpdateTitle();
    UpdateStatus();
    UpdateActions();
}

bool ViewerWindow::StripHasFocus() const {
    return thumbnails_->hasFocus() && !thumbnails_->SelectedPages().isEmpty();
}

QVector<int> ViewerWindow::TargetPages() const {
    if (StripHasFocus()) return thumbnails_->SelectedPages();
    QVector<int> pages;
    if (view_->CurrentPage() >= 0) pages.push_back(view_->CurrentPage());
    return pages;
}

void ViewerWindow::RunSteps(std::shared_ptr<Steps> steps, size_t next, std::function<void(const QString& error)> done) {
    if (next == steps->size()) return done(QString());
    WhenReady(this, (*steps)[next](), [this, steps, next, done](std::future<void>& answer) {
        try {
            answer.get();
        } catch (const std::exception& e) {
            return done(QString::fromStdString(e.what()));
        }
        RunSteps(steps, next + 1, done);
    });
}

void ViewerWindow::Commit(PageEdit edit, Steps first) {
    busy_ = true;
    auto steps = std::make_shared<Steps>(std::move(first));
    RunSteps(steps, 0, [this, edit = std::move(edit)](const QString& error) mutable {
        if (error.isEmpty()) {
            if (savedAt_ > static_cast<int>(done_.size())) savedAt_ = -1;  // the saved state was undone, then left
            done_.push_back(edit);
            undone_.clear();
        }
        Finish(edit.name, error, edit.afterRedo, edit.pagesKept);
    });
}

void ViewerWindow::Finish(const QString& what, const QString& error, const QVector<int>& land, bool pagesKept) {
    busy_ = false;
    if (!error.isEmpty()) {
        // Part of the edit may have been made: no inverse is known any more.
        ShowError(tr("%1 failed: %2").arg(what, error));
        unknownEdit_ = true;
        done_.clear();
        undone_.clear();
    }
    if (pagesKept) {
        // The same pages, drawn again: the view keeps its place, selection and matches.
        view_->Redraw();
        thumbnails_->Redraw();
        annotations_->Changed(land.isEmpty() ? -1 : land.first());
        if (!land.isEmpty() && !land.contains(view_->CurrentPage())) view_->GoToPage(land.first());
        UpdateTitle();
        UpdateActions();
        statusBar()->showMessage(what, 3000);
        return emit Edited();
    }
    const bool fromStrip = thumbnails_->hasFocus();
    findBar_->Clear();
    view_->Reload();
    thumbnails_->Reload();
    if (outline_ != nullptr) outline_->Reload();
    if (annotations_ != nullptr) annotations_->Changed();
    LoadLabels();
    // The edited pages stay under the user's eyes: selected in the strip when
    // the edit came from there, else shown in the view.
    if (fromStrip) {
        thumbnails_->SelectPages(land);
    } else {
        thumbnails_->clearSelection();
    }
    if (!land.isEmpty() && land.first() < view_->PageCount() && !land.contains(view_->CurrentPage()))
        view_->GoToPage(land.first());
    UpdateTitle();
    UpdateActions();
    statusBar()->showMessage(what, 3000);
    emit Edited();
}

void ViewerWindow::Undo() {
    if (busy_ || done_.empty()) return;
    busy_ = true;
    PageEdit edit = done_.back();
    done_.pop_back();
    RunSteps(std::make_shared<Steps>(edit.undo), 0, [this, edit](const QString& error) {
        if (error.isEmpty()) undone_.push_back(edit);
        Finish(tr("Undid %1").arg(edit.name), error, edit.afterUndo, edit.pagesKept);
    });
}

void ViewerWindow::Redo() {
    if (busy_ || undone_.empty()) return;
    busy_ = true;
    PageEdit edit = undone_.back();
    undone_.pop_back();
    RunSteps(std::make_shared<Steps>(edit.redo), 0, [this, edit](const QString& error) {
        if (error.isEmpty()) done_.push_back(edit);
        Finish(tr("Redid %1").arg(edit.name), error, edit.afterRedo, edit.pagesKept);
    });
}

ViewerWindow::Steps ViewerWindow::RemoveSteps(const QVector<int>& pages, const std::shared_ptr<int>& slot) {
    const int64_t doc = doc_;
    Steps steps;
    // The copies go to the scratch document's end the first time only; the
    // slot is taken when the step runs, as edits run one at a time.
    steps.push_back([this, doc, pages, slot] {
        if (*slot >= 0) {
            std::promise<void> nothing;
            nothing.set_value();
            return nothing.get_future();
        }
        if (scratch_ < 0) throw std::runtime_error("no place to keep the pages for undo");
        *slot = service_.GetPageCount(scratch_);
        return service_.ImportPages(doc, scratch_, Unsigned(pages), -1);
    });
    QVector<int> descending = pages;
    std::sort(descending.rbegin(), descending.rend());  // each deletion renumbers the pages behind it
    steps.push_back([this, doc, descending] { return service_.DeletePages(doc, Unsigned(descending)); });
    return steps;
}

ViewerWindow::Steps ViewerWindow::RestoreSteps(const QVector<int>& pages, const std::shared_ptr<int>& slot) {
    // Lowest first, each at its old index; a run of neighbours in one call.
    const int64_t doc = doc_;
    Steps steps;
    for (int i = 0; i < pages.size();) {
        int j = i + 1;
        while (j < pages.size() && pages[j] == pages[j - 1] + 1) ++j;
        const int at = pages[i];
        steps.push_back([this, doc, slot, i, j, at] {
            if (*slot < 0 || scratch_ < 0) throw std::runtime_error("the pages to bring back were not kept");
            std::vector<unsigned> copies;
            for (int k = i; k < j; ++k) copies.push_back(static_cast<unsigned>(*slot + k));
            return service_.ImportPages(scratch_, doc, copies, at);
        });
        i = j;
    }
    return steps;
}

void ViewerWindow::MovePages(const QVector<int>& pages, int destination) {
    if (doc_ < 0 || busy_ || pages.isEmpty()) return;
    const int64_t doc = doc_;
    const int count = view_->PageCount(), n = pages.size();
    const auto before =
        static_cast<int>(std::count_if(pages.begin(), pages.end(), [&](int p) { return p < destination; }));
    const int start = destination - before;  // where the moved run lands
    QVector<int> landed;
    for (int i = 0; i < n; ++i) landed.push_back(start + i);
    Steps redo{[this, doc, pages, destination] {
        return service_.MovePages(doc, Unsigned(pages), static_cast<unsigned>(destination));
    }};
    Steps undo;
    if (start + n != count) {
        undo.push_back([this, doc, landed, count] {
            return service_.MovePages(doc, Unsigned(landed), static_cast<unsigned>(count));
        });
    }
    for (int i = 0; i < n; ++i) {
        const int from = count - n + i, to = pages[i];
        if (from != to) {
            undo.push_back([this, doc, from, to] {
                return service_.MovePages(doc, {static_cast<unsigned>(from)}, static_cast<unsigned>(to));
            });
        }
    }
    Commit({tr("Move %n page(s)", nullptr, n), undo, redo, pages, landed}, redo);
}

void ViewerWindow::Rotate(IPDFProvider::PageRotation rotation) {
    if (doc_ < 0 || busy_) return;
    const int64_t doc = doc_;
    const QVector<int> pages = TargetPages();
    if (pages.isEmpty()) return;
    auto turn = [this, doc, pages](IPDFProvider::PageRotation way) {
        Steps steps;
        for (int page : pages)
            steps.push_back(
                [this, doc, page, way] { return service_.RotatePage(doc, static_cast<unsigned>(page), way); });
        return steps;
    };
    const auto back = rotation == IPDFProvider::RotateClockwise ? IPDFProvider::RotateCounterClockwise
                                                                : IPDFProvider::RotateClockwise;
    Commit({tr("Rotate %n page(s)", nullptr, pages.size()), turn(back), turn(rotation), pages, pages}, turn(rotation));
}

void ViewerWindow::DeleteSelected() {
    if (doc_ < 0 || busy_) return;
    const QVector<int> pages = TargetPages();
    if (pages.isEmpty()) return;
    if (pages.size() >= view_->PageCount()) {
        ShowError(tr("A document keeps at least one page."));
        return;
    }
    const QString name = tr("Delete %n page(s)", nullptr, pages.size());
    if (scratch_ < 0) {
        // Without the scratch document undo could not bring them back.
        if (!confirmPrompt(tr("Delete %n page(s)? This cannot be undone.", nullptr, pages.size()))) return;
        const int64_t doc = doc_;
        QVector<int> descending = pages;
        std::sort(descending.rbegin(), descending.rend());
        auto steps = std::make_shared<Steps>(
            Steps{[this, doc, descending] { return service_.DeletePages(doc, Unsigned(descending)); }});
        busy_ = true;
        RunSteps(steps, 0, [this, name, pages](const QString& error) {
            done_.clear();
            undone_.clear();
            unknownEdit_ = true;
            Finish(name, error, {std::min(pages.first(), view_->PageCount() - 1)});
        });
        return;
    }
    auto slot = std::make_shared<int>(-1);
    const Steps remove = RemoveSteps(pages, slot);
    const QVector<int> after{std::max(0, std::min(pages.first(), view_->PageCount() - pages.size() - 1))};
    Commit({name, RestoreSteps(pages, slot), remove, pages, after}, remove);
}

void ViewerWindow::InsertBlank() {
    if (doc_ < 0 || busy_) return;
    const int64_t doc = doc_;
    const int at = view_->CurrentPage() + 1;
    const QSizeF size = view_->PageSize(std::max(0, view_->CurrentPage()));
    const int width = qRound(size.width()), height = qRound(size.height());
    auto slot = std::make_shared<int>(-1);
    PageEdit edit{tr("Insert a blank page"), RemoveSteps({at}, slot), RestoreSteps({at}, slot), {at - 1}, {at}};
    Commit(edit, {[this, doc, at, width, height] {
               return service_.AddBlankPage(doc, static_cast<unsigned>(at), width, height);
           }});
}

void ViewerWindow::ImportFile() {
    if (doc_ < 0 || busy_) return;
    const QString path = QFileDialog::getOpenFileName(this, tr("Import pages from"), QString(), OpenFilter());
    if (!path.isEmpty()) ImportFrom(path);
}

void ViewerWindow::ImportFrom(const QString& path) {
    if (doc_ < 0 || busy_) return;
    const int position = view_->CurrentPage() + 1;
    const int64_t doc = doc_;
    OpenDocument(path, std::string(), false, [this, position, doc](int64_t source) {
        if (source < 0) return;
        if (doc_ != doc || busy_) {
            service_.CloseDoument(source);
            return;
        }
        const int count = service_.GetPageCount(source);
        QVector<int> added;
        for (int page = position; page < position + count; ++page) added.push_back(page);
        auto slot = std::make_shared<int>(-1);
        PageEdit edit{tr("Import %n page(s)", nullptr, count),
                      RemoveSteps(added, slot),
                      RestoreSteps(added, slot),
                      {std::max(0, position - 1)},
                      added};
        Commit(edit, {[this, source, doc, position] { return service_.ImportAllPages(source, doc, position); },
                      [this, source] { return service_.CloseDoument(source); }});
    });
}

void ViewerWindow::ExportSelected() {
    if (doc_ < 0) return;
    const QVector<int> pages = TargetPages();
    const QString path =
        QFileDialog::getSaveFileName(this, tr("Export %n page(s)", nullptr, pages.size()), QString(), kPdfFilter);
    if (path.isEmpty()) return;
    WhenReady(this, service_.ExportPagesTo(doc_, Unsigned(pages), path.toStdString()),
              [this, path](std::future<bool>& written) {
                  if (written.get()) {
                      statusBar()->showMessage(tr("Exported to %1").arg(path), 5000);
                  } else {
                      ShowError(tr("Could not export to %1.").arg(path));
                  }
              });
}

bool ViewerWindow::Save() {
    if (doc_ < 0 || busy_) return false;
    // An image file opened as a document is saved as a new PDF, never over the image.
    if (path_.isEmpty() || !path_.endsWith(QLatin1String(".pdf"), Qt::CaseInsensitive)) {
        const QString path = QFileDialog::getSaveFileName(this, tr("Save as"), QString(), kPdfFilter);
        if (path.isEmpty()) return false;
        SaveAs(path);
        return true;
    }
    SaveAs(path_);
    return true;
}

void ViewerWindow::SaveAs(const QString& path) {
    if (doc_ < 0 || busy_) return;
    // The field being filled in goes in first.
    if (FormEditing* forms = view_->Forms(); forms != nullptr && forms->Editor() != nullptr)
        return forms->Commit([this, path] { SaveAs(path); });
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
        auto next = std::exchange(afterSave_, nullptr);
        if (ok) {
            path_ = path;
            savedAt_ = static_cast<int>(done_.size());
            unknownEdit_ = false;
            AddRecent(path);
            UpdateTitle();
            statusBar()->showMessage(tr("Saved %1").arg(path), 5000);
        } else {
            ShowError(tr("Could not save %1. %2").arg(path, reason));
        }
        emit Saved(ok);
        if (ok && next) next();
    });
}

void ViewerWindow::PrintWithDialog() {
    if (doc_ < 0) return;
    auto printer = std::make_shared<QPrinter>(QPrinter::HighResolution);
    QPrintDialog dialog(printer.get(), this);
    dialog.setMinMax(1, view_->PageCount());
    dialog.setOption(QAbstractPrintDialog::PrintCurrentPage);
    if (dialog.exec() != QDialog::Accepted) return;
    QVector<int> pages;
    int first = 0, last = view_->PageCount() - 1;
    if (printer->printRange() == QPrinter::PageRange) {
        first = printer->fromPage() - 1;
        last = std::min(last, printer->toPage() - 1);
    } else if (printer->printRange() == QPrinter::CurrentPage) {
        first = last = view_->CurrentPage();
    }
    for (int page = first; page <= last; ++page) pages.push_back(page);
    Print(printer, pages);
}

void ViewerWindow::Print(const std::shared_ptr<QPrinter>& printer, const QVector<int>& pages) {
    if (doc_ < 0 || pages.isEmpty()) return emit Printed(false);
    if (service_.IsPrintProtected(doc_)) {
        ShowError(tr("%1 does not allow printing.").arg(QFileInfo(path_).fileName()));
        return emit Printed(false);
    }
    if (service_.IsPrintLowResolution(doc_)) printer->setResolution(std::min(printer->resolution(), kLowResolutionDpi));
    auto painter = std::make_shared<QPainter>();
    if (!painter->begin(printer.get())) {
        ShowError(tr("The printer could not start."));
        return emit Printed(false);
    }
    statusBar()->showMessage(tr("Printing..."));
    PrintPage(printer, painter, pages, 0, doc_);
}

// One page after the other: its size, then its picture at the printer's
// resolution fitted to the paper (view type 2, as for printing), drawn when
// it arrives. The GUI stays responsive meanwhile.
void ViewerWindow::PrintPage(std::shared_ptr<QPrinter> printer, std::shared_ptr<QPainter> painter, QVector<int> pages,
                             int index, int64_t doc) {
    if (index >= pages.size() || doc != doc_) {
        const bool ok = painter->end() && index == pages.size();
        statusBar()->showMessage(ok ? tr("Printed %n page(s)", nullptr, pages.size()) : tr("Printing failed"), 5000);
        return emit Printed(ok);
    }
    const auto page = static_cast<unsigned>(pages[index]);
    WhenReady(this, service_.GetPageInfo(doc, page), [=](std::future<IPDFProvider::PageInfo>& answer) {
        QSizeF points;
        try {
            const IPDFProvider::PageInfo info = answer.get();
            points = QSizeF(info.size.width, info.size.height);
        } catch (const std::exception&) {
        }
        const QRectF paper = painter->viewport();
        if (points.isEmpty() || paper.isEmpty()) return PrintPage(printer, painter, pages, pages.size() + 1, doc);
        QSizeF fitted = points.scaled(paper.size(), Qt::KeepAspectRatio);
        const QRectF target(paper.topLeft() + QPointF((paper.width() - fitted.width()) / 2, 0), fitted);
        const qint64 pixels = qint64(fitted.width()) * qint64(fitted.height());
        if (pixels > kMaxPrintPixels) fitted *= std::sqrt(double(kMaxPrintPixels) / double(pixels));
        auto picture = service_.GeneratePageImage(doc, page, qRound(fitted.width()), qRound(fitted.height()),
                                                  IPageInfoObserver::PrintView);
        WhenReady(this, std::move(picture), [=](std::future<QImage>& drawn) {
            const QImage image = drawn.get();
            if (image.isNull()) return PrintPage(printer, painter, pages, pages.size() + 1, doc);
            if (index > 0) printer->newPage();
            painter->drawImage(target, image);
            PrintPage(printer, painter, pages, index + 1, doc);
        });
    });
}

void ViewerWindow::SetDarkMode(bool dark) {
    view_->SetDarkMode(dark);
    darkAction_->setChecked(dark);
    QSettings().setValue("darkMode", dark);
}

void ViewerWindow::ToggleFullScreen() {
    isFullScreen() ? showNormal() : showFullScreen();
}

void ViewerWindow::StartPresentation() {
    if (doc_ < 0 || presentation_ != nullptr) return;
    // A window of its own that goes with this one.
    presentation_ = new PresentationWindow(service_, doc_, view_->PageCount(), std::max(0, view_->CurrentPage()), this);
    presentation_->setWindowFlag(Qt::Window);
    presentation_->setAttribute(Qt::WA_DeleteOnClose);
    connect(presentation_, &PresentationWindow::Left, this, [this](int page) {
        presentation_ = nullptr;
        view_->GoToPage(page);
        activateWindow();
    });
    presentation_->showFullScreen();
    presentation_->activateWindow();
    presentation_->setFocus();
}

void ViewerWindow::Escape() {
    if (isFullScreen()) {
        showNormal();
    } else if (findBar_->isVisible()) {
        findBar_->hide();
        view_->setFocus();
    }
}

void ViewerWindow::closeEvent(QCloseEvent* event) {
    if (closeApproved_ || !Modified()) {
        RememberPlace();
        if (presentation_ != nullptr) presentation_->close();
        return event->accept();
    }
    event->ignore();
    KeepWorkThen([this] {
        closeApproved_ = true;
        close();
    });
}

void ViewerWindow::ShowError(const QString& text) {
    statusBar()->showMessage(text);
    auto box = new QMessageBox(QMessageBox::Warning, tr("quirelle-view"), text, QMessageBox::Ok, this);
    box->setAttribute(Qt::WA_DeleteOnClose);
    box->open();
    emit ErrorShown(text);
}

void ViewerWindow::UpdateTitle() {
    const QString name = path_.isEmpty() ? tr("quirelle-view") : QFileInfo(path_).fileName();
    setWindowTitle(Modified() ? name + QLatin1String(" *") : name);
}

// A page whose label is not its number shows both: "iv (4 of 311)".
void ViewerWindow::UpdateStatus() {
    const int page = view_->CurrentPage();
    const QString label = LabelOf(page), number = QString::number(page + 1);
    const bool labelled = label != number;
    pageCountLabel_->setText(doc_ < 0 ? QString()
                             : labelled ? tr(" (%1 of %2) ").arg(number).arg(view_->PageCount())
                                        : tr(" of %1 ").arg(view_->PageCount()));
    if (!pageBox_->hasFocus()) pageBox_->setText(doc_ < 0 ? QString() : label);
    if (doc_ < 0) return;
    const QString where = labelled ? tr("Page %1 (%2 of %3)").arg(label, number).arg(view_->PageCount())
                                   : tr("Page %1 of %2").arg(number).arg(view_->PageCount());
    statusBar()->showMessage(tr("%1   %2 %").arg(where).arg(qRound(view_->Zoom() * 100)));
}

QString ViewerWindow::LabelOf(int page) const {
    return page >= 0 && page < labels_.size() ? labels_[page] : QString::number(page + 1);
}

void ViewerWindow::LoadLabels() {
    labels_.clear();
    if (doc_ < 0 || reader_ == nullptr) return;
    const int64_t doc = doc_;
    WhenReady(this, reader_->GetPageLabels(doc), [this, doc](std::future<std::vector<std::string>>& answer) {
        if (doc != doc_) return;
        QStringList labels;
        try {
            for (const std::string& label : answer.get()) labels.push_back(QString::fromStdString(label));
        } catch (const std::exception&) {
            return;  // closed or changed meanwhile: plain numbers
        }
        labels_ = labels;
        UpdateStatus();
    });
}

// As the service's FindPageByLabel answers: the first page with that label,
// else a page number.
int ViewerWindow::PageFromText(const QString& text) const {
    const QString wanted = text.trimmed();
    if (wanted.isEmpty()) return -1;
    const int labelled = labels_.indexOf(wanted);
    if (labelled >= 0 && labelled < view_->PageCount()) return labelled;
    bool ok = false;
    const int page = wanted.toInt(&ok) - 1;
    return ok && page >= 0 && page < view_->PageCount() ? page : -1;
}

void ViewerWindow::ShowProperties() {
    if (doc_ < 0 || reader_ == nullptr) return;
    const QString file = path_;
    WhenReady(this, reader_->GetDocumentInformation(doc_), [this, file](std::future<DocumentInformation>& answer) {
        DocumentInformation info;
        try {
            info = answer.get();
        } catch (const std::exception& e) {
            return ShowError(tr("No document information: %1").arg(QString::fromStdString(e.what())));
        }
        delete findChild<QDialog*>(QStringLiteral("properties"), Qt::FindDirectChildrenOnly);
        auto dialog = new QDialog(this);
        dialog->setObjectName(QStringLiteral("properties"));
        dialog->setAttribute(Qt::WA_DeleteOnClose);
        dialog->setWindowTitle(tr("Properties of %1").arg(QFileInfo(file).fileName()));
        auto form = new QFormLayout(dialog);
        auto row = [&](const QString& name, const QString& value, const char* id) {
            auto label = new QLabel(value.isEmpty() ? tr("-") : value);
            label->setObjectName(QLatin1String(id));
            label->setTextInteractionFlags(Qt::TextSelectableByMouse);
            label->setWordWrap(true);
            form->addRow(name, label);
        };
        auto text = [](const std::string& value) { return QString::fromStdString(value); };
        auto date = [&](const DocumentDate& d) {
            if (!d.valid) return text(d.raw);
            return QDateTime::fromSecsSinceEpoch(d.secondsSinceEpoch).toString(Qt::TextDate);
        };
        auto yes = [this](bool value) { return value ? tr("yes") : tr("no"); };
        row(tr("File:"), QFileInfo(file).absoluteFilePath(), "file");
        row(tr("Title:"), text(info.title), "title");
        row(tr("Author:"), text(info.author), "author");
        row(tr("Subject:"), text(info.subject), "subject");
        row(tr("Keywords:"), text(info.keywords), "keywords");
        row(tr("Creator:"), text(info.creator), "creator");
        row(tr("Producer:"), text(info.producer), "producer");
        row(tr("Created:"), date(info.created), "created");
        row(tr("Modified:"), date(info.modified), "modified");
        row(tr("PDF version:"), text(info.version), "version");
        row(tr("Pages:"), QString::number(view_->PageCount()), "pages");
        row(tr("Encryption:"), info.encryption.empty() ? tr("none") : text(info.encryption), "encryption");
        row(tr("Layout, mode:"), QStringList{text(info.pageLayout), text(info.pageMode)}.join(QLatin1String(", ")),
            "layout");
        row(tr("Tagged:"), yes(info.tagged), "tagged");
        row(tr("Form:"), yes(info.hasForm), "form");
        row(tr("Attachments:"), yes(info.hasAttachments), "attachments");
        row(tr("Layers:"), yes(info.hasLayers), "layers");
        auto buttons = new QDialogButtonBox(QDialogButtonBox::Close);
        connect(buttons, &QDialogButtonBox::rejected, dialog, &QDialog::close);
        form->addRow(buttons);
        dialog->open();
        emit PropertiesShown();
    });
}

void ViewerWindow::UpdateActions() {
    undoAction_->setEnabled(!done_.empty());
    undoAction_->setText(done_.empty() ? tr("&Undo") : tr("&Undo %1").arg(done_.back().name));
    redoAction_->setEnabled(!undone_.empty());
    redoAction_->setText(undone_.empty() ? tr("&Redo") : tr("&Redo %1").arg(undone_.back().name));
    backAction_->setEnabled(view_->CanGoBack());
    forwardAction_->setEnabled(view_->CanGoForward());
    pageBox_->setEnabled(doc_ >= 0);
}

}  // namespace Orvane::PDF
