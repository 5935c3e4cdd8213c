#include "pair_flow.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <opencv2/core/utility.hpp>
#include <opencv2/features2d.hpp>
#include <opencv2/imgproc.hpp>
#include <opencv2/video/tracking.hpp>
#include <vector>

namespace {

// DIS refuses pictures smaller than its patch at the finest level it works
// on; smaller ones are padded up to this.
constexpr int kMinFlowSide = 32;

// Matching cost: the absolute grey difference along a flow, averaged over a
// square this wide, so that one noisy pixel does not decide.
constexpr int kCostWindow = 9;

// Fast objects. A region is suspect where its matching cost is above this
// (grey levels of 255) and above kSuspectOverMedian times the frame's median.
constexpr float kSuspectCost = 10.0f;
constexpr float kSuspectOverMedian = 4.0f;
constexpr int kSuspectGrow = 8;  // pixels added round suspect regions
constexpr int kFeatures = 1000;  // ORB features per frame, inside the suspect regions
// ORB's patch: smaller than its default of 31, so that the descriptor of a
// point on an object 40 pixels across still sees mostly the object.
constexpr int kFeaturePatch = 15;
constexpr int kFastThreshold = 5;  // low: a small object offers few corners
constexpr int kFeatureTile = 64;
constexpr int kMinFeaturesPerRun = 16;
constexpr int kMaxDescriptorDistance = 64;  // of ORB's 256 bits
// A match tells something new where it disagrees with the flow by more than
// this many pixels; matches agreeing with each other to kClusterTolerance
// pixels form one moving object if there are at least kMinClusterSize. A
// cluster that is wrong costs only time: its flow is kept only where it
// matches better.
constexpr float kDisagreement = 4.0f;
constexpr float kClusterTolerance = 3.0f;
constexpr size_t kMinClusterSize = 3;
constexpr int kMaxObjects = 8;

cv::Ptr<cv::DISOpticalFlow> MakeDis(const MotionEstimateSettings& settings) {
    static_assert(int(FlowPreset::UltraFast) == cv::DISOpticalFlow::PRESET_ULTRAFAST &&
                      int(FlowPreset::Fast) == cv::DISOpticalFlow::PRESET_FAST &&
                      int(FlowPreset::Medium) == cv::DISOpticalFlow::PRESET_MEDIUM,
                  "FlowPreset follows DIS's presets");
    cv::Ptr<cv::DISOpticalFlow> dis = cv::DISOpticalFlow::create(static_cast<int>(settings.preset));
    if (!settings.refine) dis->setVariationalRefinementIterations(0);
    return dis;
}

// Flow from `from` to `to`, padded up to DIS's smallest size. The flow is
// always handed to DIS empty: one of the right size would be taken as an
// initial flow, and OpenCV 4.6's DIS object would keep that for later calls.
cv::Mat DenseFlow(cv::DISOpticalFlow& dis, const cv::Mat& from, const cv::Mat& to) {
    cv::Mat flow;
    if (from.cols >= kMinFlowSide && from.rows >= kMinFlowSide) {
        dis.calc(from, to, flow);
        return flow;
    }
    const int right = std::max(0, kMinFlowSide - from.cols), top = std::max(0, kMinFlowSide - from.rows);
    cv::Mat paddedFrom, paddedTo;
    cv::copyMakeBorder(from, paddedFrom, 0, top, 0, right, cv::BORDER_REPLICATE);
    cv::copyMakeBorder(to, paddedTo, 0, top, 0, right, cv::BORDER_REPLICATE);
    dis.calc(paddedFrom, paddedTo, flow);
    return flow(cv::Rect(0, 0, from.cols, from.rows)).clone();
}

// The median of a cost, to the grey level.
float MedianCost(const cv::Mat& cost) {
    size_t histogram[256] = {};
    for (int j = 0; j < cost.rows; ++j) {
        const float* c = cost.ptr<float>(j);
        for (int i = 0; i < cost.cols; ++i) ++histogram[std::clamp(static_cast<int>(c[i]), 0, 255)];
    }
    size_t below = 0;
    for (int level = 0; level < 256; ++level)
        if ((below += histogram[level]) * 2 >= cost.total()) return static_cast<float>(level);
    return 255.0f;
}

cv::Mat SuspectRegions(const cv::Mat& cost, const cv::Mat& flow) {
    // The median, not the mean: a fast object may cover much of a small frame.
    const float threshold = std::max(kSuspectCost, kSuspectOverMedian * MedianCost(cost));
    cv::Mat suspect = cost > threshold;
    // Where the flow leaves the picture, what is there is leaving the frame
    // and cannot match: no sign of a fast object. Taken as one, the strips
    // at the edges of a moving camera would match each other on a repeating
    // texture.
    cv::parallel_for_(cv::Range(0, flow.rows), [&](const cv::Range& rows) {
        const float right = static_cast<float>(flow.cols) - 0.5f, top = static_cast<float>(flow.rows) - 0.5f;
        for (int j = rows.start; j < rows.end; ++j) {
            const cv::Vec2f* f = flow.ptr<cv::Vec2f>(j);
            uint8_t* s = suspect.ptr<uint8_t>(j);
            for (int i = 0; i < flow.cols; ++i) {
                const float x = static_cast<float>(i) + f[i][0], y = static_cast<float>(j) + f[i][1];
                if (!(x >= -0.5f && x <= right && y >= -0.5f && y <= top)) s[i] = 0;
            }
        }
    });
    cv::dilate(
        suspect, suspect,
        cv::getStructuringElement(cv::MORPH_RECT, cv::Size(2 * kSuspectGrow + 1, 2 * kSuspectGrow + 1)));
    return suspect;
}

// A small object the flow missed: where it is in each frame and how far it went.
struct FastObject {
    cv::Point shift;  // from a to b, whole pixels
    cv::Rect inA, inB;
};

cv::Rect Surround(const std::vector<cv::Point2f>& points, cv::Size frame) {
    const cv::Rect box = cv::boundingRect(points);
    // Features lie inside an object's outline, so the region reaches past them
    // by a margin that grows with the object.
    const int margin = 16 + std::max(box.width, box.height) / 2;
    return cv::Rect(box.x - margin, box.y - margin, box.width + 2 * margin, box.height + 2 * margin) &
           cv::Rect(cv::Point(0, 0), frame);
}

float Median(std::vector<float> values) {
    std::nth_element(values.begin(), values.begin() + values.size() / 2, values.end());
    return values[values.size() / 2];
}

// ORB features inside the suspect regions of a frame. ORB runs its corner
// detector over all of the picture it is given, which on a whole frame would
// cost more than everything else here together, so it is given runs of tiles
// that hold suspect pixels, one row of tiles at a time, each with a margin for
// the feature's patch. The features each run keeps are shared out by its share
// of the suspect pixels.
void DetectFeatures(const cv::Mat& grey, const cv::Mat& suspect, std::vector<cv::KeyPoint>& points,
                    cv::Mat& descriptors) {
    const double suspectPixels = cv::countNonZero(suspect);
    const cv::Rect frame(cv::Point(0, 0), grey.size());
    const auto detect = [&](cv::Rect run) {
        const int wanted =
            static_cast<int>(std::ceil(kFeatures * cv::countNonZero(suspect(run)) / suspectPixels));
        const cv::Rect padded(run.x - kFeaturePatch, run.y - kFeaturePatch, run.width + 2 * kFeaturePatch,
                              run.height + 2 * kFeaturePatch);
        const cv::Rect area = padded & frame;
        cv::Mat runMask = cv::Mat::zeros(area.size(), CV_8UC1);
        suspect(run).copyTo(runMask(run - area.tl()));
        // One pyramid level: between neighbouring frames an object keeps its size.
        cv::Ptr<cv::ORB> orb = cv::ORB::create(std::max(wanted, kMinFeaturesPerRun), 1.2f, 1, kFeaturePatch,
                                               0, 2, cv::ORB::HARRIS_SCORE, kFeaturePatch, kFastThreshold);
        std::vector<cv::KeyPoint> found;
        cv::Mat described;
        orb->detectAndCompute(grey(area), runMask, found, described);
        for (cv::KeyPoint& point : found) point.pt += cv::Point2f(area.tl());
        points.insert(points.end(), found.begin(), found.end());
        descriptors.push_back(described);
    };
    const int tilesAcross = (grey.cols + kFeatureTile - 1) / kFeatureTile;
    for (int y = 0; y < grey.rows; y += kFeatureTile) {
        const int height = std::min(kFeatureTile, grey.rows - y);
        int runStart = -1;
        for (int tile = 0; tile <= tilesAcross; ++tile) {
            const int x = std::min(tile * kFeatureTile, grey.cols);
            const bool active =
                tile < tilesAcross &&
                cv::countNonZero(suspect(cv::Rect(x, y, std::min(kFeatureTile, grey.cols - x), height)));
            if (active && runStart < 0) runStart = x;
            if (!active && runStart >= 0) {
                detect(cv::Rect(runStart, y, x - runStart, height));
                runStart = -1;
            }
        }
    }
}

std::vector<FastObject> FindFastObjects(const GreyFrame& a, const GreyFrame& b, const cv::Mat& forward,
                                        const cv::Mat& backward, const cv::Mat& costA, const cv::Mat& costB) {
    const cv::Mat suspectA = SuspectRegions(costA, forward), suspectB = SuspectRegions(costB, backward);
    if (cv::countNonZero(suspectA) == 0 || cv::countNonZero(suspectB) == 0) return {};

    std::vector<cv::KeyPoint> pointsA, pointsB;
    cv::Mat descriptorsA, descriptorsB;
    DetectFeatures(a.grey, suspectA, pointsA, descriptorsA);
    DetectFeatures(b.grey, suspectB, pointsB, descriptorsB);
    if (pointsA.empty() || pointsB.empty()) return {};
    std::vector<cv::DMatch> matches;
    cv::BFMatcher(cv::NORM_HAMMING, true).match(descriptorsA, descriptorsB, matches);

    struct Move {
        cv::Point2f from, to;
        cv::Point2f by() const { return to - from; }
    };
    std::vector<Move> moves;
    for (const cv::DMatch& match : matches) {
        if (match.distance > kMaxDescriptorDistance) continue;
        const Move move{pointsA[match.queryIdx].pt, pointsB[match.trainIdx].pt};
        const int x = std::clamp(cvRound(move.from.x), 0, forward.cols - 1);
        const int y = std::clamp(cvRound(move.from.y), 0, forward.rows - 1);
        const cv::Vec2f flow = forward.at<cv::Vec2f>(y, x);
        if (cv::norm(move.by() - cv::Point2f(flow[0], flow[1])) > kDisagreement) moves.push_back(move);
    }

    // Greedy clustering by motion: the motion most matches agree on first.
    std::vector<FastObject> objects;
    while (objects.size() < kMaxObjects && moves.size() >= kMinClusterSize) {
        size_t best = 0, bestSupport = 0;
        for (size_t i = 0; i < moves.size(); ++i) {
            size_t support = 0;
            for (const Move& other : moves)
                support += cv::norm(other.by() - moves[i].by()) <= kClusterTolerance;
            if (support > bestSupport) best = i, bestSupport = support;
        }
        if (bestSupport < kMinClusterSize) break;
        const cv::Point2f centre = moves[best].by();
        std::vector<cv::Point2f> from, to;
        std::vector<float> dx, dy;
        std::vector<Move> rest;
        for (const Move& move : moves) {
            if (cv::norm(move.by() - centre) <= kClusterTolerance) {
                from.push_back(move.from);
                to.push_back(move.to);
                dx.push_back(move.by().x);
                dy.push_back(move.by().y);
            } else {
                rest.push_back(move);
            }
        }
        moves.swap(rest);
        objects.push_back(FastObject{cv::Point(cvRound(Median(dx)), cvRound(Median(dy))),
                                     Surround(from, a.grey.size()), Surround(to, b.grey.size())});
    }
    return objects;
}

// Absolute positions x + flow(x) for the pixels of `region`, whose flow is
// given.
void FlowTargets(const cv::Mat& flow, cv::Rect region, cv::Mat& targets) {
    targets.create(flow.size(), CV_32FC2);
    cv::parallel_for_(cv::Range(0, flow.rows), [&](const cv::Range& rows) {
        for (int j = rows.start; j < rows.end; ++j) {
            const cv::Vec2f* f = flow.ptr<cv::Vec2f>(j);
            cv::Vec2f* t = targets.ptr<cv::Vec2f>(j);
            const float y = static_cast<float>(region.y + j);
            for (int i = 0; i < flow.cols; ++i)
                t[i] = cv::Vec2f(static_cast<float>(region.x + i) + f[i][0], y + f[i][1]);
        }
    });
}

// 8-bit sRGB codes of linear light in steps of 1/65535, fine enough that
// even the steepest part of the curve (12.92 at black) moves less than a
// tenth of a code from one step to the next.
struct SrgbCodes {
    static constexpr int kSteps = 65535;
    uint8_t code[kSteps + 1];
    SrgbCodes() {
        for (int k = 0; k <= kSteps; ++k) {
            const double linear = double(k) / kSteps;
            const double encoded =
                linear <= 0.0031308 ? 12.92 * linear : 1.055 * std::pow(linear, 1 / 2.4) - 0.055;
            code[k] = static_cast<uint8_t>(std::lround(encoded * 255.0));
        }
    }
};

}  // namespace

GreyFrame MakeGreyFrame(const HostPixels& frame) {
    static const int kType[] = {CV_8UC4, CV_16UC4, CV_32FC4};
    static const double kWhite[] = {255.0, 65535.0, 1.0};
    const int depth = static_cast<int>(frame.depth);
    const cv::Mat rgba(frame.height, frame.width, kType[depth], const_cast<unsigned char*>(frame.data.data()),
                       frame.rowBytes());
    // Rec. 709 luma, alpha ignored.
    const cv::Matx14f weights(0.2126f, 0.7152f, 0.0722f, 0.0f);
    cv::Mat luma;
    cv::transform(rgba, luma, weights);
    GreyFrame grey;
    if (frame.depth != PixelDepth::Float) {
        // Integer files hold display-referred codes already.
        luma.convertTo(grey.grey, CV_8U, 255.0 / kWhite[depth]);
    } else {
        // Float frames are linear light, whose shadows 8 bits would crush
        // without the sRGB curve.
        static const SrgbCodes srgb;
        grey.grey.create(luma.size(), CV_8UC1);
        for (int j = 0; j < luma.rows; ++j) {
            const float* in = luma.ptr<float>(j);
            uint8_t* out = grey.grey.ptr<uint8_t>(j);
            for (int i = 0; i < luma.cols; ++i) {
                const float v = in[i] < 1.0f ? in[i] : 1.0f;
                // Written so that NaN goes to black.
                out[i] = v > 0.0f ? srgb.code[static_cast<int>(v * SrgbCodes::kSteps + 0.5f)] : 0;
            }
        }
    }
    grey.grey.convertTo(grey.value, CV_32F);
    return grey;
}

PairEstimator::PairEstimator(const MotionEstimateSettings& settings) : settings_(settings) {}

cv::Mat PairEstimator::denseFlow(const cv::Mat& from, const cv::Mat& to) {
    // Whole frames share one DIS object, whose buffers then fit them; a crop
    // gets its own.
    if (from.size() != frameSize_) {
        cv::Ptr<cv::DISOpticalFlow> fresh = MakeDis(settings_);
        return DenseFlow(*fresh, from, to);
    }
    return DenseFlow(*wholeFrames_, from, to);
}

// Matching cost of `flow`, given for the pixels of `region` of `from`. A
// target off the picture costs more than any difference of grey inside it.
cv::Mat PairEstimator::matchCost(const GreyFrame& from, const GreyFrame& to, const cv::Mat& flow,
                                 cv::Rect region) {
    // Crops work in memory of their own, so as not to resize the frame's.
    cv::Mat cropTargets, cropWarped, cropDifference;
    const bool whole = region.size() == frameSize_;
    cv::Mat& targets = whole ? targets_ : cropTargets;
    cv::Mat& warped = whole ? warped_ : cropWarped;
    cv::Mat& difference = whole ? difference_ : cropDifference;
    FlowTargets(flow, region, targets);
    cv::remap(to.value, warped, targets, cv::noArray(), cv::INTER_LINEAR, cv::BORDER_CONSTANT,
              cv::Scalar(-255.0));
    cv::absdiff(warped, from.value(region), difference);
    cv::Mat cost;
    cv::boxFilter(difference, cost, -1, cv::Size(kCostWindow, kCostWindow), cv::Point(-1, -1), true,
                  cv::BORDER_REPLICATE);
    return cost;
}

// Flow over `region` of `from`, started from `shift`: DIS between the region
// and the same region moved by the shift, which brings a fast object close to
// itself. Each pixel keeps the better of this and `flow` by their costs.
void PairEstimator::tryShiftedFlow(const GreyFrame& from, const GreyFrame& to, cv::Rect region,
                                   cv::Point shift, cv::Mat& flow, cv::Mat& cost) {
    const cv::Rect frame(cv::Point(0, 0), from.grey.size());
    region &= frame & (frame - shift);
    if (region.empty()) return;
    // DIS takes only continuous pictures, hence the copies.
    cv::Mat candidate = denseFlow(from.grey(region).clone(), to.grey(region + shift).clone());
    candidate += cv::Scalar(shift.x, shift.y);
    const cv::Mat candidateCost = matchCost(from, to, candidate, region);
    const cv::Mat better = candidateCost < cost(region);
    candidate.copyTo(flow(region), better);
    candidateCost.copyTo(cost(region), better);
}

// 1 where `flow` and `reverse` at its target cancel to within the settings'
// tolerance; 0 there and where the target leaves the picture.
cv::Mat PairEstimator::consistent(const cv::Mat& flow, const cv::Mat& reverse) {
    FlowTargets(flow, cv::Rect(cv::Point(0, 0), flow.size()), targets_);
    cv::remap(reverse, reverse_, targets_, cv::noArray(), cv::INTER_LINEAR, cv::BORDER_REPLICATE);
    cv::Mat known(flow.size(), CV_8UC1);
    const float right = static_cast<float>(flow.cols) - 0.5f, top = static_cast<float>(flow.rows) - 0.5f;
    const float pixels = settings_.consistencyPixels, fraction = settings_.consistencyFraction;
    cv::parallel_for_(cv::Range(0, flow.rows), [&](const cv::Range& rows) {
        for (int j = rows.start; j < rows.end; ++j) {
            const cv::Vec2f* f = flow.ptr<cv::Vec2f>(j);
            const cv::Vec2f* t = targets_.ptr<cv::Vec2f>(j);
            const cv::Vec2f* r = reverse_.ptr<cv::Vec2f>(j);
            uint8_t* k = known.ptr<uint8_t>(j);
            for (int i = 0; i < flow.cols; ++i) {
                const bool inside =
                    t[i][0] >= -0.5f && t[i][0] <= right && t[i][1] >= -0.5f && t[i][1] <= top;
                const float tolerance = pixels + fraction * std::sqrt(f[i][0] * f[i][0] + f[i][1] * f[i][1]);
                const float mx = f[i][0] + r[i][0], my = f[i][1] + r[i][1];
                // Written so that a NaN anywhere fails the test.
                k[i] = inside && mx * mx + my * my <= tolerance * tolerance;
            }
        }
    });
    return known;
}

PairFlow PairEstimator::estimate(const GreyFrame& a, const GreyFrame& b) {
    if (a.grey.size() != frameSize_) {
        wholeFrames_ = MakeDis(settings_);
        frameSize_ = a.grey.size();
    }
    PairFlow pair;
    pair.forward = denseFlow(a.grey, b.grey);
    pair.backward = denseFlow(b.grey, a.grey);
    if (settings_.largeDisplacements) {
        const cv::Rect whole(cv::Point(0, 0), a.grey.size());
        forwardCost_ = matchCost(a, b, pair.forward, whole);
        backwardCost_ = matchCost(b, a, pair.backward, whole);
        for (const FastObject& object :
             FindFastObjects(a, b, pair.forward, pair.backward, forwardCost_, backwardCost_)) {
            tryShiftedFlow(a, b, object.inA, object.shift, pair.forward, forwardCost_);
            tryShiftedFlow(b, a, object.inB, -object.shift, pair.backward, backwardCost_);
        }
    }
    pair.forwardKnown = consistent(pair.forward, pair.backward);
    pair.backwardKnown = consistent(pair.backward, pair.forward);
    return pair;
}
