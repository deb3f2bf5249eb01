// The window's part in filling in forms: the "Highlight fields" switch, the
// document's permission, and what the page view's form editing reports.

#include <QAction>
#include <QFileInfo>
#include <QMenu>
#include <QStatusBar>
#include <memory>

#include "ViewerWindow.h"

namespace Orvane::PDF {

void ViewerWindow::ConnectForms(QMenu* viewMenu) {
    FormEditing* forms = view_->Forms();
    if (forms == nullptr) return;
    auto highlight = viewMenu->addAction(tr("&Highlight fields"));
    highlight->setObjectName(QStringLiteral("highlightFields"));
    highlight->setCheckable(true);
    highlight->setEnabled(false);
    connect(highlight, &QAction::toggled, forms, &FormEditing::SetHighlighted);
    // Each document opens with its fields highlighted, when it has any.
    auto shownFor = std::make_shared<int64_t>(-1);
    connect(forms, &FormEditing::Loaded, this, [this, forms, highlight, shownFor](int fields) {
        highlight->setEnabled(fields > 0);
        if (*shownFor != doc_) highlight->setChecked(fields > 0);
        *shownFor = doc_;
        forms->SetHighlighted(highlight->isChecked());
        bool forbidden = false;
        try {
            forbidden = doc_ >= 0 && dynamic_cast<IFormProvider&>(service_).IsFillFormProtected(doc_);
        } catch (const std::exception&) {
        }
        forms->SetBlocked(forbidden ? tr("%1 does not allow filling in its form; open it with the owner password "
                                         "to fill it in.")
                                          .arg(QFileInfo(path_).fileName())
                                    : QString());
    });
    connect(forms, &FormEditing::Blocked, this, [this](const QString& why) { statusBar()->showMessage(why, 8000); });
    connect(forms, &FormEditing::Refused, this,
            [this](const QString& message) { ShowError(tr("The value was not accepted: %1").arg(message)); });
    connect(forms, &FormEditing::Changed, this, [this] {
        unknownEdit_ = true;  // not an edit that undo knows
        thumbnails_->Redraw();
        UpdateTitle();
    });
}

}  // namespace Orvane::PDF
