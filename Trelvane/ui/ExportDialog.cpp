// SPDX-License-Identifier: GPL-3.0-or-later
#include "Trelvane/ui/ExportDialog.hpp"

#include <QButtonGroup>
#include <QComboBox>
#include <QDialogButtonBox>
#include <QFormLayout>
#include <QGroupBox>
#include <QLabel>
#include <QPushButton>
#include <QRadioButton>
#include <QVBoxLayout>

#include <algorithm>

namespace trelvane {

namespace {

QString targetTitle(ExportTarget target) {
    switch (target) {
    case ExportTarget::premiere:
        return "Premiere Pro";
    case ExportTarget::finalCut:
        return "Final Cut Pro";
    case ExportTarget::resolve:
        return "Premiere Pro / DaVinci Resolve";
    case ExportTarget::otio:
        return "OpenTimelineIO";
    }
    return {};
}

QString targetDetail(ExportTarget target) {
    switch (target) {
    case ExportTarget::premiere:
        return "FCP7 XML, as Premiere Pro imports it";
    case ExportTarget::finalCut:
        return "FCPXML 1.10";
    case ExportTarget::resolve:
        return "FCP7 XML, as DaVinci Resolve imports it";
    case ExportTarget::otio:
        return "for other editors and tools";
    }
    return {};
}

} // namespace

QString rateText(double fps) {
    return QString::number(fps, 'g', 6);
}

ExportDialog::ExportDialog(std::vector<float> detectedFrameRates, const ExportSummary& summary,
                           const ExportOptions& defaults, QWidget* parent)
    : QDialog(parent), detected_(std::move(detectedFrameRates)), targets_(new QButtonGroup(this)),
      family_(new QComboBox(this)), rate_(new QComboBox(this)), channels_(new QButtonGroup(this)),
      summary_(new QLabel(this)) {
    setWindowTitle("Export timeline");
    setWindowModality(Qt::WindowModal);
    resize(520, 372);

    auto* layout = new QVBoxLayout(this);
    auto* targetBox = new QGroupBox("Editor", this);
    auto* targetLayout = new QVBoxLayout(targetBox);
    int index = 0;
    for (ExportTarget target : kAllExportTargets) {
        auto* button =
            new QRadioButton(QString("%1 — %2").arg(targetTitle(target), targetDetail(target)), targetBox);
        targets_->addButton(button, index++);
        targetLayout->addWidget(button);
        if (target == defaults.target) button->setChecked(true);
    }
    layout->addWidget(targetBox);

    auto* form = new QFormLayout;
    for (RateFamily family : kAllRateFamilies) {
        const auto raw = rawValue(family);
        family_->addItem(QString::fromUtf8(raw.data(), static_cast<qsizetype>(raw.size())),
                         static_cast<int>(family));
    }
    form->addRow("Rate family", family_);
    form->addRow("Frame rate", rate_);
    layout->addLayout(form);

    const RateFamily family =
        ratesOffered(RateFamily::pal).end() != std::find(ratesOffered(RateFamily::pal).begin(),
                                                         ratesOffered(RateFamily::pal).end(), defaults.fps)
            ? RateFamily::pal
            : RateFamily::ntsc;
    family_->setCurrentIndex(family_->findData(static_cast<int>(family)));
    fillRates(family, defaults.fps);
    connect(family_, &QComboBox::currentIndexChanged, this, [this] {
        const auto f = static_cast<RateFamily>(family_->currentData().toInt());
        fillRates(f, preferredRate(f, detected_));
    });

    auto* channelBox = new QGroupBox("Audio channels", this);
    auto* channelLayout = new QVBoxLayout(channelBox);
    const int channels = std::max(1, summary.maxChannels);
    auto* perChannel =
        new QRadioButton(QString("One track per channel — up to %1").arg(channels), channelBox);
    auto* mixed = new QRadioButton(
        QString("%1 channels on one track, summed by the editor. They cannot be separated again without "
                "re-importing.")
            .arg(channels),
        channelBox);
    channels_->addButton(perChannel, static_cast<int>(ChannelLayout::perChannel));
    channels_->addButton(mixed, static_cast<int>(ChannelLayout::mixed));
    (defaults.channels == ChannelLayout::mixed ? mixed : perChannel)->setChecked(true);
    channelLayout->addWidget(perChannel);
    channelLayout->addWidget(mixed);
    layout->addWidget(channelBox);

    // The FCP7 targets move sound onto frames: the line says how far, for the target and rate picked.
    const QString counts = QString("%1 track%2  ·  %3 clip%4  ·  %5")
                               .arg(summary.trackCount)
                               .arg(summary.trackCount == 1 ? "" : "s")
                               .arg(summary.clipCount)
                               .arg(summary.clipCount == 1 ? "" : "s")
                               .arg(QString::fromStdString(summary.durationString()));
    const auto showSummary = [this, counts, summary] {
        const ExportOptions picked = options();
        const auto snap = summary.snapLine(picked.target, picked.fps);
        summary_->setText(snap ? counts + "\n" + QString::fromStdString(*snap) : counts);
    };
    showSummary();
    connect(targets_, &QButtonGroup::idClicked, this, showSummary);
    connect(rate_, &QComboBox::currentIndexChanged, this, showSummary);
    layout->addWidget(summary_);
    auto* note =
        new QLabel("Clips without usable audio are placed in order between the clips around them.", this);
    note->setWordWrap(true);
    note->setStyleSheet("color: #8d929b;");
    layout->addWidget(note);

    auto* buttons = new QDialogButtonBox(QDialogButtonBox::Cancel, this);
    auto* exportButton = buttons->addButton("Export…", QDialogButtonBox::AcceptRole);
    exportButton->setDefault(true);
    connect(buttons, &QDialogButtonBox::accepted, this, &QDialog::accept);
    connect(buttons, &QDialogButtonBox::rejected, this, &QDialog::reject);
    layout->addWidget(buttons);
}

void ExportDialog::fillRates(RateFamily family, double preferred) {
    rate_->clear();
    for (double fps : ratesOffered(family)) {
        rate_->addItem(rateText(fps), fps);
        if (fps == preferred) rate_->setCurrentIndex(rate_->count() - 1);
    }
}

ExportOptions ExportDialog::options() const {
    ExportOptions options;
    const int target = targets_->checkedId();
    options.target =
        kAllExportTargets[std::clamp(target, 0, static_cast<int>(std::size(kAllExportTargets)) - 1)];
    options.fps = rate_->currentData().toDouble();
    options.channels = static_cast<ChannelLayout>(channels_->checkedId());
    return options;
}

} // namespace trelvane
