// Brake on disparity maps of rendered scenes (tools/scenerender) as the two
// matchers deliver them: the stereo unit substitute (CV_32F, 1/64 px) and
// block matching on its pitch band (CV_16S, whole px). Against the
// straightforward reading bit for bit, for every pitch case, flying or not,
// both cameras; and the front distance of a rendered obstacle against the
// truth.

#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include "brake_maps.h"
#include "brake_reference.h"
#include "scenerender.h"
#include "stereomatcher.h"

namespace {

using namespace brakemaps;

struct RenderedMap {
    std::string name;
    cv::Mat disparity;
};

// Scenes with an obstacle at several distances and places, matched by both
// back ends (the down camera's matcher: a front unit matcher would write its
// dump file); BM on the bands of two pitches.
const std::vector<RenderedMap>& renderedMaps()
{
    static const std::vector<RenderedMap> maps = [] {
        std::vector<RenderedMap> result;
        const scene::Rig rig;
        struct Scene {
            double obstacleM;
            cv::Rect area;
        };
        const Scene scenes[] = {{1.5, cv::Rect(120, 160, 240, 240)},
                                {3.0, cv::Rect()},
                                {8.0, cv::Rect(60, 300, 200, 200)},
                                {0.0, cv::Rect()}};
        StereoMatcher unit(Common::DOWN, StereoMatcher::DPU, rig.size);
        StereoMatcher bm(Common::DOWN, StereoMatcher::BM, rig.size);
        for (const Scene& s : scenes) {
            scene::SceneLayout layout;
            layout.obstacleM = s.obstacleM;
            layout.obstacleRect = s.area;
            cv::Mat left;
            cv::Mat right;
            scene::renderPair(rig, layout, left, right);
            const std::string name = "obstacle " + std::to_string(s.obstacleM) + " m";
            cv::Mat disparity;
            unit.compute(left, right, disparity, 0);
            result.push_back({name + ", unit", disparity.clone()});
            for (float pitch : {0.0f, 20.0f}) {
                bm.setPitch(pitch);
                bm.compute(left, right, disparity, 0);
                result.push_back({name + ", BM at pitch " + std::to_string(pitch), disparity.clone()});
            }
        }
        return result;
    }();
    return maps;
}

TEST(BrakeRendered, MatcherMapsAgreeWithTheStraightforwardReading)
{
    // The front camera flies through every band case, then hovers disarmed;
    // the down camera's grid depends on neither, so it sees fewer frames.
    const cv::Mat Q = rigQ(kTall);
    struct Frame {
        float pitch;
        uint32_t arm;
    };
    const std::vector<Frame> front = {
        {40.0f, 1},  {65.0f * 0.33333334f, 1}, {15.0f, 2},  {8.125f, 1}, {5.0f, 1}, {0.0f, 1},
        {-10.0f, 1}, {-21.666668f, 1},         {-30.0f, 1}, {0.0f, 0},   {20.0f, 0}};
    const std::vector<Frame> down = {{0.0f, 1}, {30.0f, 1}, {-10.0f, 0}};
    int measured = 0;
    for (const RenderedMap& map : renderedMaps()) {
        for (auto direction : {Common::FRONT, Common::DOWN}) {
            brakeref::Twin twin(direction);
            for (const Frame& frame : direction == Common::FRONT ? front : down) {
                const std::string difference = twin.frame(flight(frame.pitch, 1.5f, frame.arm), map.disparity, Q);
                ASSERT_EQ(difference, "") << map.name << ", " << Common::binoString(direction) << ", pitch "
                                          << frame.pitch << ", arm " << frame.arm;
                measured += twin.fast.dis_ori_z < Brake::kNoObstacle ? 1 : 0;
            }
        }
    }
    EXPECT_GT(measured, 0);
}

TEST(BrakeRendered, UnitMapOfARenderedObstacleGivesItsDistance)
{
    // The default obstacle (centred, half the frame) fills the level front
    // camera's bands and the down grid; the unit's sub-pixel disparity puts
    // the nearest block within 2 % of the rendered distance.
    const scene::Rig rig;
    StereoMatcher unit(Common::DOWN, StereoMatcher::DPU, rig.size);
    for (double distanceM : {2.0, 8.0}) {
        scene::SceneLayout layout;
        layout.obstacleM = distanceM;
        cv::Mat left;
        cv::Mat right;
        scene::renderPair(rig, layout, left, right);
        cv::Mat disparity;
        unit.compute(left, right, disparity, 0);
        for (auto direction : {Common::FRONT, Common::DOWN}) {
            ManualClock time;
            Brake brake(direction, time.clock());
            brake.setFlyInfo(flight(0.0f));
            brake.setDisparity(disparity, rigQ(rig.size));
            EXPECT_NEAR(brake.dis_ori_z, distanceM, 0.02 * distanceM)
                << distanceM << " m, " << Common::binoString(direction);
        }
    }
}

}  // namespace
