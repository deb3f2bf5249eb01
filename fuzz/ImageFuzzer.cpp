// Fuzz target: image files opened as documents by the service, and the
// picture conversions on whatever Qt decodes from the bytes.

#include <QBuffer>
#include <QImage>
#include <QImageReader>
#include <cstddef>
#include <cstdint>
#include <string>

#include "engine/Engine.h"
#include "fuzz/FuzzSupport.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace Orvane::PDF;
    if (size < 1) return 0;
    static const char* extensions[] = {".png", ".jpg", ".bmp", ".tiff"};
    const std::string bytes(reinterpret_cast<const char*>(data) + 1, size - 1);

    // The conversions go pixel by pixel: a large picture would only slow the fuzzing down.
    QByteArray array = QByteArray::fromRawData(bytes.data(), int(bytes.size()));
    QBuffer buffer(&array);
    QImageReader reader(&buffer);
    const QSize frame = reader.size();
    const QImage decoded = qint64(frame.width()) * frame.height() <= (1 << 22) ? reader.read() : QImage();
    for (QImage::Format format : {QImage::Format_Indexed8, QImage::Format_Grayscale8, QImage::Format_RGB888,
                                  QImage::Format_ARGB4444_Premultiplied, QImage::Format_ARGB32}) {
        QImage converted = Util::ConvertToConvinientFormat(decoded.convertToFormat(format));
        Util::CreateBitmapFromQImage(converted);
    }

    Quirelle& service = QuirelleFuzz::SharedService();
    const auto path = QuirelleFuzz::WriteScratch(std::string("image") + extensions[data[0] % 4], bytes);
    try {
        const int64_t id = service.OpenDocument(path, "").get().id;
        try {
            service.GeneratePageImage(id, 0, 24, 24).get();
            service.GetPageInfo(id, service.GetPageCount(id) - 1).get();
            service.SaveDocumentAs(id, QuirelleFuzz::ScratchDir() / "image-save.pdf").get();
        } catch (...) {
        }
        service.CloseDoument(id).get();
    } catch (...) {
    }
    return 0;
}
