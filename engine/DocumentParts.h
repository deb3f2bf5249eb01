#pragma once

// What a document carries besides its pages, taken along when pages are
// copied into another document: the outline, form fields, page labels and,
// for a copy of the whole document, every other catalog entry and the
// document information.

#include <mupdf/fitz.h>
#include <mupdf/pdf.h>

#include <string>
#include <vector>

#include "engine/Graft.h"

namespace Orvane::PDF::Pdfium {

struct PartsCopy {
    // Every page of the source, in order, into a target without pages: the
    // target becomes the whole document (catalog entries, /Info, outline,
    // names, form, structure) with its references on the copied pages.
    bool whole = false;
    // The source's page index of each copy, in the order the copies were
    // inserted at `at` into a target of targetPages pages.
    std::vector<int> pages;
    // The source's page object number of each copy, in the same order.
    std::vector<int> pageObjects;
    int at = 0;
    int targetPages = 0;
    // Names the source in the target's outline when the source's entries go
    // under one entry of their own (its title, else this).
    std::string sourceName;
};

// Copies the source's document-level parts that belong to the copied pages
// (all of them for a whole copy) into the target, through the grafter that
// copied the pages and their annotations (both mapped in it). placed gets, per
// source object number, 1 for each widget that became part of a copied form
// field; a widget left out of the form stays as the page importer made it.
// Call after the pages and annotations are copied, before the grafter drains.
void CopyDocumentParts(fz_context* ctx, Grafter& grafter, const PartsCopy& copy, std::vector<unsigned char>& placed);

// Each copied page keeps its label, each page of the target its own
// (DocumentPartsLabels.cpp; part of CopyDocumentParts).
void CopyPageLabels(fz_context* ctx, pdf_document* src, pdf_document* dst, const PartsCopy& copy);

}  // namespace Orvane::PDF::Pdfium
