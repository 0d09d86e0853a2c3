// SPDX-License-Identifier: GPL-3.0-or-later
#include "Trelvane/ui/PluginsView.hpp"

#include "Trelvane/ui/Labels.hpp"

#include <QFrame>
#include <QHBoxLayout>
#include <QLabel>
#include <QMessageBox>
#include <QPushButton>
#include <QVBoxLayout>

namespace trelvane {

namespace {

struct CardText {
    const char* editor;
    const char* line;
    const char* missing;
    const char* where;
};

CardText cardText(PluginInstaller::Panel panel) {
    if (panel == PluginInstaller::Panel::davinci)
        return {"DaVinci Resolve", "Studio plugin · Free → Export FCP7 XML", "Resolve not found",
                "Workspace › Workflow Integrations › Trelvane"};
    return {"Premiere Pro", "Premiere Pro 2019 or later", "Premiere not found",
            "Window › Extensions › Trelvane"};
}

} // namespace

PluginsView::PluginsView(const Settings& settings, QWidget* parent)
    : PluginsView(settings, PluginInstaller::defaultResourcesDir(), parent) {}

PluginsView::PluginsView(const Settings& settings, std::filesystem::path resources, QWidget* parent)
    : QDialog(parent), settings_(settings), resources_(std::move(resources)) {
    const QString title = "Trelvane is in your editor too";
    setWindowTitle(title);
    setMinimumWidth(520);
    auto* layout = new QVBoxLayout(this);
    layout->addWidget(Labels::heading(title, this, 1.25));
    layout->addWidget(Labels::text("Sync clips already in your project — no import or export.", this));

    davinci_ = makeCard(Panel::davinci);
    premiere_ = makeCard(Panel::premiere);
    auto* cards = new QHBoxLayout;
    for (const Card* c : {&davinci_, &premiere_})
        cards->addWidget(c->button->parentWidget());
    layout->addLayout(cards);

    const char* dim = "color: palette(placeholder-text);";
    layout->addWidget(
        Labels::text("After installing, restart your editor so the Trelvane panel appears.", this, dim));
    layout->addWidget(
        Labels::text("Plugins install automatically when you open Trelvane the first time.", this, dim));
}

PluginsView::Card PluginsView::makeCard(Panel panel) {
    const CardText text = cardText(panel);
    auto* frame = new QFrame(this);
    frame->setFrameShape(QFrame::StyledPanel);
    auto* column = new QVBoxLayout(frame);
    column->addWidget(Labels::heading(text.editor, frame));
    column->addWidget(Labels::text(text.line, frame));
    Card card;
    card.state = Labels::text({}, frame);
    card.missing = Labels::text(text.missing, frame, "color: #e0a05f;");
    card.where = Labels::text(text.where, frame, "color: palette(placeholder-text);");
    card.button = new QPushButton(frame);
    column->addWidget(card.state);
    column->addWidget(card.missing);
    column->addWidget(card.where);
    column->addStretch(1);
    column->addWidget(card.button, 0, Qt::AlignLeft);
    connect(card.button, &QPushButton::clicked, this, [this, panel] { install(panel); });
    return card;
}

PluginInstaller PluginsView::installer() const {
    return PluginInstaller(PluginInstaller::locationsFrom(settings_, resources_));
}

void PluginsView::refresh() {
    const PluginInstaller current = installer();
    for (Panel panel : {Panel::davinci, Panel::premiere}) {
        const PluginInstaller::PanelState state = current.state(panel);
        const Card& c = card(panel);
        QString installed = "Installed";
        if (state.version) installed += " " + QString::fromStdString(*state.version);
        c.state->setText(state.installed ? installed : "Not installed");
        // Hidden rather than shown: isVisible() would also depend on the window being on screen.
        c.missing->setHidden(state.editorFound);
        c.where->setHidden(!state.installed);
        c.button->setText(state.installed ? "Reinstall" : "Install");
    }
}

void PluginsView::showEvent(QShowEvent* event) {
    refresh();
    QDialog::showEvent(event);
}

void PluginsView::install(Panel panel) {
    const PluginInstaller current = installer();
    const PluginInstaller::Alert alert =
        panel == Panel::davinci ? current.installFromMenu() : current.installPremiereFromMenu();
    refresh();
    const bool done = alert.title == "Plugin installed";
    auto* box = new QMessageBox(done ? QMessageBox::Information : QMessageBox::Warning,
                                QString::fromStdString(alert.title), QString::fromStdString(alert.text),
                                QMessageBox::Ok, this);
    box->setTextFormat(Qt::PlainText);
    box->setAttribute(Qt::WA_DeleteOnClose);
    // Window-modal and not blocking: the window stays live behind it, and tests can read it.
    box->open();
}

} // namespace trelvane
