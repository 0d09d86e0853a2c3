// SPDX-License-Identifier: GPL-3.0-or-later
#include "Trelvane/session/SyncViewModel.hpp"
#include "TestSupport.hpp"
#include "Trelvane/session/TimelineViewState.hpp"

#include <atomic>
#include <gtest/gtest.h>
#include <thread>

using namespace trelvane;
using namespace trelvane::test;

namespace {

// Doubles for every stage, recording what they were called with. The worker-side ones wait while
// the gate is shut, until they are stopped.
struct Doubles {
    std::atomic<int> metadataCalls{0}, extractCalls{0}, extractEntered{0}, extractStopped{0}, pruneCalls{0};
    std::atomic<int> extractCallsAtPrune{-1};
    std::atomic<std::int64_t> pruneCeiling{-1};
    std::atomic<bool> gateShut{false}, metadataShut{false}; // metadata waits after its updates

    std::vector<std::string> calls;                   // main-thread stages, in order
    std::vector<CameraGroupProposal> cameraProposals; // each kind proposed once
    std::vector<DayRegionProposal> dayProposals;
    std::set<Uuid> acceptedGroups, acceptedRegions;
    std::function<Sources(Sources, ProgressFn, SessionStages::SyncPlace, std::stop_token)> sync;
    std::function<StackBuilder::Result(Sources)> stacks;
    std::optional<StackBuilder::Advice> advice;

    void waitAtGate(std::stop_token stop, const std::atomic<bool>& gate) const {
        while (gate && !stop.stop_requested())
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    void waitAtGate(std::stop_token stop) const { waitAtGate(stop, gateShut); }
    SessionStages stages() {
        SessionStages s;
        s.loadMetadata = [this](Sources src, SessionStages::ClipUpdated onClip, std::stop_token stop) {
            ++metadataCalls;
            for (auto& t : src)
                for (auto& c : t.clips)
                    if (c.duration == 0) {
                        c.duration = 10;
                        if (t.type == SourceType::video) c.frameRate = 29.97f;
                        onClip(src);
                    }
            waitAtGate(stop, metadataShut);
            return src;
        };
        auto record = [this](const char* name) {
            return [this, name](Sources src) {
                calls.push_back(name);
                return src;
            };
        };
        auto propose = [this](auto& proposals, const char* name) {
            return [this, &proposals, name](const Sources&) {
                calls.push_back(name);
                return std::exchange(proposals, {});
            };
        };
        auto apply = [this](std::set<Uuid>& accepted, const char* name) {
            return [this, &accepted, name](Sources src, const auto&, const std::set<Uuid>& a) {
                calls.push_back(name);
                accepted = a;
                return src;
            };
        };
        s.splitSourcesByDevice = record("split");
        s.detectSiblingChannels = record("siblings");
        s.detectCameraGroups = propose(cameraProposals, "cameraGroups");
        s.applyCameraGroups = apply(acceptedGroups, "applyCameraGroups");
        s.detectDayRegions = propose(dayProposals, "dayRegions");
        s.applyDayRegions = apply(acceptedRegions, "applyDayRegions");
        s.extractClip = [this](const Url& url, int factor, double expected, const ProgressFn& onSub,
                               std::stop_token stop) {
            EXPECT_EQ(factor, 160);
            ++extractEntered;
            waitAtGate(stop);
            extractStopped += stop.stop_requested();
            ++extractCalls;
            onSub({0.5, {}});
            const std::string ext = url.pathExtension();
            if (ext == "mxf" || ext == "braw")
                return ExtractOutcome(
                    NoUsableAudio{AudioUsability::undecodable, "container not decodable (" + ext + ")", ext});
            ExtractPayload p;
            p.duration = expected > 0 ? expected : 10;
            p.envelope = std::vector<float>(10, 0.1f);
            return ExtractOutcome(p);
        };
        s.pruneCache = [this](std::int64_t ceiling) {
            ++pruneCalls;
            extractCallsAtPrune = extractCalls.load();
            pruneCeiling = ceiling;
        };
        s.synchronise = [this](Sources src, auto p, auto place, std::stop_token stop) {
            return sync(std::move(src), p, place, stop);
        };
        s.buildStacks = [this](Sources src, ProgressFn p, std::stop_token) {
            p({0.5, {}});
            return stacks(std::move(src));
        };
        s.stackAdvice = [this](Sources, int maxProbes) {
            EXPECT_EQ(maxProbes, 12);
            return advice;
        };
        return s;
    }
};

// Places every clip of track i at 100 * i + 5 * k, synced.
Sources placeAll(Sources src, const ProgressFn& progress, const SessionStages::SyncPlace& place) {
    for (std::size_t i = 0; i < src.size(); ++i)
        for (std::size_t k = 0; k < src[i].clips.size(); ++k) {
            auto& c = src[i].clips[k];
            c.startOffset = 100.0 * static_cast<double>(i) + 5.0 * static_cast<double>(k);
            c.syncStatus = SyncStatus::synced;
            place(c.id, c.startOffset, c.syncStatus);
            progress({0.5, c.url.baseName()});
        }
    return src;
}

// A session as a window holds it: the controller and the view state over it.
class SessionTest : public ::testing::Test {
  protected:
    TempDir tmp;
    ManualMainQueue queue;
    Settings settings{tmp / "config/settings.json"};
    Doubles doubles;
    std::shared_ptr<SyncViewModel> vm;
    std::shared_ptr<TimelineViewState> view;
    LogCapture log;

    void SetUp() override {
        doubles.sync = [](Sources s, auto p, auto place, std::stop_token) {
            return placeAll(std::move(s), p, place);
        };
        make(doubles.stages());
    }
    void make(SessionStages stages) {
        vm = SyncViewModel::create(queue, settings, std::move(stages));
        view = TimelineViewState::create(queue, vm);
    }
    Url folder(const std::string& name, std::initializer_list<const char*> files) {
        for (const char* f : files)
            tmp.file(name + "/" + f);
        return Url::fromPath(tmp / name);
    }
    // Two camera folders and a recorder under one shoot folder.
    Url shoot() { return folder("shoot", {"camA/A1.MP4", "camA/A2.MP4", "camB/B1.MOV", "rec/R1.WAV"}); }
    bool pumpUntil(const std::function<bool()>& done) { return queue.runUntil(done, 20.0); }
    bool pumpIngest() {
        return pumpUntil([&] { return !vm->isIngesting(); });
    }
    bool pumpState(AppState::Kind kind) {
        return pumpUntil([&] { return vm->state().is(kind); });
    }
    std::map<Uuid, double> offsets(std::optional<SyncStatus> only = std::nullopt) const {
        std::map<Uuid, double> out;
        for (const auto& t : vm->sources())
            for (const auto& c : t.clips)
                if (!only || c.syncStatus == *only) out[c.id] = c.startOffset;
        return out;
    }
};

} // namespace

TEST_F(SessionTest, AnAddRunsEveryStageInOrderAndEndsReady) {
    const trelvane::test::ScopedEnv noCeiling("TRELVANE_CACHE_MAX_GB", std::nullopt);
    vm->ingestURLs({shoot()});
    EXPECT_EQ(vm->sources().size(), 3u) << "tracks appear at once, before any metadata";
    ASSERT_TRUE(pumpIngest());
    EXPECT_EQ(doubles.calls, (std::vector<std::string>{"split", "siblings", "cameraGroups", "dayRegions"}));
    EXPECT_TRUE(vm->state().is(AppState::Kind::ready) && vm->allExtracted());
    // The cache is pruned once, after every clip was analysed, to the user's ceiling.
    EXPECT_EQ(doubles.pruneCalls.load(), 1);
    EXPECT_EQ(doubles.extractCallsAtPrune.load(), 4);
    EXPECT_EQ(doubles.pruneCeiling.load(), std::int64_t{1} << 31);
    // Sorted for display and laid end to end.
    EXPECT_EQ(vm->sources()[0].name, "camA");
    EXPECT_DOUBLE_EQ(vm->sources()[0].clips[1].startOffset, 10.0);
    EXPECT_TRUE(log.contains("[Ingest] track 'camA' (video, locked=true) 2 clips, from '" +
                             (tmp / "shoot/camA").string() + "'"));
    EXPECT_TRUE(log.contains("[Notify] Media analyzed — 4 clips ready — press Synchronize."));
    EXPECT_EQ(vm->detectedFrameRates(), std::vector<float>{29.97f});
    EXPECT_DOUBLE_EQ(vm->totalDuration(), 20.0);

    // The view reveals each clip as it is ready; the bar eases to full and stops 0.6 s after the
    // analysis, the reveal 0.8 s after.
    EXPECT_EQ(view->clipReadyAt().size(), 4u);
    queue.advance(0.5);
    EXPECT_GT(view->barFill(), 0.9);
    EXPECT_TRUE(view->barEaseRunning() && view->clipFXActive());
    queue.advance(0.2);
    EXPECT_FALSE(view->barEaseRunning());
    EXPECT_TRUE(view->clipFXActive());
    queue.advance(0.2);
    EXPECT_FALSE(view->clipFXActive());
}

TEST_F(SessionTest, PromptsSuspendTheChainAndLaterDropsWaitTheirTurn) {
    CameraGroupProposal group;
    doubles.cameraProposals = {group};
    DayRegionProposal region;
    region.rangeOverride = "text-sync day 1";
    doubles.dayProposals = {region, DayRegionProposal{}};

    vm->ingestURLs({shoot()});
    ASSERT_TRUE(pumpUntil([&] { return vm->pendingCameraGroups().has_value(); }));
    vm->ingestURLs({folder("later", {"L1.WAV"})});
    queue.runPending();
    EXPECT_EQ(doubles.metadataCalls.load(), 1) << "a drop during an open prompt waits behind it";
    vm->confirmCameraGroups({group.id});
    EXPECT_FALSE(vm->pendingCameraGroups().has_value());
    ASSERT_TRUE(pumpUntil([&] { return vm->pendingDayRegions().has_value(); }));
    EXPECT_EQ(doubles.acceptedGroups, std::set<Uuid>{group.id});
    EXPECT_TRUE(log.contains("[Ingest] day-regions from text-sync (2 region(s))"));

    // Closed without a choice, the chain still goes on; a drop during the analysis waits too.
    doubles.gateShut = true;
    vm->confirmDayRegions({});
    ASSERT_TRUE(pumpState(AppState::Kind::extracting));
    vm->ingestURLs({folder("later2", {"L2.WAV"})});
    queue.runPending();
    EXPECT_EQ(doubles.metadataCalls.load(), 1) << "nor does one start during the analysis";
    doubles.gateShut = false;
    ASSERT_TRUE(pumpIngest());
    EXPECT_TRUE(doubles.acceptedRegions.empty());
    EXPECT_EQ(doubles.metadataCalls.load(), 3);
    EXPECT_EQ(doubles.extractCalls.load(), 6) << "each add analyses only its new clips";
    // A second answer has nothing left to resume.
    vm->confirmCameraGroups({group.id});
    queue.runPending();
    EXPECT_EQ(std::count(doubles.calls.begin(), doubles.calls.end(), "applyCameraGroups"), 1);
}

TEST_F(SessionTest, ATrackSyncInstallsTheResultClosesGapsGlidesThereAndIsResetByAnEdit) {
    vm->ingestURLs({shoot()});
    ASSERT_TRUE(pumpIngest());
    vm->synchronize();
    ASSERT_TRUE(pumpState(AppState::Kind::synced));
    EXPECT_EQ(vm->syncedCount(), 4);
    EXPECT_DOUBLE_EQ(vm->syncProgress(), 1.0);
    EXPECT_FALSE(vm->failureSummary().has_value());
    EXPECT_TRUE(log.contains("[Notify] Synchronization finished — 4 synced of 4 — ready to export."));
    // Gaps close by default: the first clip and the playhead land on 0, and it can be undone.
    EXPECT_EQ(log.countStartingWith("[CloseGaps] removed "), 1);
    EXPECT_DOUBLE_EQ(vm->sources()[0].clips[0].startOffset, 0.0);
    EXPECT_DOUBLE_EQ(view->playheadTime(), 0.0);
    vm->restoreGaps();
    EXPECT_TRUE(log.contains("[CloseGaps] restored the synced timeline"));
    EXPECT_DOUBLE_EQ(vm->sources()[1].clips[0].startOffset, 100.0);
    EXPECT_EQ(view->animToOffsets(), offsets());
    // The glide ends 1.6 s after the result, with every clip at its target.
    queue.advance(1.0);
    EXPECT_TRUE(view->liveAnimationRunning());
    queue.advance(1.0);
    EXPECT_FALSE(view->liveAnimationRunning());
    EXPECT_EQ(view->displayedOffsets(), offsets());

    // Pressing Synchronize again wipes the statuses and runs anew.
    doubles.sync = [](Sources s, auto p, auto place, std::stop_token) {
        for (auto& t : s)
            for (auto& c : t.clips)
                EXPECT_EQ(c.syncStatus, SyncStatus::pending);
        return placeAll(std::move(s), p, place);
    };
    vm->synchronize();
    ASSERT_TRUE(pumpState(AppState::Kind::synced));

    // Editing a synced session resets its outcome.
    const auto& camB = vm->sources()[1];
    ASSERT_EQ(camB.name, "camB");
    vm->selectTrack(camB.id);
    EXPECT_DOUBLE_EQ(view->playbackTime(), camB.clips[0].startOffset) << "playback starts at the selection";
    vm->moveSelectedToNewTrack();
    EXPECT_EQ(vm->sources().size(), 3u);
    EXPECT_TRUE(vm->selectedClipIDs().empty());
    EXPECT_TRUE(vm->state().is(AppState::Kind::idle));
    EXPECT_EQ(offsets(SyncStatus::pending).size(), 4u);
    EXPECT_FALSE(vm->offsetsBeforeCloseGaps().has_value());

    const double scale = view->pxPerSec();
    view->beginSidebarDrag();
    view->setAvailableWidth(300);
    EXPECT_DOUBLE_EQ(view->pxPerSec(), scale) << "the scale holds while the divider moves";
    view->endSidebarDrag();
    EXPECT_LT(view->pxPerSec(), scale);

    vm->selectAllClips();
    EXPECT_EQ(vm->selectedClipIDs().size(), 4u);
    vm->deleteSelected();
    EXPECT_TRUE(vm->sources().empty());
    EXPECT_TRUE(vm->state().is(AppState::Kind::idle));
}

TEST_F(SessionTest, StoppingASyncBringsBackThePositionsAndDropsTheLateResult) {
    vm->ingestURLs({shoot()});
    ASSERT_TRUE(pumpIngest());
    const auto before = offsets();
    std::atomic<bool> returned{false};
    doubles.gateShut = true;
    doubles.sync = [&](Sources s, auto p, auto place, std::stop_token stop) {
        auto out = placeAll(s, p, place); // reports placements, then waits
        doubles.waitAtGate(stop);
        returned = true;
        return out;
    };
    vm->synchronize();
    EXPECT_EQ(view->displayedOffsets(), TimelineViewState::openingLayout(vm->sources()));
    ASSERT_TRUE(pumpUntil([&] { return vm->syncedCount() == 4; })) << "placements arrive live";
    EXPECT_DOUBLE_EQ(view->animToOffsets().at(vm->sources()[1].clips[0].id), 100.0);
    vm->cancelSynchronization();
    ASSERT_TRUE(pumpUntil([&] { return returned.load(); }));
    queue.runPending();
    EXPECT_TRUE(vm->state().is(AppState::Kind::ready));
    EXPECT_TRUE(vm->syncWasStopped());
    EXPECT_EQ(offsets(SyncStatus::pending), before);
    EXPECT_EQ(vm->syncedCount(), 0);
    EXPECT_TRUE(view->displayedOffsets().empty());
    EXPECT_DOUBLE_EQ(view->barFill(), 0.0);
    EXPECT_FALSE(view->liveAnimationRunning() || view->barEaseRunning());
}

TEST_F(SessionTest, StackResultsAreUndoneByAnAddAndASecondStackingKeepsTheFirstList) {
    settings.setString(Settings::kSyncModeKey, "stacks");
    doubles.stacks = [](Sources src) {
        TrackSource merged;
        merged.name = "Stack";
        for (auto& t : src)
            for (auto& c : t.clips) {
                c.syncStatus = SyncStatus::synced;
                c.startOffset = 3 + static_cast<double>(merged.clips.size());
                merged.clips.push_back(c);
            }
        return StackBuilder::Result{{merged}, {}, {"x"}};
    };
    vm->ingestURLs({shoot()});
    ASSERT_TRUE(pumpIngest());
    vm->synchronize();
    ASSERT_TRUE(pumpState(AppState::Kind::synced));
    EXPECT_TRUE(log.contains("[Notify] Takes stacked — 1 track · 1 unmatched — ready to export."));
    // A stack result is shown at once, the playhead on its earliest clip.
    EXPECT_DOUBLE_EQ(view->playheadTime(), 3.0);
    EXPECT_EQ(view->displayedOffsets(), offsets());
    EXPECT_FALSE(view->liveAnimationRunning());
    vm->synchronize();
    EXPECT_TRUE(vm->state().is(AppState::Kind::syncing)) << "from synced, again";
    ASSERT_TRUE(pumpState(AppState::Kind::synced));
    ASSERT_EQ(vm->sources().size(), 1u);
    EXPECT_EQ(vm->sourcesBeforeStacks()->size(), 3u) << "the list from before the first stacking";
    EXPECT_EQ(vm->lastStacks()->unmatched.size(), 1u);

    vm->ingestURLs({folder("later", {"L1.WAV"})});
    ASSERT_EQ(vm->sources().size(), 4u);
    EXPECT_EQ(vm->sources()[3].name, "later");
    EXPECT_TRUE(vm->state().is(AppState::Kind::idle));
    EXPECT_FALSE(vm->sourcesBeforeStacks() || vm->lastStacks()) << "the outcome goes as a whole";
    ASSERT_TRUE(pumpIngest());

    // Leaving stack mode after a stacking brings the tracks back.
    vm->synchronize();
    ASSERT_TRUE(pumpState(AppState::Kind::synced));
    settings.setString(Settings::kSyncModeKey, "tracks");
    vm->syncModeChanged();
    EXPECT_EQ(vm->sources().size(), 4u);
    EXPECT_TRUE(vm->state().is(AppState::Kind::ready));
    EXPECT_TRUE(view->displayedOffsets().empty());
    EXPECT_TRUE(log.contains("[Stacks] restored the original 4 track(s) after leaving stack mode"));
}

TEST_F(SessionTest, TheStackModeOfferIsMadeOnceAndNeverInStackMode) {
    doubles.advice = StackBuilder::Advice{3, 12, {"C0001", "C0004"}, 61.7};
    vm->ingestURLs({shoot()});
    ASSERT_TRUE(pumpUntil([&] { return vm->pendingStackModeOffer().has_value(); }));
    const auto& offer = *vm->pendingStackModeOffer();
    EXPECT_EQ(offer.title, "These look like repeated takes");
    EXPECT_TRUE(
        offer.text.starts_with("“C0001” and “C0004” came from the same camera yet share 61 seconds of the "
                               "same audio — 3 of the 12 pairs sampled do."))
        << offer.text;
    EXPECT_EQ(offer.keepButton + "/" + offer.useButton, "Keep Track Mode/Use Stack Mode");
    vm->answerStackModeOffer(true);
    EXPECT_EQ(settings.stringValue(Settings::kSyncModeKey), "stacks");

    vm->ingestURLs({folder("later", {"L1.WAV"})});
    ASSERT_TRUE(pumpIngest());
    queue.runPending();
    EXPECT_FALSE(vm->pendingStackModeOffer().has_value()) << "at most once per run";
}

TEST_F(SessionTest, CleaningDuringExtractionStopsTheDecodesAndDropsTheLateResults) {
    doubles.gateShut = true;
    view->zoomIn();
    vm->ingestURLs({shoot()});
    ASSERT_TRUE(pumpUntil([&] { return doubles.extractEntered.load() >= 1; }));
    vm->cleanProject();
    EXPECT_TRUE(vm->sources().empty());
    EXPECT_TRUE(vm->state().is(AppState::Kind::idle));
    EXPECT_FALSE(vm->isIngesting());
    EXPECT_DOUBLE_EQ(view->zoom().zoomMultiplier, 1.0);
    EXPECT_FALSE(view->clipFXActive() || view->barEaseRunning());
    // The analyses under way are told to stop, and end without waiting for their files.
    EXPECT_TRUE(pumpUntil([&] { return doubles.extractCalls.load() >= doubles.extractEntered.load(); }));
    EXPECT_GE(doubles.extractStopped.load(), 1);
    doubles.gateShut = false;
    queue.runPending();
    EXPECT_TRUE(vm->sources().empty());
    EXPECT_FALSE(vm->ingestEngine().completeShootSessions.empty()) << "the memory of complete shoots stays";
}

TEST_F(SessionTest, FailuresAreSummarisedByBucketAndBigUnsyncedFoldersGetAHint) {
    auto trackOf = [](std::size_t n, bool locked, SyncStatus status) {
        TrackSource t;
        t.name = "Dump";
        t.lockedGrouping = locked;
        t.clips.resize(n);
        for (auto& c : t.clips) {
            c.duration = 30;
            c.syncStatus = status;
        }
        return t;
    };
    EXPECT_EQ(SyncViewModel::summarizeFailures({trackOf(49, false, SyncStatus::weak)}), std::nullopt);
    EXPECT_EQ(SyncViewModel::summarizeFailures({trackOf(50, false, SyncStatus::weak)}),
              "'Dump' looks like several devices in one folder — select clips and press N");
    EXPECT_EQ(SyncViewModel::summarizeFailures({trackOf(50, true, SyncStatus::weak)}), std::nullopt);
    TrackSource t = trackOf(4, false, SyncStatus::failed);
    t.clips[0].duration = 2;
    t.clips[1].placementPass = t.clips[2].placementPass = PlacementPass::clock;
    EXPECT_EQ(SyncViewModel::summarizeFailures({t}),
              "4 failed: 2 placed by clock · 1 shorter than 5 s · 1 no audio nearby");
}

TEST_F(SessionTest, MissingStagesAreSaidNotPretendedAndUndecodableFormatsAdvised) {
    make(SessionStages{});
    vm->ingestURLs({shoot()});
    ASSERT_TRUE(pumpIngest());
    EXPECT_TRUE(log.contains("[Extract] no audio analysis in this run — 4 clip(s) not analysed"));
    EXPECT_FALSE(vm->allExtracted());
    vm->synchronize();
    EXPECT_EQ(vm->errorMessage(), "Need at least 2 extracted tracks");

    make(doubles.stages());
    vm->ingestURLs({folder("odd", {"cam/A.mxf", "cam/B.mxf", "cam/C.braw", "rec/R.WAV"})});
    ASSERT_TRUE(pumpIngest());
    EXPECT_TRUE(vm->allExtracted()) << "clips known to be unusable don't block the sync";
    ASSERT_EQ(vm->formatAdvisories().size(), 2u);
    EXPECT_EQ(vm->formatAdvisories()[0].ext, "mxf");
    EXPECT_EQ(vm->formatAdvisories()[0].clipCount, 2);
    EXPECT_EQ(vm->formatAdvisories()[1].displayName, "Blackmagic RAW (.braw)");
    EXPECT_TRUE(
        log.contains("[Extract] 'A': container not decodable (mxf) — will place by clock/interpolation"));
    EXPECT_EQ(vm->sources()[0].clips[0].placementExplanation(),
              "Format not decodable on this Mac — placed by clock or between neighbours");
    vm->dismissFormatAdvisories();
    EXPECT_TRUE(vm->formatAdvisories().empty());
}

TEST_F(SessionTest, ADropWhileMetadataLoadsKeepsBothAddsEachReadInItsTurn) {
    doubles.metadataShut = true;
    vm->ingestURLs({shoot()});
    ASSERT_TRUE(pumpUntil([&] { return vm->totalDuration() > 0; })) << "the first add's clips come in";
    vm->ingestURLs({folder("later", {"L1.WAV"})});
    EXPECT_EQ(vm->sources().size(), 4u);
    doubles.metadataShut = false;
    ASSERT_TRUE(pumpIngest());
    ASSERT_EQ(vm->sources().size(), 4u);
    EXPECT_EQ(vm->totalClipCount(), 5);
    for (const auto& t : vm->sources())
        for (const auto& c : t.clips)
            EXPECT_TRUE(c.duration == 10 && c.cachedEnvelope) << c.url.path();
    EXPECT_EQ(doubles.metadataCalls.load(), 2);
    EXPECT_EQ(doubles.extractCalls.load(), 5) << "each clip analysed once, after its metadata";
    EXPECT_TRUE(vm->state().is(AppState::Kind::ready));
}

TEST_F(SessionTest, ADropADeleteAndAMuteDuringASyncOutliveItsResult) {
    settings.setBool(Settings::kAutoCloseGapsKey, false);
    vm->ingestURLs({shoot()});
    ASSERT_TRUE(pumpIngest());
    doubles.gateShut = true;
    doubles.sync = [&](Sources s, auto p, auto place, std::stop_token stop) {
        auto out = placeAll(std::move(s), p, place);
        doubles.waitAtGate(stop);
        return out;
    };
    std::optional<Sources> atResult;
    const auto watch = vm->observe([&](Published what) {
        if (what == Published::state && vm->state().is(AppState::Kind::synced)) atResult = vm->sources();
    });
    vm->synchronize();
    ASSERT_TRUE(pumpUntil([&] { return vm->syncedCount() == 4; }));
    const Uuid b1 = vm->sources()[1].clips[0].id, rec = vm->sources()[2].id;
    vm->toggleClipSelection(b1);
    vm->deleteSelected();
    vm->toggleMute(rec);
    vm->ingestURLs({folder("later", {"L1.WAV"})});
    EXPECT_EQ(vm->sources().size(), 3u) << "the new track shows at once, the emptied one went";
    EXPECT_FALSE(queue.runUntil([&] { return doubles.metadataCalls.load() > 1; }, 0.2))
        << "the drop is read only after the run";
    EXPECT_TRUE(vm->state().is(AppState::Kind::syncing));
    doubles.gateShut = false;
    ASSERT_TRUE(pumpIngest());

    ASSERT_TRUE(atResult.has_value());
    ASSERT_EQ(atResult->size(), 3u);
    EXPECT_EQ((*atResult)[0].name + " " + (*atResult)[1].name + " " + (*atResult)[2].name, "camA rec later");
    EXPECT_DOUBLE_EQ((*atResult)[0].clips[1].startOffset, 5.0);
    EXPECT_DOUBLE_EQ((*atResult)[1].clips[0].startOffset, 200.0);
    EXPECT_EQ((*atResult)[1].clips[0].syncStatus, SyncStatus::synced);
    EXPECT_TRUE((*atResult)[1].isMuted);
    EXPECT_EQ((*atResult)[2].clips[0].syncStatus, SyncStatus::pending);

    // Then the drop is read and analysed; it voids the outcome as a drop after the run would, and
    // the synced clips stay where the sync put them.
    EXPECT_TRUE(vm->state().is(AppState::Kind::ready));
    EXPECT_EQ(vm->syncedCount(), 0);
    EXPECT_EQ(doubles.extractCalls.load(), 5);
    std::map<std::string, double> starts;
    for (const auto& t : vm->sources())
        for (const auto& c : t.clips)
            starts[c.url.baseName()] = c.startOffset;
    EXPECT_EQ(starts, (std::map<std::string, double>{{"A1", 0}, {"A2", 5}, {"R1", 200}, {"L1", 0}}));
    EXPECT_TRUE(vm->allExtracted());
}

TEST_F(SessionTest, ExportRunsTheSharedFlowOffTheMainThreadAndTellsHowItEnded) {
    vm->ingestURLs({shoot()});
    ASSERT_TRUE(pumpIngest());
    const auto media = tmp.file("shoot/rec/R1.WAV", "RIFF media");
    vm->exportXML();
    ASSERT_TRUE(vm->pendingExport().has_value());
    const ExportPrompt prompt = *vm->pendingExport();
    EXPECT_EQ(prompt.detectedFrameRates, std::vector<float>{29.97f});
    EXPECT_EQ(prompt.summary.clipCount, 4);
    EXPECT_EQ(prompt.defaults.target, ExportTarget::premiere);
    EXPECT_DOUBLE_EQ(prompt.defaults.fps, 29.97);
    EXPECT_EQ(prompt.rootFolderName, "shoot");

    auto answer = [&](const std::filesystem::path& path) {
        vm->exportXML();
        vm->dismissExportNotice();
        vm->answerExport(ExportChoice{prompt.defaults, path});
        EXPECT_FALSE(vm->pendingExport().has_value());
        EXPECT_TRUE(vm->isExporting());
        EXPECT_TRUE(pumpUntil([&] { return vm->exportNotice().has_value(); }));
        EXPECT_FALSE(vm->isExporting());
        return vm->exportNotice().value_or(ExportNotice{});
    };
    const auto done = answer(tmp / "cut");
    EXPECT_FALSE(done.failed);
    EXPECT_EQ(done.title + " / " + done.body, "Export finished / cut.xml saved.");
    EXPECT_NE(slurp(tmp / "cut.xml").find("<xmeml"), std::string::npos);
    EXPECT_TRUE(log.contains("[Notify] Export finished — cut.xml saved."));

    // A clip's media is never written, under any of its names.
    std::filesystem::create_hard_link(media, tmp / "take.xml");
    const auto refused = answer(tmp / "take.xml");
    EXPECT_TRUE(refused.failed);
    EXPECT_EQ(refused.title, "Export failed");
    EXPECT_TRUE(log.contains("[Export] failed: " + refused.body)) << refused.body;
    EXPECT_EQ(slurp(media), "RIFF media");

    vm->exportXML();
    vm->answerExport(std::nullopt);
    EXPECT_FALSE(vm->pendingExport() || vm->isExporting());
}

TEST_F(SessionTest, MediaDroppedDuringAStackRunIsBackWithTheTracks) {
    settings.setString(Settings::kSyncModeKey, "stacks");
    doubles.stacks = [&](Sources src) {
        doubles.waitAtGate({});
        TrackSource merged;
        merged.name = "Stack";
        for (auto& t : src)
            for (auto& c : t.clips)
                merged.clips.push_back(c);
        return StackBuilder::Result{{merged}, {}, {}};
    };
    vm->ingestURLs({shoot()});
    ASSERT_TRUE(pumpIngest());
    doubles.gateShut = true;
    vm->synchronize();
    vm->ingestURLs({folder("later", {"L1.WAV"})});
    doubles.gateShut = false;
    ASSERT_TRUE(pumpIngest());
    EXPECT_TRUE(log.contains("[Notify] Takes stacked — 1 track — ready to export."));
    ASSERT_EQ(vm->sources().size(), 4u) << "the tracks as they stood at the end of the run";
    EXPECT_EQ(vm->sources()[2].name, "later");
    EXPECT_TRUE(vm->allExtracted() && vm->state().is(AppState::Kind::ready));
    EXPECT_FALSE(vm->sourcesBeforeStacks().has_value());
}
