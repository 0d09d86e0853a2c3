// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// "Export timeline": the form that fills the export options — target, rate family and rate (the
// footage's own preselected), channel layout — over a summary of what will be written. Its two
// outcomes are the options (accepted) or nothing (rejected, however it was closed).

#include "Trelvane/export/ExportOptions.hpp"

#include <QDialog>

#include <vector>

class QButtonGroup;
class QComboBox;
class QLabel;
class QRadioButton;

namespace trelvane {

class ExportDialog : public QDialog {
  public:
    ExportDialog(std::vector<float> detectedFrameRates, const ExportSummary& summary,
                 const ExportOptions& defaults, QWidget* parent);
    ExportOptions options() const;

    QButtonGroup* targets() const { return targets_; }
    QComboBox* familyPicker() const { return family_; }
    QComboBox* ratePicker() const { return rate_; }
    QButtonGroup* channelLayouts() const { return channels_; }
    QLabel* summaryLabel() const { return summary_; }

  private:
    void fillRates(RateFamily family, double preferred);

    const std::vector<float> detected_;
    QButtonGroup* targets_;
    QComboBox* family_;
    QComboBox* rate_;
    QButtonGroup* channels_;
    QLabel* summary_;
};

// The rate as the pickers show it: "25", "29.97", "23.976".
QString rateText(double fps);

} // namespace trelvane
