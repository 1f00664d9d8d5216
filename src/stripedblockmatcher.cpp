#include "stripedblockmatcher.h"

#include <algorithm>

#include "threadpool.h"

namespace {
cv::Ptr<cv::StereoBM> copyOf(const cv::Ptr<cv::StereoBM>& from)
{
    cv::Ptr<cv::StereoBM> to = cv::StereoBM::create(from->getNumDisparities(), from->getBlockSize());
    to->setMinDisparity(from->getMinDisparity());
    to->setSpeckleWindowSize(from->getSpeckleWindowSize());
    to->setSpeckleRange(from->getSpeckleRange());
    to->setDisp12MaxDiff(from->getDisp12MaxDiff());
    to->setPreFilterType(from->getPreFilterType());
    to->setPreFilterSize(from->getPreFilterSize());
    to->setPreFilterCap(from->getPreFilterCap());
    to->setTextureThreshold(from->getTextureThreshold());
    to->setUniquenessRatio(from->getUniquenessRatio());
    to->setSmallerBlockSize(from->getSmallerBlockSize());
    to->setROI1(from->getROI1());
    to->setROI2(from->getROI2());
    return to;
}

}  // namespace

StripedBlockMatcher::StripedBlockMatcher(const cv::Ptr<cv::StereoBM>& prototype, int stripes)
    : m_whole(copyOf(prototype)),
      m_halfBlock(prototype->getBlockSize() / 2),
      m_minDisparity(prototype->getMinDisparity()),
      m_speckleWindow(prototype->getSpeckleWindowSize()),
      m_speckleRange(prototype->getSpeckleRange())
{
    // Valid-region rectangles are in whole-image rows, which a stripe's view
    // does not share: with them set, every compute is a whole one.
    const bool regionsSet = !prototype->getROI1().empty() || !prototype->getROI2().empty();
    const int count = regionsSet ? 1 : std::max(1, stripes);
    for (int i = 0; i < count; ++i) {
        m_stripes.push_back(copyOf(prototype));
        m_stripes.back()->setSpeckleWindowSize(0);
    }
    m_stripeOutputs.resize(m_stripes.size());
}

int StripedBlockMatcher::stripesFor(int rows) const
{
    // A stripe recomputes half a block plus one row on each side; below this
    // many rows of its own the extra work outweighs the parallelism.
    const int minOwnRows = 2 * (m_halfBlock + 1);
    const int inner = rows - 2 * m_halfBlock;
    if (inner < 2 * minOwnRows) {
        return 1;
    }
    return std::min(static_cast<int>(m_stripes.size()), inner / minOwnRows);
}

std::atomic<int> StripedBlockMatcher::s_computing{0};

void StripedBlockMatcher::compute(const cv::Mat& left, const cv::Mat& right, cv::Mat& disparity)
{
    // Stripes cost a quarter more work in all; they pay only on threads no
    // other matcher of the process is using at the moment. With every
    // thread taken, one stripe does the job without the extra work.
    const int others = s_computing.fetch_add(1, std::memory_order_relaxed);
    struct Leave {
        ~Leave() { s_computing.fetch_sub(1, std::memory_order_relaxed); }
    } leave;
    const int rows = left.rows;
    const int idle = static_cast<int>(m_stripes.size()) - others;
    const int count = left.size() == right.size() ? std::min(stripesFor(rows), std::max(1, idle)) : 1;
    if (count <= 1) {
        m_whole->compute(left, right, disparity);
        return;
    }
    disparity.create(left.size(), CV_16S);
    const int halo = m_halfBlock + 1;
    const int inner = rows - 2 * m_halfBlock;
    threadpool::run(count, [&](int i) {
        // The first and last stripes also own the border rows the matcher
        // marks invalid, so every row is written once.
        const int first = i == 0 ? 0 : m_halfBlock + inner * i / count;
        const int last = i == count - 1 ? rows : m_halfBlock + inner * (i + 1) / count;
        // An even start gives the last stripe's view the image's row
        // parity: the pre-filter treats an image's last row one way for an
        // even and another for an odd number of rows.
        const int viewFirst = std::max(0, first - halo) & ~1;
        const int viewLast = std::min(rows, last + halo);
        cv::Mat& stripe = m_stripeOutputs[static_cast<size_t>(i)];
        m_stripes[static_cast<size_t>(i)]->compute(left.rowRange(viewFirst, viewLast),
                                                   right.rowRange(viewFirst, viewLast), stripe);
        cv::Mat own = disparity.rowRange(first, last);
        stripe.rowRange(first - viewFirst, last - viewFirst).copyTo(own);
    });
    if (m_speckleRange >= 0 && m_speckleWindow > 0) {
        // The matcher's own marking of filtered pixels: one below the
        // smallest disparity, in its 1/16 px fixed point.
        const double filtered = (m_minDisparity - 1) * cv::StereoMatcher::DISP_SCALE;
        cv::filterSpeckles(disparity, filtered, m_speckleWindow, m_speckleRange, m_speckleBuffer);
    }
}
