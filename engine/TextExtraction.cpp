// A page's text copied out of MuPDF's structured text.

#include <glog/logging.h>
#include <mupdf/fitz.h>
#include <mupdf/pdf.h>

#include <string>
#include <utility>
#include <vector>

#include "engine/ContentRun.h"
#include "engine/Geometry.h"
#include "engine/Guarded.h"
#include "engine/Handles.h"
#include "engine/PdfPage.h"
#include "engine/TextObject.h"
#include "engine/Watchdog.h"
#include "orvane/Exception.h"

namespace Orvane::PDF::Pdfium {
namespace {

// A page claiming more characters than this is not text anyone reads; the
// rest is dropped so that a hostile page cannot make the copy unbounded.
constexpr size_t kMaxChars = size_t(1) << 22;

}  // namespace

std::shared_ptr<ITextObject> ExtractText(const PdfPage& source) {
    fz_context* ctx = source.Context();
    pdf_page* page = source.Native();
    struct Frame {
        fz_rect bounds;    // the page as displayed, MuPDF's space
        fz_matrix toPage;  // MuPDF's space -> page space
    };
    const Frame frame = guarded(ctx, [&] {
        fz_rect box;
        fz_matrix ctm;
        pdf_page_transform(ctx, page, &box, &ctm);
        return Frame{fz_transform_rect(box, ctm), fz_invert_matrix(ctm)};
    });

    StextPageHandle stext(ctx, guarded(ctx, [&] { return fz_new_stext_page(ctx, frame.bounds); }));
    // Keep white space as the file has it, expand ligatures (so "fi" is two
    // searchable letters), and leave hyphenated words alone: the matcher joins
    // them itself and GetText() must show the page as it is.
    fz_stext_options options{};
    options.flags = FZ_STEXT_PRESERVE_WHITESPACE | FZ_STEXT_MEDIABOX_CLIP;
    DeviceHandle device(ctx, guarded(ctx, [&] { return fz_new_stext_device(ctx, stext.get(), &options); }));
    const ContentRun run = RunContent(PageTimeBudget(), [&](fz_cookie& cookie) {
        guarded(ctx, [&] {
            fz_run_page_contents(ctx, &page->super, device.get(), fz_identity, &cookie);
            fz_close_device(ctx, device.get());
        });
    });
    if (run.failure) std::rethrow_exception(run.failure);
    device.reset();
    source.CheckRun("reading its text", run);
    if (run.errors > 0) {
        LOG(WARNING) << "page " << page->super.number << ": text read with " << run.errors << " error(s)";
    }

    std::wstring text;
    std::vector<Rect> boxes;
    std::vector<int> lineStarts;
    bool truncated = false;
    for (fz_stext_block* block = stext.get()->first_block; block && !truncated; block = block->next) {
        if (block->type != FZ_STEXT_BLOCK_TEXT) continue;
        for (fz_stext_line* line = block->u.t.first_line; line && !truncated; line = line->next) {
            if (line->first_char == nullptr) continue;
            lineStarts.push_back(static_cast<int>(text.size()));
            for (fz_stext_char* ch = line->first_char; ch; ch = ch->next) {
                if (text.size() + 1 >= kMaxChars) {
                    truncated = true;
                    break;
                }
                text.push_back(TextChar(ch->c));
                boxes.push_back(ToRect(fz_transform_rect(fz_rect_from_quad(ch->quad), frame.toPage)));
            }
            text.push_back(L'\n');
            boxes.push_back(Rect{});
        }
    }
    if (truncated) {
        LOG(WARNING) << "page " << page->super.number << ": text cut after " << kMaxChars << " characters";
    }
    return std::make_shared<TextObject>(std::move(text), std::move(boxes), std::move(lineStarts));
}

}  // namespace Orvane::PDF::Pdfium
