// SPDX-License-Identifier: GPL-3.0-or-later
#include "Trelvane/ui/ConfirmationDialogs.hpp"

#include "Trelvane/ui/Labels.hpp"

#include <QCheckBox>
#include <QDesktopServices>
#include <QHBoxLayout>
#include <QLabel>
#include <QPushButton>
#include <QScrollArea>
#include <QUrl>
#include <QVBoxLayout>

namespace trelvane {

namespace {

QString qs(const std::string& text) {
    return QString::fromStdString(text);
}

QString joinedNames(const std::vector<std::string>& names, const char* separator) {
    QStringList list;
    for (const auto& n : names)
        list << qs(n);
    return list.join(separator);
}

// The title and text at the top of a sheet, and a scrolling list under them.
QVBoxLayout* sheetFrame(QDialog* sheet, const QString& title, const QString& text) {
    sheet->setWindowTitle(title);
    sheet->setWindowModality(Qt::WindowModal);
    sheet->setAttribute(Qt::WA_DeleteOnClose);
    sheet->setMinimumWidth(520);
    auto* layout = new QVBoxLayout(sheet);
    layout->addWidget(Labels::heading(title, sheet, 1.25));
    layout->addWidget(Labels::text(text, sheet));
    auto* scroll = new QScrollArea(sheet);
    scroll->setWidgetResizable(true);
    scroll->setFrameShape(QFrame::NoFrame);
    auto* list = new QWidget;
    auto* rows = new QVBoxLayout(list);
    rows->setContentsMargins(0, 8, 0, 8);
    scroll->setWidget(list);
    layout->addWidget(scroll, 1);
    return rows;
}

} // namespace

ProposalSheet::ProposalSheet(const QString& title, const QString& text, const QString& refuseButton,
                             const std::vector<Row>& rows, Answer answer, QWidget* parent)
    : QDialog(parent), answer_(std::move(answer)) {
    QVBoxLayout* list = sheetFrame(this, title, text);
    for (const Row& row : rows) {
        auto* check = new QCheckBox(row.title);
        check->setChecked(true);
        list->addWidget(check);
        auto* detail = Labels::text(row.detail, this, "color: #8d929b; margin-left: 24px;");
        list->addWidget(detail);
        if (!row.extra.isEmpty())
            list->addWidget(Labels::text(row.extra, this, "color: #8d929b; margin-left: 24px;"));
        rows_.emplace_back(row.id, check);
        checks_.push_back(check);
    }
    list->addStretch();
    refuse_ = new QPushButton(refuseButton, this);
    continue_ = new QPushButton("Continue", this);
    continue_->setDefault(true);
    connect(refuse_, &QPushButton::clicked, this, &QDialog::reject);
    connect(continue_, &QPushButton::clicked, this, &QDialog::accept);
    auto* buttons = new QHBoxLayout;
    buttons->addStretch();
    buttons->addWidget(refuse_);
    buttons->addWidget(continue_);
    static_cast<QVBoxLayout*>(layout())->addLayout(buttons);
}

std::set<Uuid> ProposalSheet::accepted() const {
    std::set<Uuid> out;
    for (const auto& [id, check] : rows_)
        if (check->isChecked()) out.insert(id);
    return out;
}

void ProposalSheet::done(int result) {
    if (!answered_) {
        answered_ = true;
        answer_(result == QDialog::Accepted ? accepted() : std::set<Uuid>{});
    }
    QDialog::done(result);
}

namespace {

std::vector<ProposalSheet::Row> cameraRows(const std::vector<CameraGroupProposal>& proposals) {
    std::vector<ProposalSheet::Row> rows;
    for (const auto& p : proposals)
        rows.push_back({p.id,
                        joinedNames(p.trackNames, "  →  "),
                        QString("%1 clips  ·  prefix %2  ·  %3")
                            .arg(p.clipCount)
                            .arg(qs(p.filenamePrefix), qs(p.sequenceHint)),
                        {}});
    return rows;
}

std::vector<ProposalSheet::Row> dayRows(const std::vector<DayRegionProposal>& proposals) {
    std::vector<ProposalSheet::Row> rows;
    for (const auto& p : proposals)
        rows.push_back({p.id, qs(p.label),
                        QString("%1  ·  %2 clips  ·  clock %3")
                            .arg(qs(p.timeRangeHint()))
                            .arg(p.clipCount)
                            .arg(QString::fromUtf8(rawName(p.clockQuality).data(),
                                                   static_cast<qsizetype>(rawName(p.clockQuality).size()))),
                        joinedNames(p.trackNames, ", ")});
    return rows;
}

} // namespace

CameraGroupConfirmationView::CameraGroupConfirmationView(std::shared_ptr<SyncViewModel> vm,
                                                         const std::vector<CameraGroupProposal>& proposals,
                                                         QWidget* parent)
    : ProposalSheet(
          "One camera across folders?",
          "These folder-tracks look like one recorder split across cards — filenames continue in order. "
          "Grouped tracks are laid end-to-end and synced as one chain.",
          "Keep all separate", cameraRows(proposals),
          [vm](const std::set<Uuid>& accepted) { vm->confirmCameraGroups(accepted); }, parent) {}

DayRegionConfirmationView::DayRegionConfirmationView(std::shared_ptr<SyncViewModel> vm,
                                                     const std::vector<DayRegionProposal>& proposals,
                                                     QWidget* parent)
    : ProposalSheet(
          "Different parts of the day?",
          "Recording clocks suggest these tracks don't overlap in time. Each region syncs separately so "
          "clips from one part of the day don't false-match another.",
          "Treat as one day", dayRows(proposals),
          [vm](const std::set<Uuid>& accepted) { vm->confirmDayRegions(accepted); }, parent) {}

FormatAdvisoryView::FormatAdvisoryView(std::shared_ptr<SyncViewModel> vm,
                                       const std::vector<FormatAdvisory>& advisories, QWidget* parent)
    : QDialog(parent), vm_(std::move(vm)) {
    QVBoxLayout* list =
        sheetFrame(this, "Some clips need a codec",
                   "These files use a format Trelvane can't decode audio from yet, so they're placed "
                   "by timecode/interpolation instead of sound. Sync still ran — this is just so you "
                   "know why.");
    for (const auto& a : advisories) {
        auto* row = new QHBoxLayout;
        auto* text = new QVBoxLayout;
        text->addWidget(Labels::heading(qs(a.displayName), this));
        text->addWidget(
            Labels::text(QString("%1%2").arg(a.clipCount).arg(a.clipCount == 1 ? " clip" : " clips"), this,
                         "color: #8d929b;"));
        text->addWidget(Labels::text(qs(a.note), this, "color: #8d929b;"));
        row->addLayout(text, 1);
        if (a.url) {
            auto* get = new QPushButton("Get it ", this);
            get->setIcon(QIcon::fromTheme("go-next"));
            get->setLayoutDirection(Qt::RightToLeft);
            connect(get, &QPushButton::clicked, this,
                    [url = qs(*a.url)] { QDesktopServices::openUrl(QUrl(url)); });
            row->addWidget(get, 0, Qt::AlignTop);
        }
        list->addLayout(row);
    }
    list->addStretch();
    auto* close = new QPushButton("Close", this);
    close->setDefault(true);
    connect(close, &QPushButton::clicked, this, &QDialog::accept);
    auto* buttons = new QHBoxLayout;
    buttons->addStretch();
    buttons->addWidget(close);
    static_cast<QVBoxLayout*>(layout())->addLayout(buttons);
}

void FormatAdvisoryView::done(int result) {
    if (!answered_) {
        answered_ = true;
        vm_->dismissFormatAdvisories();
    }
    QDialog::done(result);
}

} // namespace trelvane
