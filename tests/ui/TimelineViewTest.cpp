// SPDX-License-Identifier: GPL-3.0-or-later
// The timeline's drawing rules, hit-testing, scrubbing and the work it puts off while clips glide,
// on the real scene in an offscreen view.
#include "Trelvane/ui/TimelineView.hpp"

#include <QGraphicsPathItem>
#include <QGraphicsRectItem>
#include <QGraphicsSimpleTextItem>
#include <QScrollBar>
#include <QTest>
#include <gtest/gtest.h>

using namespace trelvane;
namespace G = trelvane::TimelineGeometry;

namespace {

ClipItem clip(const std::string& name, double start, double duration, std::size_t bars = 0) {
    ClipItem c;
    c.url = Url::fromPath("/shoot/" + name);
    c.startOffset = start;
    c.duration = duration;
    c.waveformPreview.assign(bars, 0.8f);
    return c;
}

struct Fixture {
    Sources sources;
    std::map<Uuid, double> displayed;
    std::set<Uuid> selected;
    std::vector<std::string> said;
    std::optional<Uuid> picked;
    TimelineView view{{.onSeek = [this](double t) { said.push_back("seek " + std::to_string(t)); },
                       .onScrubEnd = [this](double t) { said.push_back("end " + std::to_string(t)); },
                       .onSelect = [this](const Uuid& id, double) { picked = id; },
                       .onClearSelection = [this] { said.push_back("clear"); }}};

    void show(double pxPerSec) {
        view.resize(800, 400);
        view.show();
        double total = 0;
        for (const auto& t : sources)
            for (const auto& c : t.clips)
                total = std::max(total, c.startOffset + c.duration);
        view.setDocument({&sources, &displayed, &selected, pxPerSec, total, 0});
        view.rebuildAll();
    }
    void rescale(double pxPerSec) {
        auto doc = view.document();
        doc.pxPerSec = pxPerSec;
        view.setDocument(doc);
        view.repositionClips();
    }
    const TimelineView::ClipLayers& layers(int track, int index) const {
        return view.clipLayers().at(
            sources[static_cast<std::size_t>(track)].clips[static_cast<std::size_t>(index)].id);
    }
    // A point of the document in the view's own coordinates.
    QPoint at(double x, double y) const { return view.mapFromScene(QPointF(x, y)); }
};

} // namespace

TEST(TimelineView, DrawsEachClipByTheGeometryRules) {
    Fixture f;
    TrackSource first, second;
    first.clips = {clip("short.wav", 0, 0.1), clip("a.wav", 10, 10), clip("b.wav", 30, 13)};
    second.clips = {clip("long.wav", 7, 100)};
    f.sources = {first, second};
    f.show(2);
    const struct {
        int track, index;
        double x, y, width;
        bool label;
    } cases[] = {
        {0, 0, 0.5, 39, 3, false},   // 0.2 points of time, drawn 3 wide
        {0, 1, 20.5, 39, 19, false}, // not wider than 24: no label
        {0, 2, 60.5, 39, 25, true},
        {1, 0, 14.5, 112, 199, true}, // the second row starts 73 lower
    };
    for (const auto& c : cases) {
        const auto& l = f.layers(c.track, c.index);
        SCOPED_TRACE(l.labelText);
        EXPECT_DOUBLE_EQ(l.body->x(), c.x);
        EXPECT_DOUBLE_EQ(l.body->y(), c.y);
        EXPECT_DOUBLE_EQ(l.body->rect().width(), c.width);
        EXPECT_DOUBLE_EQ(l.body->rect().height(), 56);
        EXPECT_EQ(l.label->isVisible(), c.label);
    }
    EXPECT_EQ(f.layers(0, 2).labelText, "b");
    EXPECT_DOUBLE_EQ(f.view.sceneRect().height(),
                     std::max<double>(f.view.viewport()->height(), 31.0 + 2 * 73));

    // Emptied, nothing is left but the ruler.
    f.sources.clear();
    f.show(2);
    EXPECT_TRUE(f.view.clipLayers().empty());
    EXPECT_TRUE(f.view.clipFrames().empty());
    int bodies = 0, visibleLines = 0;
    for (auto* item : f.view.scene()->items()) {
        if (item->type() == QGraphicsRectItem::Type && item->zValue() < 10) ++bodies;
        if (item->type() == QGraphicsLineItem::Type && item->isVisible()) ++visibleLines;
        if (auto* path = dynamic_cast<QGraphicsPathItem*>(item); path && path->zValue() < 0) {
            EXPECT_TRUE(path->path().isEmpty()) << "no row dividers";
        }
    }
    EXPECT_EQ(bodies, 0);
    EXPECT_EQ(visibleLines, 0) << "no playhead";
    EXPECT_FALSE(f.view.tickLabels().isEmpty());
    EXPECT_EQ(f.view.tickLabels().front(), "0:00:00");
}

TEST(TimelineView, ClicksPickTheClipUnderThePointerAfterAZoomAndTheRulerScrubs) {
    Fixture f;
    TrackSource track;
    track.clips = {clip("a.wav", 0, 10), clip("b.wav", 20, 10)};
    f.sources = {track};
    f.show(10);
    const Uuid a = f.sources[0].clips[0].id, b = f.sources[0].clips[1].id;
    const double rowY = 31 + 8 + 20;
    QTest::mouseClick(f.view.viewport(), Qt::LeftButton, {}, f.at(250, rowY));
    EXPECT_EQ(f.picked, b);
    f.rescale(20); // 250 points is now 12.5 s: between the clips
    f.picked.reset();
    QTest::mouseClick(f.view.viewport(), Qt::LeftButton, {}, f.at(250, rowY));
    EXPECT_FALSE(f.picked);
    EXPECT_EQ(f.said.back(), "clear");
    QTest::mouseClick(f.view.viewport(), Qt::LeftButton, {}, f.at(150, rowY));
    EXPECT_EQ(f.picked, a);
    EXPECT_EQ(f.view.clipAt(QPointF(450, rowY)), b);

    // A press and release far apart is no click.
    f.picked.reset();
    QTest::mousePress(f.view.viewport(), Qt::LeftButton, {}, f.at(150, rowY));
    QTest::mouseRelease(f.view.viewport(), Qt::LeftButton, {}, f.at(170, rowY));
    EXPECT_FALSE(f.picked);

    // On the ruler a press seeks, a drag follows and the release ends the scrub.
    f.said.clear();
    QTest::mousePress(f.view.viewport(), Qt::LeftButton, {}, QPoint(100, 20));
    QTest::mouseMove(f.view.viewport(), QPoint(200, 25));
    QTest::mouseRelease(f.view.viewport(), Qt::LeftButton, {}, QPoint(200, 25));
    EXPECT_EQ(f.said, (std::vector<std::string>{"seek 5.000000", "seek 10.000000", "end 10.000000"}));
}

TEST(TimelineView, WaveformsAreBuiltForWhatIsInViewAtMostOneBarPerPoint) {
    Fixture f;
    TrackSource dense, below;
    dense.clips = {clip("dense.wav", 0, 100, 1000), clip("long.wav", 120, 1000, 1000)};
    for (int i = 0; i < 8; ++i) {
        TrackSource filler;
        filler.clips = {clip("f" + std::to_string(i) + ".wav", 0, 100, 100)};
        f.sources.push_back(filler);
    }
    f.sources.insert(f.sources.begin(), dense);
    f.sources.push_back(below);
    f.show(2);
    // 100 s at 2 points a second: 199 points, so no more than 199 bars out of 1,000.
    const auto& first = f.layers(0, 0);
    ASSERT_TRUE(first.waveBuiltRange);
    EXPECT_EQ(first.waveBuiltRange->first, 0);
    EXPECT_LE(first.waveBuiltRange->second, 199);
    // The last filler row is below the 400-point view: not built.
    EXPECT_FALSE(f.layers(8, 0).waveBuiltRange);

    f.rescale(4); // the long clip is 3,999 points wide; only its visible part is built
    const auto& longClip = f.layers(0, 1);
    ASSERT_TRUE(longClip.waveBuiltRange);
    EXPECT_EQ(longClip.waveBuiltZoom, 4);
    EXPECT_EQ(longClip.waveBuiltRange->first, 0);
    EXPECT_LT(longClip.waveBuiltRange->second, 600);
    f.view.horizontalScrollBar()->setValue(2400);
    EXPECT_GT(longClip.waveBuiltRange->first, 100) << "a scroll builds what came into view";
    EXPECT_GE(longClip.waveBuiltRange->second, 700);
}

TEST(TimelineView, AGlideHoldsToolTipsAndWaveformsUntilTheClipsArrive) {
    Fixture f;
    TrackSource track;
    track.clips = {clip("take1.wav", 40, 20, 20)};
    track.clips[0].syncStatus = SyncStatus::synced;
    track.clips[0].placementPass = PlacementPass::chain;
    track.clips[0].matchScore = 9.5f;
    f.sources = {track};
    f.displayed[track.clips[0].id] = 0; // on its way from 0 to 40
    f.show(4);
    const QPointF inside(10, 31 + 30);
    EXPECT_TRUE(f.view.isAnimatingOffsets());
    EXPECT_TRUE(f.view.toolTipAt(inside).isEmpty());
    EXPECT_FALSE(f.layers(0, 0).waveBuiltRange);

    f.displayed[track.clips[0].id] = 39.995; // within 0.01 s: arrived
    f.view.repositionClips();
    EXPECT_FALSE(f.view.isAnimatingOffsets());
    EXPECT_TRUE(f.layers(0, 0).waveBuiltRange);
    const QString tip = f.view.toolTipAt(QPointF(170, 31 + 30));
    EXPECT_TRUE(tip.startsWith("take1.wav · synced\n")) << tip.toStdString();
    EXPECT_EQ(tip.section('\n', 1).toStdString(), f.sources[0].clips[0].placementExplanation());
}

TEST(TimelineGeometry, RulerStepsLabelsAndStatusWords) {
    const struct {
        double pxPerSec, interval;
    } steps[] = {{100, 1}, {80, 1}, {79, 2}, {10, 10}, {5, 30}, {1, 120}, {0.02, 7200}, {0.001, 7200}};
    for (const auto& s : steps)
        EXPECT_EQ(G::tickInterval(s.pxPerSec), s.interval) << s.pxPerSec;
    EXPECT_EQ(G::tickLabel(0), "0:00:00");
    EXPECT_EQ(G::tickLabel(59 * 60 + 59), "0:59:59");
    EXPECT_EQ(G::tickLabel(3600 * 10 + 61), "10:01:01");

    ClipItem c = clip("Cam A/clip 7.mov", 0, 10);
    c.startTimecode = 3600 + 2 * 60 + 3.9;
    EXPECT_EQ(G::clipLabel(c), "clip 7  ·  TC01:02:03");
    EXPECT_EQ(G::statusWord(c), "pending");
    c.syncStatus = SyncStatus::failed;
    EXPECT_EQ(G::statusWord(c), "not matched");
    c.audioUsability = AudioUsability::silent;
    EXPECT_EQ(G::statusWord(c), "Silent");
    EXPECT_EQ(G::clipLabel(c), "clip 7  ·  Silent  ·  TC01:02:03");
}
