#include "PresentationWindow.h"

#include <QKeyEvent>
#include <QPainter>
#include <algorithm>

namespace Orvane::PDF {

PresentationWindow::PresentationWindow(IPDFProvider& service, int64_t doc, int pageCount, int page, QWidget* parent)
    : QWidget(parent), service_(service), doc_(doc), pageCount_(pageCount), page_(std::clamp(page, 0, pageCount - 1)) {
    setWindowTitle(tr("Presentation"));
    setFocusPolicy(Qt::StrongFocus);
    setCursor(Qt::BlankCursor);
}

PresentationWindow::~PresentationWindow() = default;

void PresentationWindow::GoToPage(int page) {
    page = std::clamp(page, 0, pageCount_ - 1);
    if (page == page_ && pictureOf_ == page) return;
    page_ = page;
    Request();
}

void PresentationWindow::Request() {
    const uint64_t ticket = ++asked_;
    const int page = page_;
    const qreal ratio = devicePixelRatioF();
    const QSize screen = size() * ratio;
    // The page's shape first, then its picture as large as fits the screen.
    WhenReady(this, service_.GetPageInfo(doc_, static_cast<unsigned>(page)),
              [this, ticket, page, screen, ratio](std::future<IPDFProvider::PageInfo>& answer) {
                  if (ticket != asked_) return;
                  QSizeF points(1, 1);
                  try {
                      const IPDFProvider::PageInfo info = answer.get();
                      if (info.size.width > 0 && info.size.height > 0) points = {info.size.width, info.size.height};
                  } catch (const std::exception&) {
                  }
                  const QSize fitted = points.scaled(QSizeF(screen), Qt::KeepAspectRatio).toSize();
                  WhenReady(this,
                            service_.GeneratePageImage(doc_, static_cast<unsigned>(page), std::max(1, fitted.width()),
                                                       std::max(1, fitted.height())),
                            [this, ticket, page, ratio](std::future<QImage>& drawn) {
                                if (ticket != asked_) return;
                                picture_ = drawn.get();
                                picture_.setDevicePixelRatio(ratio);
                                pictureOf_ = page;
                                update();
                                emit PageShown(page);
                            });
              });
}

void PresentationWindow::keyPressEvent(QKeyEvent* event) {
    switch (event->key()) {
        case Qt::Key_PageDown:
        case Qt::Key_Space:
        case Qt::Key_Right:
        case Qt::Key_Down:
            GoToPage(page_ + 1);
            break;
        case Qt::Key_PageUp:
        case Qt::Key_Backspace:
        case Qt::Key_Left:
        case Qt::Key_Up:
            GoToPage(page_ - 1);
            break;
        case Qt::Key_Home:
            GoToPage(0);
            break;
        case Qt::Key_End:
            GoToPage(pageCount_ - 1);
            break;
        case Qt::Key_Escape:
        case Qt::Key_F5:
            close();
            break;
        default:
            return QWidget::keyPressEvent(event);
    }
    event->accept();
}

void PresentationWindow::mousePressEvent(QMouseEvent* event) {
    GoToPage(event->button() == Qt::RightButton ? page_ - 1 : page_ + 1);
}

void PresentationWindow::paintEvent(QPaintEvent*) {
    QPainter painter(this);
    painter.fillRect(rect(), Qt::black);
    if (picture_.isNull()) return;
    const QSizeF shown = picture_.size() / picture_.devicePixelRatio();
    painter.drawImage(QPointF((width() - shown.width()) / 2, (height() - shown.height()) / 2), picture_);
}

void PresentationWindow::resizeEvent(QResizeEvent* event) {
    QWidget::resizeEvent(event);
    Request();
}

void PresentationWindow::closeEvent(QCloseEvent* event) {
    emit Left(page_);
    QWidget::closeEvent(event);
}

}  // namespace Orvane::PDF
