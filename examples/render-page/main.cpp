// Opens a document, renders its first page to a PNG file and closes it.
//   render_page FILE OUT.png

#include <Quirelle>
#include <iostream>

int main(int argc, char** argv) {
    if (argc != 3) {
        std::cerr << "usage: render_page FILE OUT.png\n";
        return 2;
    }
    Orvane::PDF::Quirelle service(nullptr);
    const auto opened = service.OpenDocument(Orvane::ioPath(argv[1]), "").get();
    if (opened.id < 0) {
        std::cerr << "cannot open " << argv[1] << (opened.passwordError ? " (password needed)" : "") << "\n";
        return 1;
    }
    const auto info = service.GetPageInfo(opened.id, 0).get();
    const QImage page = service.GeneratePageImage(opened.id, 0, int(info.size.width), int(info.size.height)).get();
    const bool saved = !page.isNull() && page.save(argv[2], "PNG");
    service.CloseDoument(opened.id).get();
    std::cout << (saved ? "wrote " : "failed to write ") << argv[2] << "\n";
    return saved ? 0 : 1;
}
