// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// The sheets that stop for a human word: camera groups and day regions, which the ingest chain
// waits for, and the format advisory, which only informs. Each lists its proposals with a check
// mark that starts on. However a sheet is closed (its buttons, Escape, the window's close button),
// it ends in exactly one of the controller's answers, so the chain of adds never stays suspended:
// closing a proposal sheet without "Continue" answers as its first button does, with nothing
// accepted.
//
// Lifecycle: made and shown (window-modal, not blocking) by the main window on the GUI thread; the
// controller outlives them. Each deletes itself when closed.

#include "Trelvane/session/SyncViewModel.hpp"

#include <QDialog>

#include <functional>
#include <memory>
#include <set>
#include <vector>

class QCheckBox;
class QPushButton;

namespace trelvane {

// A list of proposals to accept or refuse, each with its check mark.
class ProposalSheet : public QDialog {
  public:
    struct Row {
        Uuid id;
        QString title;
        QString detail;
        QString extra; // a third line, or empty
    };
    using Answer = std::function<void(const std::set<Uuid>& accepted)>;

    ProposalSheet(const QString& title, const QString& text, const QString& refuseButton,
                  const std::vector<Row>& rows, Answer answer, QWidget* parent);
    std::set<Uuid> accepted() const;
    const std::vector<QCheckBox*>& checks() const { return checks_; }
    QPushButton* refuseButton() const { return refuse_; }
    QPushButton* continueButton() const { return continue_; }

    void done(int result) override;

  private:
    std::vector<std::pair<Uuid, QCheckBox*>> rows_;
    std::vector<QCheckBox*> checks_;
    QPushButton* refuse_;
    QPushButton* continue_;
    Answer answer_;
    bool answered_ = false;
};

class CameraGroupConfirmationView : public ProposalSheet {
  public:
    CameraGroupConfirmationView(std::shared_ptr<SyncViewModel> vm,
                                const std::vector<CameraGroupProposal>& proposals, QWidget* parent);
};

class DayRegionConfirmationView : public ProposalSheet {
  public:
    DayRegionConfirmationView(std::shared_ptr<SyncViewModel> vm,
                              const std::vector<DayRegionProposal>& proposals, QWidget* parent);
};

class FormatAdvisoryView : public QDialog {
  public:
    FormatAdvisoryView(std::shared_ptr<SyncViewModel> vm, const std::vector<FormatAdvisory>& advisories,
                       QWidget* parent);
    void done(int result) override;

  private:
    std::shared_ptr<SyncViewModel> vm_;
    bool answered_ = false;
};

} // namespace trelvane
