// Brake on disparity maps of rendered scenes (tools/scenerender) as the two
// matchers deliver them: the stereo unit substitute (CV_32F, 1/64 px) and
// block matching on its pitch band (CV_16S, whole px). Bit for bit against
// the straightforward reading, and the unit's distance against the truth.

#include <gtest/gtest.h>

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
    double obstacleM;  // 0 when the obstacle does not fill the frame's middle
    bool unit;
    cv::Mat disparity;
};

// A centred obstacle at 2 m and 8 m, which fills the level front bands and
// the down grid, and a near off-centre one; each matched by the unit and by
// block matching on the bands of two pitches. The down camera's matchers:
// a front unit matcher would write its dump file.
const std::vector<RenderedMap>& renderedMaps()
{
    static const std::vector<RenderedMap> maps = [] {
        std::vector<RenderedMap> result;
        const scene::Rig rig;
        StereoMatcher unit(Common::DOWN, StereoMatcher::DPU, rig.size);
        StereoMatcher bm(Common::DOWN, StereoMatcher::BM, rig.size);
        const std::pair<double, cv::Rect> scenes[] = {
            {2.0, cv::Rect()}, {8.0, cv::Rect()}, {1.5, cv::Rect(120, 160, 240, 240)}};
        for (const auto& [obstacleM, area] : scenes) {
            scene::SceneLayout layout;
            layout.obstacleM = obstacleM;
            layout.obstacleRect = area;
            cv::Mat left, right, disparity;
            scene::renderPair(rig, layout, left, right);
            const std::string name = "obstacle " + std::to_string(obstacleM) + " m";
            const double truth = area.empty() ? obstacleM : 0.0;
            unit.compute(left, right, disparity, 0);
            result.push_back({name + ", unit", truth, true, disparity.clone()});
            for (float pitch : {0.0f, 20.0f}) {
                bm.setPitch(pitch);
                bm.compute(left, right, disparity, 0);
                result.push_back({name + ", BM at pitch " + std::to_string(pitch), truth, false, disparity.clone()});
            }
        }
        return result;
    }();
    return maps;
}

TEST(BrakeRendered, MatcherMapsAgreeWithTheStraightforwardReading)
{
    // The front camera flies through every band case, then hovers disarmed;
    // the down camera's grid depends on neither.
    struct Frame {
        float pitch;
        uint32_t arm;
    };
    const std::vector<Frame> front = {
        {40.0f, 1},  {65.0f * 0.33333334f, 1}, {15.0f, 2},  {8.125f, 1}, {5.0f, 1}, {0.0f, 1},
        {-10.0f, 1}, {-21.666668f, 1},         {-30.0f, 1}, {20.0f, 0}};
    const std::vector<Frame> down = {{0.0f, 1}, {30.0f, 0}};
    for (const RenderedMap& map : renderedMaps()) {
        for (auto direction : {Common::FRONT, Common::DOWN}) {
            brakeref::Twin twin(direction);
            for (const Frame& frame : direction == Common::FRONT ? front : down) {
                ASSERT_EQ(twin.frame(flight(frame.pitch, 1.5f, frame.arm), map.disparity, rigQ(kTall)), "")
                    << map.name << ", " << Common::binoString(direction) << ", pitch " << frame.pitch << ", arm "
                    << frame.arm;
            }
        }
    }
}

TEST(BrakeRendered, UnitMapOfACentredObstacleGivesItsDistance)
{
    // The unit's sub-pixel disparity puts the nearest block within 2 % of
    // the rendered distance, front and down.
    int checked = 0;
    for (const RenderedMap& map : renderedMaps()) {
        for (auto direction : {Common::FRONT, Common::DOWN}) {
            if (map.unit && map.obstacleM > 0) {
                ManualClock time;
                Brake brake(direction, time.clock());
                brake.setFlyInfo(flight(0.0f));
                brake.setDisparity(map.disparity, rigQ(kTall));
                EXPECT_NEAR(brake.dis_ori_z, map.obstacleM, 0.02 * map.obstacleM) << map.name << ", " << direction;
                ++checked;
            }
        }
    }
    EXPECT_EQ(checked, 4);
}

}  // namespace
