#include <vxtools3/image.h>
#include <vxtools3/threads.h>

#include "image/image_test.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <string>
#include <thread>
#include <vector>

namespace {

using imagetest::Bytes;
using imagetest::WorkersScope;

// An operation's result as bytes: an image's pixels, or every level of a mipmap in turn.
using Operation = std::function<std::vector<uint8_t>(VxImage *)>;

std::vector<uint8_t> Taken(VxImage *result)
{
    if (!result)
        return {};
    std::vector<uint8_t> bytes = Bytes(result);
    ImageDestroy(result);
    return bytes;
}

std::vector<uint8_t> Levels(VxMipmap *m)
{
    std::vector<uint8_t> bytes;
    for (int32_t i = 0; m && i < m->count && m->levels[i]; ++i) {
        const std::vector<uint8_t> level = Bytes(m->levels[i]);
        bytes.insert(bytes.end(), level.begin(), level.end());
    }
    MipmapDestroy(m);
    return bytes;
}

struct Case {
    std::string name;
    int32_t sourceType;
    Operation run;
};

std::vector<Case> Cases()
{
    static const float m3[9] = {0.05f, 0.2f, 0.05f, 0.1f, 0.3f, 0.1f, 0.05f, 0.1f, 0.05f};
    static const float m23[6] = {0.1f, 0.2f, 0.3f, 0.1f, 0.2f, 0.1f};
    static const float m5[25] = {0.01f, 0.02f, 0.03f, 0.02f, 0.01f, 0.02f, 0.05f, 0.07f, 0.05f, 0.02f, 0.03f, 0.07f, 0.1f,
                                 0.07f, 0.03f, 0.02f, 0.05f, 0.07f, 0.05f, 0.02f, 0.01f, 0.02f, 0.03f, 0.02f, 0.01f};
    static const float offset[4] = {0.1f, -0.1f, 0.0f, 0.2f};
    std::vector<Case> cases;
    auto add = [&](std::string name, int32_t type, Operation run) { cases.push_back({std::move(name), type, std::move(run)}); };
    for (int32_t type : {VX_PIXEL_GREY, VX_PIXEL_RGB, VX_PIXEL_RGBA})
        for (int32_t taps : {1, 4, 9})
            add("blur t" + std::to_string(type) + " taps " + std::to_string(taps), type,
                [taps](VxImage *s) { return Taken(ImageBlur(s, taps, 2.0, 0.7, 5)); });
    add("blur by matrix", VX_PIXEL_RGBA_FLOAT, [](VxImage *s) { return Taken(ImageBlur(s, 3, 1.0, 2.0, 15)); });
    add("convolve 3x3 in place", VX_PIXEL_RGBA_FLOAT,
        [](VxImage *s) { return Taken(ImageConvolve(s, VX_PIXEL_RGBA_FLOAT, m3, 3, 3, offset)); });
    add("convolve 3x3 to RGB", VX_PIXEL_RGB, [](VxImage *s) { return Taken(ImageConvolve(s, VX_PIXEL_RGB, m3, 3, 3, nullptr)); });
    add("convolve 2x3", VX_PIXEL_RGBA, [](VxImage *s) { return Taken(ImageConvolve(s, VX_PIXEL_RGBA, m23, 2, 3, offset)); });
    add("convolve 5x5 to index", VX_PIXEL_RGB, [](VxImage *s) {
        s->setPalette(s, 0, 0, 64, imagetest::CubePalette().data());
        return Taken(ImageConvolve(s, VX_PIXEL_INDEX, m5, 5, 5, nullptr));
    });
    for (int32_t mode = 0; mode <= 5; ++mode) {
        const std::string m = " mode " + std::to_string(mode);
        add("resample down" + m, VX_PIXEL_RGB, [mode](VxImage *s) {
            return Taken(ImageResample(s, VX_PIXEL_RGBA, std::max(1, s->width / 2), std::max(1, s->height / 3), mode));
        });
        add("resample up" + m, VX_PIXEL_RGBA_FLOAT, [mode](VxImage *s) {
            return Taken(ImageResample(s, VX_PIXEL_RGBA_FLOAT, 2 * s->width + 1, 3 * s->height, mode));
        });
    }
    add("resample2 mixed", VX_PIXEL_RGBA, [](VxImage *s) {
        return Taken(ImageResample2(s, VX_PIXEL_RGB, 2 * s->width, std::max(1, s->height / 2), 2, 4));
    });
    add("mipmap RGBA bytes", VX_PIXEL_RGBA, [](VxImage *s) { return Levels(MipmapCreateSmall(s, VX_PIXEL_RGBA, 1)); });
    add("mipmap RGB to float", VX_PIXEL_RGB, [](VxImage *s) { return Levels(MipmapCreate(s, VX_PIXEL_RGBA_FLOAT)); });
    add("mipmap index", VX_PIXEL_INDEX, [](VxImage *s) {
        s->setPalette(s, 0, 0, 64, imagetest::CubePalette().data());
        return Levels(MipmapCreate(s, VX_PIXEL_INDEX));
    });
    return cases;
}

// Every operation on odd sizes gives the same bytes with 2, 3 and 7 workers as with one; the
// parts are as small as a row, so every size that can be split is.
TEST(ImageWorkers, EveryOperationGivesTheSameBytesForAnyWorkerCount)
{
    const std::pair<int32_t, int32_t> sizes[] = {{1, 1}, {1, 29}, {29, 1}, {37, 23}, {13, 61}, {131, 7}};
    for (const Case &c : Cases())
        for (const auto &[w, h] : sizes) {
            SCOPED_TRACE(c.name + " " + std::to_string(w) + "x" + std::to_string(h));
            std::vector<uint8_t> alone;
            for (int32_t workers : {1, 2, 3, 7}) {
                WorkersScope scope(workers);
                VxImage *src = imagetest::RandomImage(c.sourceType, w, h, static_cast<uint32_t>(w * 131 + h));
                const std::vector<uint8_t> before = Bytes(src), got = c.run(src);
                EXPECT_EQ(Bytes(src), before) << "the source changed";
                ImageDestroy(src);
                ASSERT_FALSE(got.empty()) << workers << " workers";
                if (workers == 1)
                    alone = got;
                else
                    ASSERT_TRUE(got == alone) << workers << " workers differ from one";
            }
        }
}

TEST(ImageWorkers, SettingCountsProcessorsAndRefusesNegativeCounts)
{
    EXPECT_EQ(ImageGetWorkers(), 1) << "one worker unless asked";
    EXPECT_EQ(ImageSetWorkers(0), 1);
    EXPECT_EQ(vx::image::WorkerCount(), std::min(MTSystemCountProcs(), vx::image::kMaxWorkers));
    EXPECT_EQ(ImageSetWorkers(-2), -1);
    EXPECT_EQ(ImageGetWorkers(), 0);
    EXPECT_EQ(ImageSetWorkers(500), 0);
    EXPECT_EQ(vx::image::WorkerCount(), vx::image::kMaxWorkers);
    ImageSetWorkers(1);
    EXPECT_EQ(vx::image::PartsFor(100, 1000000), 1) << "one worker: one part";
    ImageSetWorkers(4);
    EXPECT_EQ(vx::image::PartsFor(3, int64_t{1} << 30), 3) << "no more parts than rows";
    EXPECT_EQ(vx::image::PartsFor(1000, vx::image::kDefaultMinPartWork * 2), 2) << "small work, few parts";
    EXPECT_EQ(vx::image::PartsFor(1000, int64_t{1} << 30), 4);
    ImageSetWorkers(1);
}

// A part that fails makes the whole operation fail once every part has ended: the first
// failed part's code reaches the caller's block, and the parts that succeeded still ran.
TEST(ImageWorkers, AFailedPartFailsTheRunAfterEveryPartHasEnded)
{
    struct Parts {
        std::atomic<int> ran{0};
        int failFrom;
    } parts;
    auto work = [](void *context, int32_t part) {
        auto *p = static_cast<Parts *>(context);
        p->ran.fetch_add(1);
        if (part >= p->failFrom)
            CkptRecover(100 + part);
    };
    WorkersScope scope(5);
    for (int failFrom : {5, 2, 0}) {
        parts.ran = 0;
        parts.failFrom = failFrom;
        int code = 0;
        if (CkptBegin())
            code = CkptLatchCode();
        else {
            vx::image::RunParts(5, work, &parts);
            CkptEnd();
        }
        EXPECT_EQ(parts.ran.load(), 5);
        EXPECT_EQ(code, failFrom < 5 ? 100 + failFrom : 0);
    }
}

// Pieces cover every unit once, each on a worker of the run; after a failed piece no new one
// starts and its code reaches the caller.
TEST(ImageWorkers, PiecesCoverEveryUnitOnceAndStopAfterAFailure)
{
    struct Run {
        std::atomic<int> covered[100];
        std::atomic<int> pieces{0};
        std::atomic<bool> badWorker{false};
        int32_t workers, failAt;
    } run;
    auto work = [](void *context, int32_t worker, int32_t first, int32_t end) {
        auto *r = static_cast<Run *>(context);
        r->pieces.fetch_add(1);
        if (worker < 0 || worker >= r->workers)
            r->badWorker = true;
        for (int32_t u = first; u < end; ++u)
            r->covered[u].fetch_add(1);
        if (first <= r->failAt && r->failAt < end)
            CkptRecover(77);
        // Slow pieces: every worker gets some, and a failure comes before the others end.
        std::this_thread::sleep_for(std::chrono::milliseconds(r->failAt >= 0 ? 5 : 1));
    };
    WorkersScope scope(3);
    for (int32_t workers : {1, 2, 3})
        for (int32_t failAt : {-1, 0}) {
            for (auto &c : run.covered)
                c = 0;
            run.pieces = 0;
            run.workers = workers;
            run.failAt = failAt;
            int code = 0;
            if (CkptBegin())
                code = CkptLatchCode();
            else {
                vx::image::RunPieces(workers, 100, work, &run);
                CkptEnd();
            }
            EXPECT_FALSE(run.badWorker);
            EXPECT_EQ(code, failAt < 0 ? 0 : 77);
            if (failAt < 0) {
                EXPECT_TRUE(std::all_of(std::begin(run.covered), std::end(run.covered), [](auto &c) { return c == 1; }));
                EXPECT_EQ(run.pieces.load(), workers == 1 ? 1 : 4 * workers) << workers << " workers";
            } else {
                EXPECT_LT(run.pieces.load(), 4 * workers) << "pieces started after the failure";
            }
        }
}

}  // namespace
