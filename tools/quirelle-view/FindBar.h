#pragma once

// The viewer's find bar: SearchInDocument from the current page on, every
// match highlighted in the view as its page's answer comes, next and previous
// step through the matches in page order.

#include <QWidget>
#include <QuirelleWidgets>
#include <memory>
#include <vector>

class QLabel;
class QLineEdit;

namespace Orvane::PDF {

class FindBar : public QWidget {
    Q_OBJECT
public:
    FindBar(IPDFProvider& service, QuirelleView& view, QWidget* parent = nullptr);
    ~FindBar() override;

    void Activate();  // shows the bar with the text field focused
    // Stops the search and forgets its matches (another document, an edit).
    void Clear();
    void Next();
    void Previous();
    int MatchCount() const { return static_cast<int>(matches_.size()); }
    QLineEdit* Field() const { return field_; }

signals:
    void SearchFinished(int matches);

private:
    struct Match {
        int page;
        QVector<Rect> rects;  // one per text line, page space
        Rect bounds;
    };
    void Start();
    void OnPage(unsigned page, std::vector<Match> found);
    void Show(int index);
    void ShowHighlights();
    void UpdateLabel();

    IPDFProvider& service_;
    QuirelleView& view_;
    std::shared_ptr<GuiRelay> relay_;
    QLineEdit* field_;
    QLabel* label_;
    QString searchedText_;
    int64_t search_ = -1;
    int pagesSearched_ = 0;
    std::vector<Match> matches_;  // in page order
    int current_ = -1;
};

}  // namespace Orvane::PDF
