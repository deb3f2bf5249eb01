#pragma once

// A page's annotations as read from its /Annots: the plain kind, and links,
// which resolve where they lead on first use (Links.cpp).

#include <memory>

#include "engine/Geometry.h"
#include "engine/Handles.h"
#include "orvane/pdf/Document.h"

namespace Orvane::PDF::Pdfium {

struct DocumentCore;

class Annotation : public virtual IAnnotation {
public:
    Annotation(Type type, Rect rect) : type_(type), rect_(rect) {}
    Type GetType() const override { return type_; }
    bool Contains(const Position& point) const override { return Holds(rect_, point.x, point.y); }
    Rect GetRect() const override { return rect_; }

private:
    Type type_;
    Rect rect_;
};

// A link annotation of page pageNumber (for the log); annot is its dictionary.
std::shared_ptr<IAnnotation> MakeLinkAnnotation(Rect rect, std::shared_ptr<DocumentCore> core, PdfObjHandle annot,
                                                int pageNumber);

}  // namespace Orvane::PDF::Pdfium
