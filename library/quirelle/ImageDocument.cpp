// Image files as documents: every frame Qt can read becomes one page, one
// pixel to one point, in frame order.

#include <QImageReader>
#include <QList>
#include <QString>
#include <stdexcept>
#include <string>

#include "QuirelleImpl.h"
#include "engine/Engine.h"
#include "engine/PdfDocument.h"

namespace Orvane::PDF {
namespace {

// Pixels of the largest frame taken (128 MiB at four bytes a pixel): a
// frame's pixels are copied twice on their way into the page, and a file of
// a few bytes can claim billions of them.
constexpr qint64 kMaxFramePixels = qint64(1) << 25;

void CheckFrameSize(const QSize& size, const Orvane::ioPath& path) {
    if (qint64(size.width()) * qint64(size.height()) > kMaxFramePixels) {
        throw std::runtime_error("Image too large (" + std::to_string(size.width()) + " x " +
                                 std::to_string(size.height()) + " pixels) in file: " + path.utf8string());
    }
}

}  // namespace

std::shared_ptr<IDocument> Quirelle::Impl::CreateImageDocument(const Orvane::ioPath& path) {
    QImageReader reader(QString::fromUtf8(path.utf8string().c_str()), QByteArray());
    QList<QImage> frames;
    const int count = reader.imageCount();
    for (int i = 0; i < count; ++i) {
        CheckFrameSize(reader.size(), path);  // before decoding, where the format tells
        QImage frame = Util::ConvertToConvinientFormat(reader.read());
        CheckFrameSize(frame.size(), path);
        if (frame.format() == QImage::Format_ARGB32_Premultiplied) {
            frames.append(frame.convertToFormat(QImage::Format_ARGB32));
        } else if (frame.format() != QImage::Format_Invalid) {
            frames.append(frame);
        }
        reader.jumpToNextImage();
    }
    if (frames.isEmpty()) throw std::runtime_error("Invalid image format for file: " + path.utf8string());

    auto document = std::make_shared<Pdfium::PdfDocument>(fontProvider);
    for (int i = 0; i < frames.size(); ++i) {
        std::shared_ptr<IBitmap> bitmap = Util::CreateBitmapFromQImage(frames[i]);
        document->CreatePageFromImage(static_cast<unsigned>(i), bitmap, frames[i].width(), frames[i].height());
    }
    return document;
}

}  // namespace Orvane::PDF
