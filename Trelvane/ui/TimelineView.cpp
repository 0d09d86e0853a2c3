// SPDX-License-Identifier: GPL-3.0-or-later
#include "Trelvane/ui/TimelineView.hpp"

#include <QFont>
#include <QFontMetricsF>
#include <QGraphicsLineItem>
#include <QGraphicsPathItem>
#include <QGraphicsRectItem>
#include <QGraphicsScene>
#include <QGraphicsSimpleTextItem>
#include <QHelpEvent>
#include <QMouseEvent>
#include <QPainter>
#include <QPen>
#include <QScrollBar>
#include <QToolTip>

#include <algorithm>
#include <cmath>
#include <fmt/format.h>

namespace trelvane {

namespace G = TimelineGeometry;

namespace {

const QColor kBackground("#1c1d21");
const QColor kRuler("#26282d");
const QColor kTick("#858b96");
const QColor kTickText("#c3c7cf");
const QColor kDivider("#2e3036");
const QColor kPlayhead("#ff5a4f");
const QColor kSelection("#4a9eff");
const QColor kLabel("#f2f3f5");
// How much white the waveform's bars have over the body's colour.
constexpr double kWaveLightness = 0.6;

// Where the waveform's middle lies in the body, and how far a full bar reaches either side; the
// label takes the top of the body.
constexpr double kWaveMiddle = 34;
constexpr double kWaveReach = 18;

QColor bodyColour(const ClipItem& clip) {
    if (clip.audioUsability != AudioUsability::ok) return QColor("#44464c");
    switch (clip.syncStatus) {
    case SyncStatus::pending:
        return QColor("#52607a");
    case SyncStatus::synced:
        return QColor("#2f8a57");
    case SyncStatus::weak:
        return QColor("#a87a25");
    case SyncStatus::failed:
        return QColor("#9c3d37");
    }
    return QColor("#52607a");
}

} // namespace

TimelineView::TimelineView(Callbacks callbacks, QWidget* parent)
    : QGraphicsView(parent), callbacks_(std::move(callbacks)), scene_(new QGraphicsScene(this)) {
    // One full repaint per frame is cheaper than tracking thousands of changed regions. The scene's
    // spatial index (see repositionClips) is what finds the clips in view when painting.
    scene_->setItemIndexMethod(QGraphicsScene::BspTreeIndex);
    scene_->setBackgroundBrush(kBackground);
    setScene(scene_);
    setAlignment(Qt::AlignLeft | Qt::AlignTop);
    setViewportUpdateMode(QGraphicsView::FullViewportUpdate);
    setOptimizationFlags(QGraphicsView::DontSavePainterState | QGraphicsView::DontAdjustForAntialiasing);
    setRenderHint(QPainter::Antialiasing, false);
    setFrameShape(QFrame::NoFrame);
    setHorizontalScrollBarPolicy(Qt::ScrollBarAsNeeded);
    setVerticalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    setMouseTracking(true);

    dividerLayer_ = scene_->addPath(QPainterPath(), QPen(kDivider, 1));
    dividerLayer_->setZValue(-1);

    rulerLayer_ = scene_->addRect(QRectF(0, 0, 1, G::kRulerHeight), QPen(Qt::NoPen), kRuler);
    rulerLayer_->setZValue(10);
    rulerTicks_ = new QGraphicsPathItem(rulerLayer_);
    rulerTicks_->setPen(QPen(kTick, 1));

    playheadLayer_ = scene_->addLine(QLineF(0, 0, 0, 1), QPen(kPlayhead, 1.5));
    playheadLayer_->setZValue(11);
    playheadLayer_->setVisible(false);
    updateSceneRect();
}

TimelineView::~TimelineView() = default;

void TimelineView::setDocument(const Document& document) {
    document_ = document;
}

// ---- the steps ----------------------------------------------------------------------------------

void TimelineView::rebuildAll() {
    static const Sources kNone;
    const Sources& sources = document_.sources ? *document_.sources : kNone;
    std::set<Uuid> present;
    drawOrder_.clear();
    for (const auto& track : sources)
        for (const auto& clip : track.clips) {
            present.insert(clip.id);
            auto [it, made] = clipLayers_.try_emplace(clip.id);
            ClipLayers& layers = it->second;
            drawOrder_.push_back(&layers);
            if (made) {
                layers.clipID = clip.id;
                layers.body =
                    scene_->addRect(QRectF(0, 0, G::kMinBodyWidth, G::kBodyHeight), QPen(Qt::NoPen));
                layers.wave = new WaveLayer(layers.body);
                layers.label = new QGraphicsSimpleTextItem(layers.body);
                layers.label->setBrush(kLabel);
                QFont font = layers.label->font();
                font.setPointSizeF(8.5);
                layers.label->setFont(font);
                layers.label->setPos(5, 3);
            }
            styleClip(layers, clip);
        }
    for (auto it = clipLayers_.begin(); it != clipLayers_.end();) {
        if (present.contains(it->first)) {
            ++it;
            continue;
        }
        waveBars_ -= it->second.wave->barCount();
        delete it->second.body; // takes its wave and label along
        it = clipLayers_.erase(it);
    }
    trackCount_ = static_cast<int>(sources.size());
    playheadLayer_->setVisible(trackCount_ > 0);
    repositionClips();
    restyleSelection();
    rebuildToolTips();
}

void TimelineView::styleClip(ClipLayers& layers, const ClipItem& clip) {
    const auto look = std::make_pair(clip.syncStatus, clip.audioUsability);
    if (layers.look != look) {
        const QColor body = bodyColour(clip);
        layers.body->setBrush(body);
        auto lighter = [](int channel) {
            return static_cast<int>(channel + (255 - channel) * kWaveLightness);
        };
        layers.wave->setColour(QColor(lighter(body.red()), lighter(body.green()), lighter(body.blue())));
        layers.wave->update();
        layers.look = look;
    }
    std::string text = G::clipLabel(clip);
    if (document_.debugSyncEnabled && clip.placementPass) {
        text += "  ·  " + std::string(rawValue(*clip.placementPass));
        if (clip.matchScore) text += fmt::format(" {:.1f}", *clip.matchScore);
    }
    if (text != layers.labelText) {
        layers.labelText = std::move(text);
        layers.labelFitWidth = -1;
    }
    // New analysis means a new waveform: what was built no longer holds.
    if (clip.waveformPreview.size() != layers.previewSize) {
        layers.previewSize = clip.waveformPreview.size();
        setWave(layers, {}, std::nullopt);
    }
}

void TimelineView::layoutClip(ClipLayers& layers, double bodyWidth) {
    const QRectF rect(0, 0, bodyWidth, G::kBodyHeight);
    if (layers.body->rect() != rect) layers.body->setRect(rect);
    const bool waved = bodyWidth >= G::kMinWaveWidth;
    if (layers.wave->isVisible() != waved) layers.wave->setVisible(waved);
    const bool labelled = G::showsLabel(bodyWidth);
    if (layers.label->isVisible() != labelled) layers.label->setVisible(labelled);
    // Shortened to the body rather than clipped by it: clipping every clip costs each frame.
    if (labelled && layers.labelFitWidth != bodyWidth) {
        const QString full = QString::fromStdString(layers.labelText);
        layers.label->setText(
            QFontMetricsF(layers.label->font()).elidedText(full, Qt::ElideRight, bodyWidth - 8));
        layers.labelFitWidth = bodyWidth;
    }
}

void TimelineView::repositionClips() {
    static const Sources kNone;
    const Sources& sources = document_.sources ? *document_.sources : kNone;
    clipFrames_.clear();
    const std::map<Uuid, double>* displayed =
        document_.displayedOffsets && !document_.displayedOffsets->empty() ? document_.displayedOffsets
                                                                           : nullptr;
    bool animating = false;
    std::size_t index = 0;
    for (std::size_t ti = 0; ti < sources.size(); ++ti)
        for (const auto& clip : sources[ti].clips) {
            ClipLayers* layers = layersOf(clip, index++);
            if (!layers) continue;
            double time = clip.startOffset;
            if (displayed)
                if (auto d = displayed->find(clip.id); d != displayed->end()) {
                    time = d->second;
                    animating = animating || std::abs(time - clip.startOffset) > 0.01;
                }
            const auto frame = G::clipFrame(time, clip.duration, document_.pxPerSec, static_cast<int>(ti));
            layers->body->setPos(frame.x, frame.y);
            layoutClip(*layers, frame.width);
            clipFrames_.push_back({clip.id, sources[ti].id, frame});
        }
    // While every clip moves each frame, keeping the spatial index up to date costs more than
    // painting without one; at rest the index makes painting and scrolling cheap. Hit-testing walks
    // the clip frames and needs neither.
    const auto method = animating ? QGraphicsScene::NoIndex : QGraphicsScene::BspTreeIndex;
    if (scene_->itemIndexMethod() != method) scene_->setItemIndexMethod(method);
    updateSceneRect();
    updatePlayhead();
    updateTickLabels();
    if (!animating) {
        buildVisibleWaves();
        if (toolTipsWaiting_) rebuildToolTips();
    }
}

TimelineView::ClipLayers* TimelineView::layersOf(const ClipItem& clip, std::size_t index) {
    if (index < drawOrder_.size() && drawOrder_[index]->clipID == clip.id) return drawOrder_[index];
    const auto it = clipLayers_.find(clip.id);
    return it == clipLayers_.end() ? nullptr : &it->second;
}

void TimelineView::restyleSelection() {
    static const std::set<Uuid> kNone;
    const std::set<Uuid>& selected = document_.selectedIDs ? *document_.selectedIDs : kNone;
    const QPen selectedPen(kSelection, 2);
    for (auto& [id, layers] : clipLayers_) {
        const bool on = selected.contains(id);
        if ((layers.body->pen().style() != Qt::NoPen) != on)
            layers.body->setPen(on ? selectedPen : QPen(Qt::NoPen));
    }
}

void TimelineView::rebuildToolTips() {
    if (isAnimatingOffsets()) {
        toolTipsWaiting_ = true;
        return;
    }
    toolTipsWaiting_ = false;
    static const Sources kNone;
    const Sources& sources = document_.sources ? *document_.sources : kNone;
    G::Signature signature;
    for (const auto& track : sources)
        for (const auto& clip : track.clips) {
            signature.add(clip.id).add(clip.syncStatus).add(clip.audioUsability);
            // Values, not the optionals: their padding bytes are not part of what they hold.
            signature.add(clip.placementPass ? static_cast<int>(*clip.placementPass) : -1);
            signature.add(clip.matchScore.value_or(-1.0f)).addText(clip.placementNote.value_or(""));
            signature.addText(clip.audioProblem.value_or(""));
        }
    if (signature.value == lastToolTipSignature_ && toolTipTextByTag_.size() == clipFrames_.size()) return;
    lastToolTipSignature_ = signature.value;
    toolTipTextByTag_.clear();
    int tag = 0;
    for (const auto& track : sources)
        for (const auto& clip : track.clips)
            if (clipLayers_.contains(clip.id)) toolTipTextByTag_[tag++] = G::toolTipText(clip);
}

void TimelineView::visibleDidChange() {
    updateTickLabels();
    if (!isAnimatingOffsets()) buildVisibleWaves();
}

void TimelineView::buildVisibleWaves() {
    if (!document_.sources) return;
    const QRectF visible = visibleDocumentRect();
    std::size_t index = 0;
    for (const auto& track : *document_.sources)
        for (const auto& clip : track.clips) {
            ClipLayers* layers = layersOf(clip, index++);
            if (!layers) continue;
            const QRectF body = layers->body->sceneBoundingRect();
            if (body.width() < G::kMinWaveWidth || body.right() < visible.left() ||
                body.left() > visible.right() || body.bottom() < visible.top() ||
                body.top() > visible.bottom())
                continue;
            buildWavePath(*layers, clip, visible.left(), visible.right());
        }
}

void TimelineView::buildWavePath(ClipLayers& layers, const ClipItem& clip, double visibleLeft,
                                 double visibleRight) {
    const auto& preview = clip.waveformPreview;
    if (preview.empty()) return;
    const double width = layers.body->rect().width();
    const int n = static_cast<int>(preview.size());
    // At most one bar per point.
    const int bars = std::max(1, std::min(n, static_cast<int>(std::floor(width))));
    const double barWidth = width / bars;
    const double left = visibleLeft - layers.body->x(), right = visibleRight - layers.body->x();
    const int first = std::clamp(static_cast<int>(std::floor(left / barWidth)), 0, bars);
    const int last = std::clamp(static_cast<int>(std::ceil(right / barWidth)), 0, bars);
    if (first >= last) return;
    if (layers.waveBuiltRange && layers.waveBuiltZoom == document_.pxPerSec &&
        layers.waveBuiltRange->first <= first && layers.waveBuiltRange->second >= last)
        return;
    // Half a view's worth either side, so that a short scroll finds its bars already built.
    const int slack = (last - first) / 2;
    const int from = std::max(0, first - slack), to = std::min(bars, last + slack);
    std::vector<QRectF> rects;
    rects.reserve(static_cast<std::size_t>(to - from));
    const double drawn = std::max(0.6, barWidth * 0.7);
    for (int b = from; b < to; ++b) {
        const int i0 = static_cast<int>(static_cast<long long>(b) * n / bars);
        const int i1 = std::max(i0 + 1, static_cast<int>(static_cast<long long>(b + 1) * n / bars));
        float v = 0;
        for (int i = i0; i < std::min(i1, n); ++i)
            v = std::max(v, preview[static_cast<std::size_t>(i)]);
        const double reach = std::max(0.5, static_cast<double>(v) * kWaveReach);
        rects.emplace_back(b * barWidth, kWaveMiddle - reach, drawn, 2 * reach);
    }
    setWave(layers, std::move(rects), std::make_pair(from, to));
    layers.waveBuiltZoom = document_.pxPerSec;
}

void TimelineView::setWave(ClipLayers& layers, std::vector<QRectF> bars,
                           std::optional<std::pair<int, int>> range) {
    waveBars_ -= layers.wave->barCount();
    waveBars_ += bars.size();
    layers.wave->setBars(std::move(bars));
    layers.waveBuiltRange = range;
}

WaveLayer::WaveLayer(QGraphicsItem* parent) : QGraphicsItem(parent) {}

void WaveLayer::setBars(std::vector<QRectF> bars) {
    prepareGeometryChange();
    bars_ = std::move(bars);
    bounds_ = QRectF();
    if (!bars_.empty())
        bounds_ = QRectF(QPointF(bars_.front().left(), 0), QPointF(bars_.back().right(), G::kBodyHeight));
    update();
}

void WaveLayer::paint(QPainter* painter, const QStyleOptionGraphicsItem*, QWidget*) {
    if (bars_.empty()) return;
    painter->setPen(Qt::NoPen);
    painter->setBrush(colour_);
    painter->drawRects(bars_.data(), static_cast<int>(bars_.size()));
}

void TimelineView::updatePlayhead() {
    const double x = std::max(0.0, document_.playheadTime) * document_.pxPerSec;
    playheadLayer_->setLine(QLineF(x, 0, x, G::documentHeight(trackCount_)));
}

bool TimelineView::isAnimatingOffsets() const {
    if (!document_.sources || !document_.displayedOffsets || document_.displayedOffsets->empty())
        return false;
    for (const auto& track : *document_.sources)
        for (const auto& clip : track.clips)
            if (auto it = document_.displayedOffsets->find(clip.id); it != document_.displayedOffsets->end())
                if (std::abs(it->second - clip.startOffset) > 0.01) return true;
    return false;
}

// ---- the ruler ----------------------------------------------------------------------------------

void TimelineView::updateTickLabels() {
    const QRectF visible = visibleDocumentRect();
    const double pxPerSec = document_.pxPerSec > 0 ? document_.pxPerSec : 2;
    const double interval = G::tickInterval(pxPerSec);
    const double from = std::max(0.0, visible.left() - G::kTickLabelMargin);
    const double to = visible.right() + G::kTickLabelMargin;
    QPainterPath ticks;
    std::size_t used = 0;
    for (double t = std::floor(from / pxPerSec / interval) * interval; t * pxPerSec <= to; t += interval) {
        const double x = std::round(t * pxPerSec) + 0.5;
        ticks.moveTo(x, G::kRulerHeight - 12);
        ticks.lineTo(x, G::kRulerHeight);
        const double half = x + interval * pxPerSec / 2;
        ticks.moveTo(half, G::kRulerHeight - 5);
        ticks.lineTo(half, G::kRulerHeight);
        if (used == tickLabels_.size()) {
            auto* label = new QGraphicsSimpleTextItem(rulerLayer_);
            label->setBrush(kTickText);
            QFont font = label->font();
            font.setPointSizeF(8);
            label->setFont(font);
            tickLabels_.push_back(label);
        }
        QGraphicsSimpleTextItem* label = tickLabels_[used++];
        const QString text = QString::fromStdString(G::tickLabel(t));
        if (label->text() != text) label->setText(text);
        label->setPos(x + G::kTickLabelInset, 3);
        label->setVisible(true);
    }
    for (std::size_t i = used; i < tickLabels_.size(); ++i)
        tickLabels_[i]->setVisible(false);
    rulerTicks_->setPath(ticks);
}

QStringList TimelineView::tickLabels() const {
    QStringList out;
    for (auto* label : tickLabels_)
        if (label->isVisible()) out << label->text();
    return out;
}

// ---- geometry of the document -------------------------------------------------------------------

void TimelineView::updateSceneRect() {
    const double width = std::max(static_cast<double>(viewport()->width()),
                                  document_.totalDuration * document_.pxPerSec + G::kTrailingRoom);
    const double height = std::max(static_cast<double>(viewport()->height()), G::documentHeight(trackCount_));
    const bool resized = sceneRect() != QRectF(0, 0, width, height);
    if (resized) {
        scene_->setSceneRect(0, 0, width, height);
        setSceneRect(0, 0, width, height);
        rulerLayer_->setRect(0, 0, width, G::kRulerHeight);
    }
    // A line under each row, across the whole document.
    if (resized || dividerLayer_->path().elementCount() != 2 * trackCount_) {
        QPainterPath dividers;
        for (int k = 0; k < trackCount_; ++k) {
            const double y = G::rowTop(k) + G::kRowHeight + 0.5;
            dividers.moveTo(0, y);
            dividers.lineTo(width, y);
        }
        dividerLayer_->setPath(dividers);
    }
    pinRuler();
}

void TimelineView::pinRuler() {
    // The ruler stays on top of the view while the rows scroll under it.
    const double top = verticalScrollBar() ? verticalScrollBar()->value() : 0;
    if (rulerLayer_->y() != top) rulerLayer_->setY(top);
}

QRectF TimelineView::visibleDocumentRect() const {
    return mapToScene(viewport()->rect()).boundingRect();
}

double TimelineView::secondsAt(double viewportX) const {
    const double x = mapToScene(QPoint(static_cast<int>(std::lround(viewportX)), 0)).x();
    return std::max(0.0, x / (document_.pxPerSec > 0 ? document_.pxPerSec : 2));
}

std::optional<Uuid> TimelineView::clipAt(QPointF documentPoint) const {
    // The last drawn is on top.
    for (auto it = clipFrames_.rbegin(); it != clipFrames_.rend(); ++it)
        if (it->frame.contains(documentPoint.x(), documentPoint.y())) return it->clipID;
    return std::nullopt;
}

QString TimelineView::toolTipAt(QPointF documentPoint) const {
    if (isAnimatingOffsets()) return {};
    for (int i = static_cast<int>(clipFrames_.size()) - 1; i >= 0; --i)
        if (clipFrames_[static_cast<std::size_t>(i)].frame.contains(documentPoint.x(), documentPoint.y())) {
            auto it = toolTipTextByTag_.find(i);
            return it == toolTipTextByTag_.end() ? QString() : QString::fromStdString(it->second);
        }
    return {};
}

// ---- events -------------------------------------------------------------------------------------

void TimelineView::mousePressEvent(QMouseEvent* event) {
    if (event->button() != Qt::LeftButton) return;
    const QPointF p = event->position();
    if (p.y() <= G::kScrubHeight) {
        scrubbing_ = true;
        if (callbacks_.onSeek) callbacks_.onSeek(secondsAt(p.x()));
        return;
    }
    downPoint_ = p;
}

void TimelineView::mouseMoveEvent(QMouseEvent* event) {
    if (scrubbing_ && callbacks_.onSeek) callbacks_.onSeek(secondsAt(event->position().x()));
}

void TimelineView::mouseReleaseEvent(QMouseEvent* event) {
    if (event->button() != Qt::LeftButton) return;
    const QPointF p = event->position();
    if (scrubbing_) {
        scrubbing_ = false;
        if (callbacks_.onScrubEnd) callbacks_.onScrubEnd(secondsAt(p.x()));
        return;
    }
    if (!downPoint_) return;
    const QPointF down = *downPoint_;
    downPoint_.reset();
    if (std::hypot(p.x() - down.x(), p.y() - down.y()) > G::kClickSlop) return;
    const QPointF doc = mapToScene(p.toPoint());
    if (auto id = clipAt(doc)) {
        if (callbacks_.onSelect) callbacks_.onSelect(*id, doc.x());
    } else if (callbacks_.onClearSelection) {
        callbacks_.onClearSelection();
    }
}

bool TimelineView::viewportEvent(QEvent* event) {
    if (event->type() == QEvent::ToolTip) {
        auto* help = static_cast<QHelpEvent*>(event);
        const QString text =
            help->pos().y() > G::kRulerHeight ? toolTipAt(mapToScene(help->pos())) : QString();
        if (text.isEmpty())
            QToolTip::hideText();
        else
            QToolTip::showText(help->globalPos(), text, viewport());
        return true;
    }
    return QGraphicsView::viewportEvent(event);
}

void TimelineView::scrollContentsBy(int dx, int dy) {
    QGraphicsView::scrollContentsBy(dx, dy);
    pinRuler();
    visibleDidChange();
}

void TimelineView::resizeEvent(QResizeEvent* event) {
    QGraphicsView::resizeEvent(event);
    updateSceneRect();
    visibleDidChange();
}

} // namespace trelvane
