#pragma once

// The main window of quirelle-view: thumbnails, the page view and the find
// bar over one document of a service, with the file and page menus. Every
// service call returns at once; answers come back through WhenReady.

#include <QMainWindow>
#include <QuirelleWidgets>
#include <functional>
#include <vector>

namespace Orvane::PDF {

class FindBar;

class ViewerWindow : public QMainWindow {
    Q_OBJECT
public:
    explicit ViewerWindow(IPDFProvider& service, QWidget* parent = nullptr);
    ~ViewerWindow() override;

    // Opens a PDF or image file in place of the current document, asking for
    // a password while the file wants one. Ends with Opened.
    void OpenFile(const QString& path);
    // Writes the document to path and makes it the document's file. Ends with Saved.
    void SaveAs(const QString& path);
    // Moves pages (ascending) before the page at destination. Ends with Edited.
    void MovePages(const QVector<int>& pages, int destination);

    // The file dialog's filter for documents: PDF and the image files the service opens.
    static QString OpenFilter();

    QuirelleView& View() const { return *view_; }
    ThumbnailStrip& Thumbnails() const { return *thumbnails_; }
    FindBar& Find() const { return *findBar_; }
    int64_t Document() const { return doc_; }

    // Asks for a password (the default shows a dialog); false when cancelled.
    std::function<bool(const QString& file, bool again, QString& password)> passwordPrompt;

signals:
    void Opened(bool ok);
    void Saved(bool ok);
    void Edited();

private:
    void BuildMenus();
    // Opens path, asking for its password; done gets the id, or -1.
    void OpenDocument(const QString& path, const std::string& password, bool again, std::function<void(int64_t)> done);
    void Show(int64_t id);
    QVector<int> TargetPages() const;  // the selected thumbnails, else the current page
    void RunEdit(const QString& what, std::vector<std::future<void>> steps);
    void Rotate(IPDFProvider::PageRotation rotation);
    void DeleteSelected();
    void ImportFile();
    void ExportSelected();
    void Save();
    void ShowError(const QString& text);
    void UpdateTitle();
    void UpdateStatus();

    IPDFProvider& service_;
    QuirelleView* view_;
    ThumbnailStrip* thumbnails_;
    FindBar* findBar_;
    int64_t doc_ = -1;
    QString path_;
    bool modified_ = false;
    bool busy_ = false;  // an edit or save is running
};

}  // namespace Orvane::PDF
