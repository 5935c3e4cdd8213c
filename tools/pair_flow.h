// The flows between two neighbouring frames, both ways, with the pixels where
// each is consistent with the other: what the motion estimator computes once
// per pair and shares between the pair's two frames. Internal to
// motion_estimate.cpp, apart for its tests.
#pragma once

#include <opencv2/core.hpp>
#include <opencv2/video/tracking.hpp>

#include "motion_estimate.h"

// A frame as the flow sees it: 8-bit grey (what DIS takes) and the same
// values in float (for matching costs), rows in the order of the source.
struct GreyFrame {
    cv::Mat grey;   // CV_8UC1
    cv::Mat value;  // CV_32FC1
};

GreyFrame MakeGreyFrame(const HostPixels& frame);

struct PairFlow {
    cv::Mat forward, backward;            // CV_32FC2: a to b at a's pixels, b to a at b's pixels
    cv::Mat forwardKnown, backwardKnown;  // CV_8UC1: 1 where the flow passed the consistency check
};

// Estimates the pairs of one sequence, or of one frame's neighbours: frames of
// one size, whose working memory it keeps from pair to pair (a 1080p pair
// needs some 100 MB of buffers; getting them afresh from the system every
// time costs as much as a flow).
class PairEstimator {
  public:
    explicit PairEstimator(const MotionEstimateSettings& settings);

    // Throws cv::Exception (OpenCV's failures, out of memory).
    PairFlow estimate(const GreyFrame& a, const GreyFrame& b);

  private:
    cv::Mat denseFlow(const cv::Mat& from, const cv::Mat& to);
    cv::Mat matchCost(const GreyFrame& from, const GreyFrame& to, const cv::Mat& flow, cv::Rect region);
    void tryShiftedFlow(const GreyFrame& from, const GreyFrame& to, cv::Rect region, cv::Point shift,
                        cv::Mat& flow, cv::Mat& cost);
    cv::Mat consistent(const cv::Mat& flow, const cv::Mat& reverse);

    MotionEstimateSettings settings_;
    cv::Size frameSize_;
    cv::Ptr<cv::DISOpticalFlow> wholeFrames_;  // for frames of frameSize_, whose buffers it keeps
    cv::Mat targets_, warped_, difference_, reverse_, forwardCost_, backwardCost_;
};
