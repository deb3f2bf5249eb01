#include "FindBar.h"

#include <QApplication>
#include <QHBoxLayout>
#include <QKeyEvent>
#include <QLabel>
#include <QLineEdit>
#include <QToolButton>
#include <algorithm>

namespace Orvane::PDF {

FindBar::FindBar(IPDFProvider& service, QuirelleView& view, QWidget* parent)
    : QWidget(parent),
      service_(service),
      view_(view),
      relay_(std::make_shared<GuiRelay>(this)),
      field_(new QLineEdit(this)),
      label_(new QLabel(this)) {
    auto layout = new QHBoxLayout(this);
    layout->setContentsMargins(6, 2, 6, 2);
    field_->setPlaceholderText(tr("Find in document"));
    field_->setClearButtonEnabled(true);
    auto button = [this, layout](const QString& text, const QString& tip, auto slot) {
        auto b = new QToolButton(this);
        b->setText(text);
        b->setToolTip(tip);
        b->setAutoRaise(true);
        connect(b, &QToolButton::clicked, this, slot);
        layout->addWidget(b);
    };
    layout->addWidget(new QLabel(tr("Find:"), this));
    layout->addWidget(field_, 1);
    button(QStringLiteral("\u25B2"), tr("Previous match (Shift+F3)"), &FindBar::Previous);
    button(QStringLiteral("\u25BC"), tr("Next match (F3, Enter)"), &FindBar::Next);
    layout->addWidget(label_);
    button(QStringLiteral("\u2715"), tr("Close (Esc)"), [this] {
        hide();
        view_.setFocus();
    });
    connect(field_, &QLineEdit::returnPressed, this, [this] {
        if (field_->text() == searchedText_ && search_ >= 0) {
            QApplication::keyboardModifiers() & Qt::ShiftModifier ? Previous() : Next();
        } else {
            Start();
        }
    });
    connect(field_, &QLineEdit::textChanged, this, [this](const QString& text) {
        if (text.isEmpty()) Clear();
    });
    hide();
}

FindBar::~FindBar() {
    relay_->Detach();
    if (search_ >= 0) service_.StopSearch(search_);
}

void FindBar::Activate() {
    show();
    field_->setFocus();
    field_->selectAll();
}

void FindBar::Clear() {
    relay_->Detach();
    relay_ = std::make_shared<GuiRelay>(this);  // answers of the old search go nowhere
    if (search_ >= 0) service_.StopSearch(search_);
    search_ = -1;
    searchedText_.clear();
    matches_.clear();
    current_ = -1;
    pagesSearched_ = 0;
    view_.SetHighlights({});
    UpdateLabel();
}

void FindBar::Start() {
    const QString text = field_->text();
    Clear();
    if (text.isEmpty() || view_.Document() < 0) return;
    searchedText_ = text;
    std::shared_ptr<GuiRelay> relay = relay_;
    const auto callback = [this, relay](unsigned page, const std::vector<SearchResultInfo>& results,
                                        const std::shared_ptr<ITextObject>& text) {
        // On the worker: the text object turns each match into line rectangles.
        std::vector<Match> found;
        for (const SearchResultInfo& result : results) {
            Match match{static_cast<int>(page), {}, result.bounds};
            for (const Rect& r : text->GetTextRects(result.charIndex, result.charCount)) match.rects.push_back(r);
            found.push_back(std::move(match));
        }
        relay->Post([this, page, found = std::move(found)]() mutable { OnPage(page, std::move(found)); });
    };
    const int start = std::max(0, view_.CurrentPage());
    search_ = service_.SearchInDocument(view_.Document(), static_cast<unsigned>(start), text.toStdWString(), callback);
    UpdateLabel();
}

void FindBar::OnPage(unsigned page, std::vector<Match> found) {
    ++pagesSearched_;
    const bool first = matches_.empty() && !found.empty();
    // Keep page order: the search wraps around from the current page.
    auto at = std::lower_bound(matches_.begin(), matches_.end(), static_cast<int>(page),
                               [](const Match& m, int p) { return m.page < p; });
    const int inserted = static_cast<int>(at - matches_.begin());
    const int count = static_cast<int>(found.size());
    matches_.insert(at, std::make_move_iterator(found.begin()), std::make_move_iterator(found.end()));
    if (current_ >= inserted && count > 0) current_ += count;
    if (first) {
        Show(inserted);
    } else {
        ShowHighlights();
    }
    UpdateLabel();
    if (pagesSearched_ == view_.PageCount()) {
        search_ = -1;
        emit SearchFinished(MatchCount());
    }
}

void FindBar::Next() {
    if (!matches_.empty()) Show((current_ + 1) % MatchCount());
}

void FindBar::Previous() {
    if (!matches_.empty()) Show((current_ - 1 + MatchCount()) % MatchCount());
}

void FindBar::Show(int index) {
    current_ = index;
    const Match& match = matches_[static_cast<size_t>(index)];
    if (view_.CurrentPage() != match.page) view_.GoToPage(match.page, match.bounds.top);
    view_.EnsureVisible(match.page, match.bounds);
    ShowHighlights();
    UpdateLabel();
}

void FindBar::ShowHighlights() {
    QHash<int, QVector<Rect>> rects;
    for (const Match& match : matches_) rects[match.page] += match.rects;
    if (current_ < 0) return view_.SetHighlights(rects);
    const Match& current = matches_[static_cast<size_t>(current_)];
    view_.SetHighlights(rects, current.page, current.rects);
}

void FindBar::UpdateLabel() {
    const bool searching = search_ >= 0 && pagesSearched_ < view_.PageCount();
    if (matches_.empty()) {
        label_->setText(searchedText_.isEmpty() ? QString() : searching ? tr("Searching...") : tr("No matches"));
    } else {
        label_->setText(tr("%1 of %2%3").arg(current_ + 1).arg(MatchCount()).arg(searching ? "+" : ""));
    }
}

}  // namespace Orvane::PDF
