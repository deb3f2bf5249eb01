// Forms through the service, on a generated form of 100 text fields (50 on
// each of two Letter pages):
//   list/100   GetFormFields(id).get() of the whole form;
//   fill/page  SetFieldValue of one field (a new value each time), then the
//              picture of its page at 150 dpi (1275 x 1650): what a viewer
//              does after a user typed into a field.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "BenchSupport.h"
#include "tests/support/PdfBuilder.h"

namespace QuirelleBench {
namespace {

using namespace Orvane::PDF;

std::string FormFile() {
    static const std::string path = [] {
        QuirelleTest::PdfBuilder builder;
        builder.AddNumberedPages(2);
        for (int i = 0; i < 100; ++i) {
            const int page = i / 50, row = i % 50 / 2, column = i % 2;
            const double left = 72 + column * 250, top = 740 - row * 27;
            builder.AddField({QuirelleTest::FieldLayout::Kind::Text,
                              "field" + std::to_string(i),
                              "value " + std::to_string(i),
                              {},
                              {{page, {left, top, left + 200, top - 20}}}});
        }
        const std::string file = (std::filesystem::temp_directory_path() / "quirelle-bench-form.pdf").string();
        builder.Save(file);
        return file;
    }();
    return path;
}

void List100(benchmark::State& st) {
    if (!Ready(st)) return;
    Quirelle& service = Service();
    const Orvane::int64 id = service.OpenDocument(FormFile(), "").get().id;
    for (auto _ : st) {
        const std::vector<FormField> fields = service.GetFormFields(id).get();
        if (fields.size() != 100) {
            st.SkipWithError(("the form has " + std::to_string(fields.size()) + " fields").c_str());
            break;
        }
    }
    service.CloseDoument(id).get();
}

void FillAndDraw(benchmark::State& st) {
    if (!Ready(st)) return;
    Quirelle& service = Service();
    const Orvane::int64 id = service.OpenDocument(FormFile(), "").get().id;
    service.GeneratePageImage(id, 0, 1275, 1650).get();
    int n = 0;
    for (auto _ : st) {
        service.SetFieldValue(id, "field7", "typed " + std::to_string(++n)).get();
        const QImage picture = service.GeneratePageImage(id, 0, 1275, 1650).get();
        if (picture.isNull()) {
            st.SkipWithError("no picture");
            break;
        }
    }
    service.CloseDoument(id).get();
}

[[maybe_unused]] const bool registered =
    RegisterTimed({{"Form/list/100/service", List100}, {"Form/fill/page/service", FillAndDraw}});

}  // namespace
}  // namespace QuirelleBench
