// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// "Trelvane is in your editor too": the window opened from the Plugins menu entry. A card per
// editor says whether its panel is installed (and which version), whether the editor was found and
// where the panel appears in it; its button installs or reinstalls and shows how that went.
//
// Lifecycle: made once by the main window (`new PluginsView(settings, this)`) and shown as often as
// asked; each time it appears it reads the settings and the two installed panels again, so a root
// set or a panel removed meanwhile shows at once. Installs run on the GUI thread: panels are a few
// small files. The settings must outlive the window.

#include "Trelvane/ui/PluginInstaller.hpp"

#include <QDialog>

#include <filesystem>

class QLabel;
class QPushButton;

namespace trelvane {

class PluginsView : public QDialog {
  public:
    using Panel = PluginInstaller::Panel;

    // The bundled panels come from PluginInstaller::defaultResourcesDir().
    explicit PluginsView(const Settings& settings, QWidget* parent = nullptr);
    PluginsView(const Settings& settings, std::filesystem::path resources, QWidget* parent = nullptr);

    // The installer over the current settings.
    PluginInstaller installer() const;
    // Reads both states again and updates the cards (done on every show).
    void refresh();

    // "Installed <version>" or "Not installed".
    QLabel* stateLabel(Panel panel) const { return card(panel).state; }
    // "Resolve not found" / "Premiere not found", visible only when the editor is missing.
    QLabel* missingLabel(Panel panel) const { return card(panel).missing; }
    // "Install" or "Reinstall".
    QPushButton* installButton(Panel panel) const { return card(panel).button; }

  protected:
    void showEvent(QShowEvent* event) override;

  private:
    struct Card {
        QLabel* state = nullptr;
        QLabel* missing = nullptr;
        QLabel* where = nullptr;
        QPushButton* button = nullptr;
    };
    const Card& card(Panel panel) const { return panel == Panel::davinci ? davinci_ : premiere_; }
    Card makeCard(Panel panel);
    void install(Panel panel);

    const Settings& settings_;
    const std::filesystem::path resources_;
    Card davinci_;
    Card premiere_;
};

} // namespace trelvane
