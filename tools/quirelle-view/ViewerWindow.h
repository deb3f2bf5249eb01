#pragma once

// The main window of quirelle-view: a sidebar (the pages' thumbnails and the
// outline, one tab each), the page view and the find bar over one document
// of a service, with the file, edit, view and page menus. With a service
// that answers reading queries (IReadingProvider) it shows the outline,
// page labels, the document's properties and selects text; with one that
// makes annotations (IAnnotationProvider), an Annotate menu and an
// annotations tab (AnnotationCommands), whose edits share the undo history.
// Every service call returns at once; answers come back through WhenReady.
//
// Page commands act on the thumbnails' selection while the strip has the
// keyboard focus, else on the page the view shows. Every page edit can be
// undone and redone; see PageEdit in ViewerWindow.cpp. Unsaved edits are
// never dropped without asking. Recent files, the dark mode and where each
// document was left (page and zoom) live in QSettings.

#include <QMainWindow>
#include <QuirelleWidgets>
#include <functional>
#include <memory>
#include <vector>

class QLabel;
class QTabWidget;
class QLineEdit;
class QMenu;
class QPrinter;

namespace Orvane::PDF {

class AnnotationCommands;
class FindBar;
class PresentationWindow;

class ViewerWindow : public QMainWindow {
    Q_OBJECT
public:
    explicit ViewerWindow(IPDFProvider& service, QWidget* parent = nullptr);
    ~ViewerWindow() override;

    // Opens a PDF or image file in place of the current document (asking
    // first about unsaved edits, and for a password while the file wants
    // one) at page (from 0), or where it was left last time. Ends with Opened.
    void OpenFile(const QString& path, int page = -1);
    // Closes the document, asking first about unsaved edits.
    void CloseFile();
    // Writes the document to path and makes it the document's file. Ends with Saved.
    void SaveAs(const QString& path);
    // Moves pages (ascending) before the page at destination. Ends with Edited.
    void MovePages(const QVector<int>& pages, int destination);
    // Inserts the pages of a file after the current page. Ends with Edited.
    void ImportFrom(const QString& path);
    void Undo();
    void Redo();
    bool Modified() const;
    // Prints the pages (from 0) fitted to the printer's paper. Ends with Printed.
    void Print(const std::shared_ptr<QPrinter>& printer, const QVector<int>& pages);
    void SetDarkMode(bool dark);
    // Presentation: one page per screen; Escape leaves it at the page shown.
    void StartPresentation();
    PresentationWindow* Presentation() const { return presentation_; }
    QStringList RecentFiles() const;

    // The file dialog's filter for documents: PDF and the image files the service opens.
    static QString OpenFilter();

    QuirelleView& View() const { return *view_; }
    ThumbnailStrip& Thumbnails() const { return *thumbnails_; }
    // Null without reading queries.
    OutlineView* Outline() const { return outline_; }
    // Null when the service makes no annotations.
    AnnotationCommands* Annotations() const { return annotations_; }
    QTabWidget& Sidebar() const { return *sidebar_; }
    // The pages' labels ("iv", "A-3"; the page numbers where the document has none).
    const QStringList& PageLabels() const { return labels_; }
    // The page (from 0) a label or a page number typed by the user names; -1 for none.
    int PageFromText(const QString& text) const;
    // The document information dialog (File > Properties); ends with PropertiesShown.
    void ShowProperties();
    FindBar& Find() const { return *findBar_; }
    QLineEdit* PageBox() const { return pageBox_; }
    int64_t Document() const { return doc_; }

    // Asks for a password (the default shows a dialog); false when cancelled.
    std::function<bool(const QString& file, bool again, QString& password)> passwordPrompt;
    // Asks what to do with unsaved edits before they would be lost.
    enum class Unsaved { Save, Discard, Cancel };
    std::function<Unsaved(const QString& file)> unsavedPrompt;
    // Asks yes or no (deleting pages that undo could not bring back).
    std::function<bool(const QString& question)> confirmPrompt;

signals:
    void Opened(bool ok);
    void Saved(bool ok);
    void Edited();
    void Printed(bool ok);
    void ErrorShown(const QString& text);
    void PropertiesShown();  // the dialog is the child named "properties"

protected:
    void closeEvent(QCloseEvent* event) override;

private:
    // One step of an edit: queues a service call. Steps run one after the
    // other, each once the previous one is done.
    using Step = std::function<std::future<void>()>;
    using Steps = std::vector<Step>;
    struct PageEdit;

    void BuildMenus();
    // Filling in forms (ViewerForms.cpp).
    void ConnectForms(QMenu* viewMenu);
    void FillRecentMenu();
    // Runs next now when nothing would be lost, else after the user chose.
    void KeepWorkThen(std::function<void()> next);
    // Opens path, asking for its password; done gets the id, or -1.
    void OpenDocument(const QString& path, const std::string& password, bool again, std::function<void(int64_t)> done);
    void Show(int64_t id, int page);
    void ForgetDocument();
    void RememberPlace();
    void AddRecent(const QString& path);
    bool StripHasFocus() const;
    QVector<int> TargetPages() const;
    void RunSteps(std::shared_ptr<Steps> steps, size_t next, std::function<void(const QString& error)> done);
    // Runs an edit's first steps, then keeps it for undo.
    void Commit(PageEdit edit, Steps first);
    // pagesKept: an edit of what is on the pages (annotations) that left the page list as it was.
    void Finish(const QString& what, const QString& error, const QVector<int>& land, bool pagesKept = false);
    Steps RemoveSteps(const QVector<int>& pages, const std::shared_ptr<int>& slot);
    Steps RestoreSteps(const QVector<int>& pages, const std::shared_ptr<int>& slot);
    void Rotate(IPDFProvider::PageRotation rotation);
    void DeleteSelected();
    void InsertBlank();
    void ImportFile();
    void ExportSelected();
    bool Save();  // false when no save started
    void PrintWithDialog();
    void PrintPage(std::shared_ptr<QPrinter> printer, std::shared_ptr<class QPainter> painter, QVector<int> pages,
                   int index, int64_t doc);
    void ToggleFullScreen();
    void Escape();
    void ShowError(const QString& text);
    void UpdateTitle();
    void UpdateStatus();
    void UpdateActions();
    void LoadLabels();
    QString LabelOf(int page) const;

    IPDFProvider& service_;
    QuirelleView* view_;
    IReadingProvider* reader_;  // null when the service answers no reading queries
    ThumbnailStrip* thumbnails_;
    OutlineView* outline_ = nullptr;
    AnnotationCommands* annotations_ = nullptr;
    QTabWidget* sidebar_;
    QStringList labels_;
    FindBar* findBar_;
    QLineEdit* pageBox_;
    QLabel* pageCountLabel_;
    QMenu* recentMenu_ = nullptr;
    QAction* undoAction_ = nullptr;
    QAction* redoAction_ = nullptr;
    QAction* darkAction_ = nullptr;
    QAction* backAction_ = nullptr;
    QAction* forwardAction_ = nullptr;
    PresentationWindow* presentation_ = nullptr;
    int64_t doc_ = -1;
    int64_t scratch_ = -1;  // hidden document holding the pages that undo may bring back
    QString path_;
    std::vector<PageEdit> done_, undone_;
    int savedAt_ = 0;           // done_.size() when last saved; -1: that state is gone
    bool unknownEdit_ = false;  // an edit failed part way: the document differs from every saved state
    bool busy_ = false;         // an edit or save is running
    bool closeApproved_ = false;
    std::function<void()> afterSave_;
};

}  // namespace Orvane::PDF
