#pragma once

// Presentation: one page at a time, as large as the screen allows, on black.
// PgDn, Space, Right and Down go forward; PgUp, Backspace, Left and Up go
// back; Home and End; Escape leaves (Left tells at which page). Each page is
// asked at the screen's pixel size when it is shown.

#include <QImage>
#include <QWidget>
#include <QuirelleWidgets>

namespace Orvane::PDF {

class PresentationWindow : public QWidget {
    Q_OBJECT
public:
    PresentationWindow(IPDFProvider& service, int64_t doc, int pageCount, int page, QWidget* parent = nullptr);
    ~PresentationWindow() override;

    int Page() const { return page_; }
    // The picture of the page shown (null until it arrives).
    const QImage& Picture() const { return picture_; }
    void GoToPage(int page);

signals:
    void PageShown(int page);
    void Left(int page);

protected:
    void keyPressEvent(QKeyEvent* event) override;
    void mousePressEvent(QMouseEvent* event) override;
    void paintEvent(QPaintEvent* event) override;
    void resizeEvent(QResizeEvent* event) override;
    void closeEvent(QCloseEvent* event) override;

private:
    void Request();

    IPDFProvider& service_;
    const int64_t doc_;
    const int pageCount_;
    int page_;
    QImage picture_;
    int pictureOf_ = -1;
    uint64_t asked_ = 0;  // the latest request; older answers are dropped
};

}  // namespace Orvane::PDF
