// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// The drawing surface of the session: the ruler, one row per track, one rectangle per clip with its
// waveform and label, and the playhead. It must stay smooth with thousands of clips and while a
// sync glides them into place, so it is a retained scene: each clip keeps its items for as long as
// it exists and a change moves or restyles them; nothing is redrawn from scratch per frame.
//
// The view reads a `Document` that its owner points it at (the controller's tracks, the glide's
// offsets, the selection, the scale) and is told which step to take: `rebuildAll` when the set of
// clips or their look changed, `repositionClips` when offsets or the scale did, `restyleSelection`,
// `rebuildToolTips`, and `visibleDidChange` after a scroll, which builds the waveforms and ruler
// labels of what has come into view. While offsets glide, tool tips and waveforms wait.
//
// Lifecycle: GUI thread only. The document's pointers must stay valid until the next
// `setDocument` or the view's end.

#include "Trelvane/session/SessionStages.hpp"
#include "Trelvane/ui/TimelineGeometry.hpp"

#include <QGraphicsItem>
#include <QGraphicsView>

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

class QGraphicsPathItem;
class QGraphicsRectItem;
class QStyleOptionGraphicsItem;
class QGraphicsSimpleTextItem;
class QGraphicsLineItem;

namespace trelvane {

// One clip's waveform: its bars as rectangles in the clip body's coordinates, filled in one call.
// A path of thousands of small rectangles per clip costs the rasteriser far more per frame.
class WaveLayer : public QGraphicsItem {
  public:
    explicit WaveLayer(QGraphicsItem* parent);
    void setBars(std::vector<QRectF> bars);
    std::size_t barCount() const { return bars_.size(); }
    // Opaque, mixed from the body's colour: blending thousands of bars costs each frame.
    void setColour(const QColor& colour) { colour_ = colour; }
    QRectF boundingRect() const override { return bounds_; }
    void paint(QPainter* painter, const QStyleOptionGraphicsItem* option, QWidget* widget) override;

  private:
    std::vector<QRectF> bars_;
    QRectF bounds_;
    QColor colour_;
};

class TimelineView : public QGraphicsView {
  public:
    struct Callbacks {
        std::function<void(double seconds)> onSeek;
        std::function<void(double seconds)> onScrubEnd;
        std::function<void(const Uuid& clipID, double x)> onSelect;
        std::function<void()> onClearSelection;
    };

    struct Document {
        const Sources* sources = nullptr;
        // Where the glide draws each clip; a clip without an entry stands at its `startOffset`.
        const std::map<Uuid, double>* displayedOffsets = nullptr;
        const std::set<Uuid>* selectedIDs = nullptr;
        double pxPerSec = 2;
        double totalDuration = 0;
        double playheadTime = 0;
        // The developer's switch: labels tell each clip's pass and score.
        bool debugSyncEnabled = false;
    };

    struct ClipLayers {
        Uuid clipID;
        QGraphicsRectItem* body = nullptr;
        WaveLayer* wave = nullptr;
        QGraphicsSimpleTextItem* label = nullptr;
        // The bars of the waveform built so far, [first, last), and the scale they were built at.
        std::optional<std::pair<int, int>> waveBuiltRange;
        double waveBuiltZoom = 0;
        // What the look was made from, so that an unchanged clip is left alone.
        std::string labelText;
        double labelFitWidth = -1; // the body width the shown label was shortened for
        std::optional<std::pair<SyncStatus, AudioUsability>> look;
        std::size_t previewSize = 0;
    };

    struct ClipFrame {
        Uuid clipID;
        Uuid trackID;
        TimelineGeometry::Frame frame;
    };

    explicit TimelineView(Callbacks callbacks, QWidget* parent = nullptr);
    ~TimelineView() override;

    void setDocument(const Document& document);
    const Document& document() const { return document_; }

    // Makes items for new clips, drops those of gone clips, restyles the rest, lays out the rows and
    // then positions everything.
    void rebuildAll();
    // Moves every clip to its offset at the current scale; cheap enough for each frame of a glide.
    void repositionClips();
    void restyleSelection();
    // The tool tips follow the clips' statuses and explanations; unchanged ones are not rebuilt.
    void rebuildToolTips();
    // Waveforms and ruler labels of what is in view.
    void visibleDidChange();
    void updatePlayhead();
    // Whether some clip is still drawn more than 0.01 s away from its `startOffset`.
    bool isAnimatingOffsets() const;

    const std::map<Uuid, ClipLayers>& clipLayers() const { return clipLayers_; }
    const std::vector<ClipFrame>& clipFrames() const { return clipFrames_; }
    // The clip whose body holds the document point, by walking the frames.
    std::optional<Uuid> clipAt(QPointF documentPoint) const;
    // The tool tip at a document point, empty where there is none (or while clips glide).
    QString toolTipAt(QPointF documentPoint) const;
    // The ruler's labels as drawn, left to right.
    QStringList tickLabels() const;
    // How many bars the waveforms hold in all.
    std::size_t waveBarCount() const { return waveBars_; }

  protected:
    void mousePressEvent(QMouseEvent* event) override;
    void mouseMoveEvent(QMouseEvent* event) override;
    void mouseReleaseEvent(QMouseEvent* event) override;
    bool viewportEvent(QEvent* event) override;
    void scrollContentsBy(int dx, int dy) override;
    void resizeEvent(QResizeEvent* event) override;

  private:
    void layoutClip(ClipLayers& layers, double bodyWidth);
    void styleClip(ClipLayers& layers, const ClipItem& clip);
    // The clip's layers: the one at `index` of the last rebuild's order when it is that clip's,
    // else looked up; nothing for a clip without layers.
    ClipLayers* layersOf(const ClipItem& clip, std::size_t index);
    // Waveforms of the clips in view, without asking whether clips glide (the caller knows).
    void buildVisibleWaves();
    void buildWavePath(ClipLayers& layers, const ClipItem& clip, double visibleLeft, double visibleRight);
    // Replaces a clip's bars, keeping the count of all bars.
    void setWave(ClipLayers& layers, std::vector<QRectF> bars, std::optional<std::pair<int, int>> range);
    void updateTickLabels();
    void updateSceneRect();
    void pinRuler();
    QRectF visibleDocumentRect() const;
    double secondsAt(double viewportX) const;

    Callbacks callbacks_;
    Document document_;
    QGraphicsScene* scene_;

    std::map<Uuid, ClipLayers> clipLayers_;
    // The layers in the order of the tracks and their clips, as of the last rebuild: a glide frame
    // walks them beside the clips instead of looking each one up.
    std::vector<ClipLayers*> drawOrder_;
    std::vector<ClipFrame> clipFrames_;
    std::size_t waveBars_ = 0;

    QGraphicsRectItem* rulerLayer_ = nullptr;
    QGraphicsPathItem* rulerTicks_ = nullptr;
    std::vector<QGraphicsSimpleTextItem*> tickLabels_;
    QGraphicsPathItem* dividerLayer_ = nullptr;
    QGraphicsLineItem* playheadLayer_ = nullptr;
    int trackCount_ = 0;

    std::uint64_t lastToolTipSignature_ = 0;
    std::map<int, std::string> toolTipTextByTag_; // by index into clipFrames_
    bool toolTipsWaiting_ = false;

    std::optional<QPointF> downPoint_;
    bool scrubbing_ = false;
};

} // namespace trelvane
