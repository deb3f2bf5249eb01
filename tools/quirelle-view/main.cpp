// quirelle-view: a desktop viewer on the Quirelle widgets.
//   quirelle-view [FILE]   a PDF or an image file; without one, a dialog asks.

#include <QApplication>
#include <QFileDialog>
#include <QTimer>

#include "ViewerWindow.h"

int main(int argc, char** argv) {
    QApplication app(argc, argv);
    QApplication::setApplicationName("quirelle-view");
    Orvane::PDF::Quirelle service(nullptr);  // outlives the window, which is destroyed first
    Orvane::PDF::ViewerWindow window(service);
    window.show();
    const QStringList args = QApplication::arguments();
    if (args.size() > 1) {
        window.OpenFile(args.at(1));
    } else {
        QTimer::singleShot(0, &window, [&window] {
            const QString path = QFileDialog::getOpenFileName(&window, QObject::tr("Open"), QString(),
                                                              Orvane::PDF::ViewerWindow::OpenFilter());
            if (!path.isEmpty()) window.OpenFile(path);
        });
    }
    return QApplication::exec();
}
