#pragma once
// OpenCV block matching split into horizontal stripes that run in parallel,
// giving the very disparity map (CV_16S, 1/16 px) the single matcher would.
//
// cv::StereoBM sizes its own parallel work from the image area, and on a band
// of a few hundred rows with a large block it settles on one stripe: one core
// does all the work while the others wait. The disparity of a pixel depends
// only on the pre-filtered rows of its block, and the pre-filter of a row
// only on the rows next to it, so a stripe computed on a view that reaches
// half a block plus one row beyond it gives exactly the full image's rows.
// The speckle filter joins regions across stripes, so it runs once, on the
// joined map, with the matcher's own settings.
//
// Thread-bound: one caller at a time (the stripes' matchers keep buffers).

#include <atomic>
#include <vector>

#include <opencv2/calib3d.hpp>
#include <opencv2/core.hpp>

class StripedBlockMatcher {
public:
    /// Matches with the settings `prototype` has now (later changes to it are
    /// not seen), in up to `stripes` parallel stripes (at least 1).
    StripedBlockMatcher(const cv::Ptr<cv::StereoBM>& prototype, int stripes);

    /// What prototype->compute(left, right, disparity) gives, for any size.
    /// Uses fewer stripes while other matchers of the process compute.
    /// `disparity` keeps its data when it already has the size and CV_16S
    /// type (a view into a larger map stays a view).
    void compute(const cv::Mat& left, const cv::Mat& right, cv::Mat& disparity);

private:
    /// Stripes a compute of `rows` rows would use: fewer when the rows are
    /// too few to be worth splitting, 1 when they cannot be split at all.
    int stripesFor(int rows) const;

    /// Computes in progress in the process, all matchers together.
    static std::atomic<int> s_computing;

    cv::Ptr<cv::StereoBM> m_whole;                 ///< all settings; images too short to split
    std::vector<cv::Ptr<cv::StereoBM>> m_stripes;  ///< same settings, speckle filter off
    std::vector<cv::Mat> m_stripeOutputs;
    cv::Mat m_speckleBuffer;
    int m_halfBlock;
    int m_minDisparity;
    int m_speckleWindow;
    int m_speckleRange;
};
