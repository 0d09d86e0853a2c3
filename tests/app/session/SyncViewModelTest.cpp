// SPDX-License-Identifier: GPL-3.0-or-later
#include "Trelvane/session/SyncViewModel.hpp"
#include "TestSupport.hpp"

#include <atomic>
#include <condition_variable>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace trelvane;
using trelvane::test::LogCapture;
using trelvane::test::TempDir;

namespace {

// A gate a worker-side double waits at until the test opens it.
class Gate {
  public:
    void open() {
        std::lock_guard lock(m_);
        open_ = true;
        cv_.notify_all();
    }
    void wait() {
        std::unique_lock lock(m_);
        cv_.wait(lock, [&] { return open_; });
    }
    // Waits for the gate or for a stop, whichever comes first.
    void wait(std::stop_token stop) {
        std::unique_lock lock(m_);
        while (!open_ && !stop.stop_requested())
            cv_.wait_for(lock, std::chrono::milliseconds(5));
    }

  private:
    std::mutex m_;
    std::condition_variable cv_;
    bool open_ = false;
};

ExtractPayload payloadOf(double duration) {
    ExtractPayload p;
    p.duration = duration;
    p.preview = {0.5f};
    p.envelope = std::vector<float>(10, 0.1f);
    p.bands.frames = 0;
    return p;
}

// Doubles for every stage, recording what they were called with.
struct Doubles {
    std::atomic<int> metadataCalls{0};
    std::atomic<int> extractCalls{0};
    std::atomic<int> extractEntered{0};
    std::atomic<int> extractStopped{0}; // calls that returned on a stop
    std::atomic<int> pruneCalls{0};
    std::atomic<int> extractCallsAtPrune{-1};
    std::atomic<std::int64_t> pruneCeiling{-1};
    std::shared_ptr<Gate> extractGate;
    std::vector<std::string> calls; // main-thread stages, in order
    std::vector<CameraGroupProposal> cameraProposals;
    std::vector<DayRegionProposal> dayProposals;
    std::set<Uuid> acceptedGroups, acceptedRegions;
    std::function<Sources(Sources, ProgressFn, SessionStages::SyncPlace, std::stop_token)> sync;
    std::function<StackBuilder::Result(Sources, ProgressFn, std::stop_token)> stacks;
    std::optional<StackBuilder::Advice> advice;

    SessionStages stages() {
        SessionStages s;
        s.loadMetadata = [this](Sources src, SessionStages::ClipUpdated onClip, std::stop_token) {
            ++metadataCalls;
            for (auto& t : src)
                for (auto& c : t.clips)
                    if (c.duration == 0) {
                        c.duration = 10;
                        if (t.type == SourceType::video) c.frameRate = 29.97f;
                        onClip(src);
                    }
            return src;
        };
        s.splitSourcesByDevice = [this](Sources src) {
            calls.push_back("split");
            return src;
        };
        s.detectSiblingChannels = [this](Sources src) {
            calls.push_back("siblings");
            return src;
        };
        s.detectCameraGroups = [this](const Sources&) {
            calls.push_back("cameraGroups");
            auto out = cameraProposals;
            cameraProposals.clear(); // proposed once
            return out;
        };
        s.applyCameraGroups = [this](Sources src, const std::vector<CameraGroupProposal>&,
                                     const std::set<Uuid>& a) {
            calls.push_back("applyCameraGroups");
            acceptedGroups = a;
            return src;
        };
        s.detectDayRegions = [this](const Sources&) {
            calls.push_back("dayRegions");
            auto out = dayProposals;
            dayProposals.clear();
            return out;
        };
        s.applyDayRegions = [this](Sources src, const std::vector<DayRegionProposal>&,
                                   const std::set<Uuid>& a) {
            calls.push_back("applyDayRegions");
            acceptedRegions = a;
            return src;
        };
        s.extractClip = [this](const Url& url, int factor, double expected, const ProgressFn& onSub,
                               std::stop_token stop) {
            EXPECT_EQ(factor, 160);
            ++extractEntered;
            if (extractGate) extractGate->wait(stop);
            if (stop.stop_requested()) ++extractStopped;
            ++extractCalls;
            onSub({0.5, {}});
            const std::string ext = url.pathExtension();
            if (ext == "mxf" || ext == "braw")
                return ExtractOutcome(
                    NoUsableAudio{AudioUsability::undecodable, "container not decodable (" + ext + ")", ext});
            return ExtractOutcome(payloadOf(expected > 0 ? expected : 10));
        };
        s.pruneCache = [this](std::int64_t ceiling) {
            ++pruneCalls;
            extractCallsAtPrune = extractCalls.load();
            pruneCeiling = ceiling;
        };
        s.synchronise = [this](Sources src, ProgressFn p, SessionStages::SyncPlace place,
                               std::stop_token stop) { return sync(std::move(src), p, place, stop); };
        s.buildStacks = [this](Sources src, ProgressFn p, std::stop_token stop) {
            return stacks(std::move(src), p, stop);
        };
        s.stackAdvice = [this](Sources, int maxProbes) {
            EXPECT_EQ(maxProbes, 12);
            return advice;
        };
        return s;
    }
};

// Places every clip of track i at 100 * i + 5 * k, synced, with a score.
Sources placeAll(Sources src, const ProgressFn& progress, const SessionStages::SyncPlace& place) {
    for (std::size_t i = 0; i < src.size(); ++i)
        for (std::size_t k = 0; k < src[i].clips.size(); ++k) {
            auto& c = src[i].clips[k];
            c.startOffset = 100.0 * static_cast<double>(i) + 5.0 * static_cast<double>(k);
            c.syncStatus = SyncStatus::synced;
            c.matchScore = 9.5f;
            c.placementPass = i == 0 ? PlacementPass::reference : PlacementPass::chain;
            place(c.id, c.startOffset, c.syncStatus);
            progress({0.5, c.url.baseName()});
        }
    return src;
}

class SessionTest : public ::testing::Test {
  protected:
    TempDir tmp;
    ManualMainQueue queue;
    std::unique_ptr<Settings> settings;
    Doubles doubles;
    std::shared_ptr<SyncViewModel> vm;
    LogCapture log;

    void SetUp() override {
        settings = std::make_unique<Settings>(tmp / "config/settings.json");
        doubles.sync = [](Sources s, auto p, auto place, std::stop_token) {
            return placeAll(std::move(s), p, place);
        };
        make();
    }
    void make() { vm = SyncViewModel::create(queue, *settings, doubles.stages()); }

    // Two camera folders and a recorder under one shoot folder.
    Url shoot() {
        tmp.file("shoot/camA/A1.MP4");
        tmp.file("shoot/camA/A2.MP4");
        tmp.file("shoot/camB/B1.MOV");
        tmp.file("shoot/rec/R1.WAV");
        return Url::fromPath(tmp / "shoot");
    }
    bool pumpUntil(const std::function<bool()>& done) { return queue.runUntil(done, 20.0); }
    bool pumpIngest() {
        return pumpUntil([&] { return !vm->isIngesting(); });
    }
    int clipsWith(SyncStatus s) const {
        int n = 0;
        for (const auto& t : vm->sources())
            for (const auto& c : t.clips)
                n += c.syncStatus == s;
        return n;
    }
    std::map<Uuid, double> offsets() const {
        std::map<Uuid, double> out;
        for (const auto& t : vm->sources())
            for (const auto& c : t.clips)
                out[c.id] = c.startOffset;
        return out;
    }
    void ingestAndSync() {
        vm->ingestURLs({shoot()});
        ASSERT_TRUE(pumpIngest());
        vm->synchronize();
        ASSERT_TRUE(pumpUntil([&] { return vm->state().is(AppState::Kind::synced); }));
    }
};

} // namespace

TEST_F(SessionTest, AnAddRunsEveryStageInOrderAndEndsReady) {
    const trelvane::test::ScopedEnv noCeiling("TRELVANE_CACHE_MAX_GB", std::nullopt);
    std::vector<AppState::Kind> states;
    auto token = vm->observe([&](Published p) {
        if (p == Published::state) states.push_back(vm->state().kind);
    });
    vm->ingestURLs({shoot()});
    EXPECT_EQ(vm->sources().size(), 3u) << "tracks appear at once, before any metadata";
    ASSERT_TRUE(pumpIngest());

    EXPECT_EQ(doubles.calls, (std::vector<std::string>{"split", "siblings", "cameraGroups", "dayRegions"}));
    EXPECT_TRUE(vm->state().is(AppState::Kind::ready));
    EXPECT_TRUE(vm->allExtracted());
    EXPECT_EQ(doubles.extractCalls.load(), 4);
    // The cache is pruned once, after every clip was analysed, to the user's ceiling.
    EXPECT_EQ(doubles.pruneCalls.load(), 1);
    EXPECT_EQ(doubles.extractCallsAtPrune.load(), 4);
    EXPECT_EQ(doubles.pruneCeiling.load(), std::int64_t{1} << 31);
    EXPECT_THAT(states, ::testing::Contains(AppState::Kind::extracting));
    EXPECT_EQ(states.back(), AppState::Kind::ready);
    // Sorted for display and laid end to end.
    EXPECT_EQ(vm->sources()[0].name, "camA");
    EXPECT_DOUBLE_EQ(vm->sources()[0].clips[1].startOffset, 10.0);
    EXPECT_TRUE(log.contains("[Ingest] track 'camA' (video, locked=true) 2 clips, from '" +
                             (tmp / "shoot/camA").string() + "'"));
    EXPECT_TRUE(log.contains("[Notify] Media analyzed — 4 clips ready — press Synchronize."));
    EXPECT_EQ(vm->detectedFrameRates(), std::vector<float>{29.97f});
    EXPECT_DOUBLE_EQ(vm->totalDuration(), 20.0);
}

TEST_F(SessionTest, ASecondDropWaitsBehindTheFirstAndBothEndInOneReady) {
    doubles.extractGate = std::make_shared<Gate>();
    vm->ingestURLs({shoot()});
    ASSERT_TRUE(pumpUntil([&] { return vm->state().is(AppState::Kind::extracting); }));
    tmp.file("later/L1.WAV");
    vm->ingestURLs({Url::fromPath(tmp / "later")});
    EXPECT_EQ(vm->sources().size(), 4u);
    queue.runPending();
    EXPECT_EQ(doubles.metadataCalls.load(), 1) << "the second add has not started";
    EXPECT_TRUE(vm->state().is(AppState::Kind::extracting));

    doubles.extractGate->open();
    ASSERT_TRUE(pumpIngest());
    EXPECT_EQ(doubles.metadataCalls.load(), 2);
    EXPECT_EQ(doubles.extractCalls.load(), 5) << "the later add extracts only its new clip";
    EXPECT_TRUE(vm->state().is(AppState::Kind::ready));
}

TEST_F(SessionTest, PromptsSuspendTheChainUntilAnsweredAndADropWaitsBehindThem) {
    CameraGroupProposal group;
    group.trackNames = {"camA", "camB"};
    doubles.cameraProposals = {group};
    DayRegionProposal region;
    region.rangeOverride = "text-sync day 1";
    DayRegionProposal region2;
    doubles.dayProposals = {region, region2};

    vm->ingestURLs({shoot()});
    ASSERT_TRUE(pumpUntil([&] { return vm->pendingCameraGroups().has_value(); }));
    ASSERT_EQ(vm->pendingCameraGroups()->size(), 1u);
    tmp.file("later/L1.WAV");
    vm->ingestURLs({Url::fromPath(tmp / "later")});
    queue.runPending();
    EXPECT_EQ(doubles.metadataCalls.load(), 1) << "a drop during an open prompt waits behind it";
    EXPECT_EQ(doubles.extractCalls.load(), 0);

    vm->confirmCameraGroups({group.id});
    EXPECT_FALSE(vm->pendingCameraGroups().has_value());
    ASSERT_TRUE(pumpUntil([&] { return vm->pendingDayRegions().has_value(); }));
    EXPECT_EQ(doubles.acceptedGroups, std::set<Uuid>{group.id});
    EXPECT_TRUE(log.contains("[Ingest] day-regions from text-sync (2 region(s))"));

    // Closed without a choice: the chain still goes on.
    vm->confirmDayRegions({});
    ASSERT_TRUE(pumpIngest());
    EXPECT_TRUE(doubles.acceptedRegions.empty());
    EXPECT_EQ(doubles.metadataCalls.load(), 2);
    EXPECT_TRUE(vm->state().is(AppState::Kind::ready));
    // A second answer has nothing left to resume.
    vm->confirmCameraGroups({group.id});
    queue.runPending();
    EXPECT_EQ(std::count(doubles.calls.begin(), doubles.calls.end(), "applyCameraGroups"), 1);
}

TEST_F(SessionTest, SynchronizeRefusesWithoutTwoExtractedTracksButStacksNeedOnlyTwoClips) {
    tmp.file("one/a.WAV");
    tmp.file("one/b.WAV");
    vm->ingestURLs({Url::fromPath(tmp / "one")});
    ASSERT_TRUE(pumpIngest());
    vm->synchronize();
    EXPECT_TRUE(vm->state().is(AppState::Kind::error));
    EXPECT_EQ(vm->errorMessage(), "Need at least 2 extracted tracks");

    settings->setString(Settings::kSyncModeKey, "stacks");
    doubles.stacks = [](Sources src, ProgressFn p, std::stop_token) {
        StackBuilder::Result r;
        p({0.5, {}});
        for (auto& t : src)
            for (auto& c : t.clips) {
                c.syncStatus = SyncStatus::synced;
                c.placementPass = PlacementPass::stack;
                c.startOffset = 3;
            }
        r.tracks = src;
        return r;
    };
    vm->synchronize();
    ASSERT_TRUE(pumpUntil([&] { return vm->state().is(AppState::Kind::synced); }));
    EXPECT_FALSE(vm->errorMessage().has_value());
    EXPECT_TRUE(vm->sourcesBeforeStacks().has_value());
    EXPECT_DOUBLE_EQ(vm->playheadTime(), 3.0);
    EXPECT_TRUE(log.contains("[Notify] Takes stacked — 1 track — ready to export."));
}

TEST_F(SessionTest, ATrackSyncInstallsTheResultCountsItAndClosesGaps) {
    ingestAndSync();
    EXPECT_EQ(vm->syncedCount(), 4);
    EXPECT_EQ(vm->weakCount() + vm->failedCount(), 0);
    EXPECT_DOUBLE_EQ(vm->syncProgress(), 1.0);
    EXPECT_FALSE(vm->failureSummary().has_value());
    EXPECT_TRUE(log.contains("[Notify] Synchronization finished — 4 synced of 4 — ready to export."));
    // Gaps close by default: the first clip lands on 0 and the memory allows undoing it.
    ASSERT_TRUE(vm->offsetsBeforeCloseGaps().has_value());
    EXPECT_DOUBLE_EQ(vm->playheadTime(), 0.0);
    EXPECT_EQ(log.countStartingWith("[CloseGaps] removed "), 1);
    double earliest = 1e9;
    for (const auto& [id, off] : offsets())
        earliest = std::min(earliest, off);
    EXPECT_DOUBLE_EQ(earliest, 0.0);
    vm->restoreGaps();
    EXPECT_TRUE(log.contains("[CloseGaps] restored the synced timeline"));
    EXPECT_DOUBLE_EQ(vm->sources()[1].clips[0].startOffset, 100.0);

    // The glide ends 1.6 s later with every clip at its target.
    queue.advance(1.0);
    EXPECT_FALSE(vm->displayedOffsets().empty());
    queue.advance(1.0);
    for (const auto& [id, off] : vm->animToOffsets())
        EXPECT_DOUBLE_EQ(vm->displayedOffsets().at(id), off);
}

TEST_F(SessionTest, StoppingASyncBringsBackThePositionsAndDropsTheLateResult) {
    settings->setBool(Settings::kAutoCloseGapsKey, false);
    vm->ingestURLs({shoot()});
    ASSERT_TRUE(pumpIngest());
    const auto before = offsets();
    auto gate = std::make_shared<Gate>();
    std::atomic<bool> returned{false};
    doubles.sync = [gate, &returned](Sources s, auto p, auto place, std::stop_token stop) {
        auto out = placeAll(s, p, place); // reports placements, then waits
        gate->wait(stop);
        returned = true;
        return out;
    };
    vm->synchronize();
    EXPECT_TRUE(vm->state().is(AppState::Kind::syncing));
    ASSERT_TRUE(pumpUntil([&] { return vm->syncedCount() == 4; })) << "placements arrive live";
    vm->cancelSynchronization();
    ASSERT_TRUE(pumpUntil([&] { return returned.load(); }));
    queue.runPending();
    EXPECT_TRUE(vm->state().is(AppState::Kind::ready));
    EXPECT_TRUE(vm->syncWasStopped());
    EXPECT_EQ(offsets(), before);
    EXPECT_EQ(clipsWith(SyncStatus::pending), 4);
    EXPECT_EQ(vm->syncedCount(), 0);
    EXPECT_TRUE(vm->displayedOffsets().empty());
    EXPECT_DOUBLE_EQ(vm->barFill(), 0.0);

    // Pressing Synchronize again from synced wipes the statuses and runs anew.
    doubles.sync = [](Sources s, auto p, auto place, std::stop_token) {
        return placeAll(std::move(s), p, place);
    };
    vm->synchronize();
    ASSERT_TRUE(pumpUntil([&] { return vm->state().is(AppState::Kind::synced); }));
    int runs = 0;
    doubles.sync = [&runs](Sources s, auto p, auto place, std::stop_token) {
        ++runs;
        for (auto& t : s)
            for (auto& c : t.clips)
                EXPECT_EQ(c.syncStatus, SyncStatus::pending);
        return placeAll(std::move(s), p, place);
    };
    vm->synchronize();
    ASSERT_TRUE(pumpUntil([&] { return vm->state().is(AppState::Kind::synced) && runs == 1; }));
}

TEST_F(SessionTest, StackResultsAreUndoneByAnAddAndASecondStackingKeepsTheFirstList) {
    settings->setString(Settings::kSyncModeKey, "stacks");
    int stackRuns = 0;
    doubles.stacks = [&stackRuns](Sources src, ProgressFn, std::stop_token) {
        ++stackRuns;
        StackBuilder::Result r;
        TrackSource merged;
        merged.name = "Stack " + std::to_string(stackRuns);
        for (auto& t : src)
            for (auto& c : t.clips)
                merged.clips.push_back(c);
        r.tracks = {merged};
        r.unmatched = {"x"};
        return r;
    };
    vm->ingestURLs({shoot()});
    ASSERT_TRUE(pumpIngest());
    const auto originalNames = std::vector<std::string>{"camA", "camB", "rec"};
    vm->synchronize();
    ASSERT_TRUE(pumpUntil([&] { return vm->state().is(AppState::Kind::synced); }));
    EXPECT_EQ(vm->sources().size(), 1u);
    EXPECT_TRUE(log.contains("[Notify] Takes stacked — 1 track · 1 unmatched — ready to export."));
    vm->synchronize();
    ASSERT_TRUE(pumpUntil([&] { return stackRuns == 2 && vm->state().is(AppState::Kind::synced); }));
    ASSERT_TRUE(vm->sourcesBeforeStacks().has_value());
    EXPECT_EQ(vm->sourcesBeforeStacks()->size(), 3u) << "the list from before the first stacking";

    tmp.file("later/L1.WAV");
    vm->ingestURLs({Url::fromPath(tmp / "later")});
    EXPECT_FALSE(vm->sourcesBeforeStacks().has_value());
    ASSERT_EQ(vm->sources().size(), 4u);
    EXPECT_EQ(vm->sources()[3].name, "later");
    EXPECT_TRUE(vm->state().is(AppState::Kind::idle));
    ASSERT_TRUE(pumpIngest());

    // Leaving stack mode after a stacking brings the tracks back.
    vm->synchronize();
    ASSERT_TRUE(pumpUntil([&] { return vm->state().is(AppState::Kind::synced); }));
    settings->setString(Settings::kSyncModeKey, "tracks");
    vm->syncModeChanged();
    EXPECT_EQ(vm->sources().size(), 4u);
    EXPECT_TRUE(vm->state().is(AppState::Kind::ready));
    EXPECT_TRUE(log.contains("[Stacks] restored the original 4 track(s) after leaving stack mode"));
}

TEST_F(SessionTest, TheStackModeOfferIsMadeOnceAndNeverInStackMode) {
    doubles.advice = StackBuilder::Advice{3, 12, {"C0001", "C0004"}, 61.7};
    vm->ingestURLs({shoot()});
    ASSERT_TRUE(pumpIngest());
    ASSERT_TRUE(pumpUntil([&] { return vm->pendingStackModeOffer().has_value(); }));
    const auto& offer = *vm->pendingStackModeOffer();
    EXPECT_EQ(offer.title, "These look like repeated takes");
    EXPECT_TRUE(
        offer.text.starts_with("“C0001” and “C0004” came from the same camera yet share 61 seconds of the "
                               "same audio — 3 of the 12 pairs sampled do."))
        << offer.text;
    EXPECT_EQ(offer.keepButton, "Keep Track Mode");
    EXPECT_EQ(offer.useButton, "Use Stack Mode");
    vm->answerStackModeOffer(true);
    EXPECT_EQ(settings->stringValue(Settings::kSyncModeKey), "stacks");

    tmp.file("later/L1.WAV");
    vm->ingestURLs({Url::fromPath(tmp / "later")});
    ASSERT_TRUE(pumpIngest());
    queue.runPending();
    EXPECT_FALSE(vm->pendingStackModeOffer().has_value()) << "at most once per run";

    // A fresh controller in stack mode never offers.
    make();
    vm->ingestURLs({Url::fromPath(tmp / "later")});
    ASSERT_TRUE(pumpIngest());
    queue.runPending();
    EXPECT_FALSE(vm->didOfferStackMode());
}

TEST_F(SessionTest, CleaningDuringExtractionStopsTheDecodesAndDropsTheLateResults) {
    doubles.extractGate = std::make_shared<Gate>();
    vm->ingestURLs({shoot()});
    ASSERT_TRUE(pumpUntil([&] { return doubles.extractEntered.load() >= 1; }));
    vm->cleanProject();
    EXPECT_TRUE(vm->sources().empty());
    EXPECT_TRUE(vm->state().is(AppState::Kind::idle));
    EXPECT_FALSE(vm->isIngesting());
    // The analyses under way are told to stop, and end without waiting for their files.
    EXPECT_TRUE(pumpUntil([&] { return doubles.extractCalls.load() >= doubles.extractEntered.load(); }));
    EXPECT_GE(doubles.extractStopped.load(), 1);
    doubles.extractGate->open();
    // No new job starts after the clean.
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_LT(doubles.extractCalls.load(), 4);
    queue.runPending();
    EXPECT_TRUE(vm->sources().empty());
    EXPECT_TRUE(vm->state().is(AppState::Kind::idle));
    // The ingest engine's memory of complete shoots stays.
    EXPECT_FALSE(vm->ingestEngine().completeShootSessions.empty());
}

TEST_F(SessionTest, FailuresAreSummarisedByBucketAndBigUnsyncedFoldersGetAHint) {
    auto trackOf = [](int n, bool locked) {
        TrackSource t;
        t.name = "Dump";
        t.lockedGrouping = locked;
        for (int i = 0; i < n; ++i) {
            ClipItem c;
            c.duration = 30;
            c.syncStatus = SyncStatus::weak;
            t.clips.push_back(c);
        }
        return t;
    };
    EXPECT_EQ(SyncViewModel::summarizeFailures({trackOf(49, false)}), std::nullopt);
    EXPECT_EQ(SyncViewModel::summarizeFailures({trackOf(50, false)}),
              "'Dump' looks like several devices in one folder — select clips and press N");
    EXPECT_EQ(SyncViewModel::summarizeFailures({trackOf(50, true)}), std::nullopt);

    TrackSource t = trackOf(4, false);
    for (auto& c : t.clips)
        c.syncStatus = SyncStatus::failed;
    t.clips[0].duration = 2;
    t.clips[1].placementPass = PlacementPass::clock;
    t.clips[2].placementPass = PlacementPass::clock;
    EXPECT_EQ(SyncViewModel::summarizeFailures({t}),
              "4 failed: 2 placed by clock · 1 shorter than 5 s · 1 no audio nearby");
}

TEST_F(SessionTest, EditingMovesDeletesAndResetsTheOutcome) {
    ingestAndSync();
    ASSERT_TRUE(vm->state().is(AppState::Kind::synced));
    const auto& camB = vm->sources()[1];
    ASSERT_EQ(camB.name, "camB");
    vm->selectTrack(camB.id);
    vm->moveSelectedToNewTrack();
    EXPECT_EQ(vm->sources().size(), 3u) << "the emptied track goes, a new locked one comes";
    const auto it = std::find_if(vm->sources().begin(), vm->sources().end(),
                                 [](const TrackSource& t) { return t.name == "B1"; });
    ASSERT_NE(it, vm->sources().end());
    EXPECT_TRUE(it->lockedGrouping);
    EXPECT_TRUE(vm->selectedClipIDs().empty());
    EXPECT_TRUE(vm->state().is(AppState::Kind::idle));
    EXPECT_EQ(clipsWith(SyncStatus::pending), 4);

    vm->selectAllClips();
    EXPECT_EQ(vm->selectedClipIDs().size(), 4u);
    vm->deleteSelected();
    EXPECT_TRUE(vm->sources().empty());
    EXPECT_TRUE(vm->state().is(AppState::Kind::idle));
    EXPECT_DOUBLE_EQ(vm->pxPerSec(), 2.0);

    for (int i = 0; i < 20; ++i)
        vm->zoomIn();
    EXPECT_DOUBLE_EQ(vm->zoomMultiplier(), 64.0);
    vm->zoomReset();
    vm->zoomOut();
    EXPECT_DOUBLE_EQ(vm->zoomMultiplier(), 1.0);
}

TEST_F(SessionTest, TheProgressBarEasesTowardsItsTargetAndStopsSoonAfter) {
    doubles.extractGate = std::make_shared<Gate>();
    vm->ingestURLs({shoot()});
    ASSERT_TRUE(pumpUntil([&] { return vm->state().is(AppState::Kind::extracting); }));
    // Level with a target of 0: the bar creeps up to 0.12 above the target (its last step may pass
    // that by its constant 0.0004) and then holds.
    queue.advance(3.0);
    EXPECT_GT(vm->barFill(), 0.1);
    EXPECT_LE(vm->barFill(), 0.1204);
    const double held = vm->barFill();
    queue.advance(1.0);
    EXPECT_DOUBLE_EQ(vm->barFill(), held);
    doubles.extractGate->open();
    ASSERT_TRUE(pumpIngest());
    // Ready: the bar heads for 1 by 15 % of the rest each 60 Hz tick, for the 0.6 s it still runs.
    queue.advance(0.3);
    const double midway = vm->barFill();
    EXPECT_GT(midway, 0.9);
    queue.advance(5.0);
    const double last = vm->barFill();
    EXPECT_GT(last, midway);
    queue.advance(5.0);
    EXPECT_DOUBLE_EQ(vm->barFill(), last) << "the ease stopped 0.6 s after extraction";
}

TEST_F(SessionTest, AMissingStageIsSaidNotPretended) {
    SessionStages none;
    vm = SyncViewModel::create(queue, *settings, none);
    vm->ingestURLs({shoot()});
    ASSERT_TRUE(pumpIngest());
    EXPECT_TRUE(log.contains("[Extract] no audio analysis in this run — 4 clip(s) not analysed"));
    EXPECT_FALSE(vm->allExtracted());
    EXPECT_TRUE(vm->state().is(AppState::Kind::idle));
    vm->synchronize();
    EXPECT_EQ(vm->errorMessage(), "Need at least 2 extracted tracks");
}

TEST_F(SessionTest, UndecodableFormatsAreMarkedAndTheKnownOnesAdvised) {
    tmp.file("shoot/cam/A.mxf");
    tmp.file("shoot/cam/B.mxf");
    tmp.file("shoot/cam/C.braw");
    tmp.file("shoot/rec/R.WAV");
    vm->ingestURLs({Url::fromPath(tmp / "shoot")});
    ASSERT_TRUE(pumpIngest());
    EXPECT_TRUE(vm->allExtracted()) << "clips known to be unusable don't block the sync";
    ASSERT_EQ(vm->formatAdvisories().size(), 2u);
    EXPECT_EQ(vm->formatAdvisories()[0].ext, "mxf");
    EXPECT_EQ(vm->formatAdvisories()[0].clipCount, 2);
    EXPECT_EQ(vm->formatAdvisories()[1].displayName, "Blackmagic RAW (.braw)");
    EXPECT_TRUE(
        log.contains("[Extract] 'A': container not decodable (mxf) — will place by clock/interpolation"));
    EXPECT_EQ(vm->sources()[0].clips[0].audioUsability, AudioUsability::undecodable);
    EXPECT_EQ(vm->sources()[0].clips[0].placementExplanation(),
              "Format not decodable on this Mac — placed by clock or between neighbours");
    vm->dismissFormatAdvisories();
    EXPECT_TRUE(vm->formatAdvisories().empty());
}
