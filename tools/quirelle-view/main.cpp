// quirelle-view: a desktop viewer on the Quirelle widgets.
//   quirelle-view [--page N] [FILE]   a PDF or an image file; without one, a dialog asks.

#include <QApplication>
#include <QCommandLineParser>
#include <QFileDialog>
#include <QTimer>

#include "ViewerWindow.h"

int main(int argc, char** argv) {
    QApplication app(argc, argv);
    QApplication::setApplicationName("quirelle-view");
    QApplication::setOrganizationName("Quirelle");
    QApplication::setApplicationVersion(QUIRELLE_VERSION);

    QCommandLineParser parser;
    parser.setApplicationDescription(
        QObject::tr("Views, prints and edits the pages of PDF and image files (.png .jpg .bmp .tif)."));
    parser.addHelpOption();
    parser.addVersionOption();
    const QCommandLineOption pageOption(
        "page", QObject::tr("Opens FILE at page N (from 1) instead of where it was left."), QObject::tr("N"));
    parser.addOption(pageOption);
    parser.addPositionalArgument("FILE", QObject::tr("The document to open; without one, a dialog asks."), "[FILE]");
    parser.process(app);  // --help and --version print and exit here; an unknown option is an error
    const QStringList files = parser.positionalArguments();
    if (files.size() > 1) parser.showHelp(2);
    int page = -1;
    if (parser.isSet(pageOption)) {
        bool ok = false;
        page = parser.value(pageOption).toInt(&ok) - 1;
        if (!ok || page < 0 || files.isEmpty()) {
            fprintf(stderr, "quirelle-view: --page takes a page number from 1 and a FILE\n");
            return 2;
        }
    }

    Orvane::PDF::Quirelle service(nullptr);  // outlives the window, which is destroyed first
    Orvane::PDF::ViewerWindow window(service);
    window.show();
    if (!files.isEmpty()) {
        window.OpenFile(files.first(), page);
    } else {
        QTimer::singleShot(0, &window, [&window] {
            const QString path = QFileDialog::getOpenFileName(&window, QObject::tr("Open"), QString(),
                                                              Orvane::PDF::ViewerWindow::OpenFilter());
            if (!path.isEmpty()) window.OpenFile(path);
        });
    }
    return QApplication::exec();
}
