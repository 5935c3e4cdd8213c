#include "motion_estimate.h"

#include <map>
#include <new>
#include <opencv2/core.hpp>
#include <opencv2/core/utility.hpp>
#include <utility>

#include "pair_flow.h"

namespace {

// OpenCV reports its failures (out of memory among them) by exception; the
// tools want a message.
template <class Work>
bool Guarded(std::string& error, Work&& work) {
    try {
        work();
        return true;
    } catch (const cv::Exception& e) {
        error = std::string("motion estimation failed: ") + e.what();
    } catch (const std::bad_alloc&) {
        error = "motion estimation ran out of memory";
    }
    return false;
}

std::string SizeText(int width, int height) {
    return std::to_string(width) + "x" + std::to_string(height);
}

// The pixels must be there before OpenCV is pointed at them.
bool Whole(const HostPixels& frame, const std::string& name, std::string& error) {
    if (frame.width <= 0 || frame.height <= 0) {
        error = name + " is empty (" + SizeText(frame.width, frame.height) + ")";
        return false;
    }
    if (frame.data.size() / frame.rowBytes() < static_cast<size_t>(frame.height)) {
        error = name + " holds fewer pixels than its size, " + SizeText(frame.width, frame.height);
        return false;
    }
    return true;
}

// The motion through a frame from the pair before it (its backward flow runs
// from this frame to the previous one) and the pair after it (its forward flow
// runs to the next): the mean of the two where both passed the consistency
// check, the one that did where only one did, a hole where neither did.
void Combine(cv::Size size, const PairFlow* before, const PairFlow* after, RawVectors& motion) {
    motion.width = size.width;
    motion.height = size.height;
    // Every element is written below.
    motion.dx.resize(motion.size());
    motion.dy.resize(motion.size());
    motion.known.resize(motion.size());
    cv::parallel_for_(cv::Range(0, size.height), [&](const cv::Range& rows) {
        for (int j = rows.start; j < rows.end; ++j) {
            const cv::Vec2f* back = before ? before->backward.ptr<cv::Vec2f>(j) : nullptr;
            const uint8_t* backKnown = before ? before->backwardKnown.ptr<uint8_t>(j) : nullptr;
            const cv::Vec2f* ahead = after ? after->forward.ptr<cv::Vec2f>(j) : nullptr;
            const uint8_t* aheadKnown = after ? after->forwardKnown.ptr<uint8_t>(j) : nullptr;
            const size_t row = static_cast<size_t>(j) * static_cast<size_t>(size.width);
            for (int i = 0; i < size.width; ++i) {
                const bool useBack = back && backKnown[i], useAhead = ahead && aheadKnown[i];
                float dx = 0, dy = 0;
                if (useBack && useAhead) {
                    dx = 0.5f * (ahead[i][0] - back[i][0]);
                    dy = 0.5f * (ahead[i][1] - back[i][1]);
                } else if (useAhead) {
                    dx = ahead[i][0];
                    dy = ahead[i][1];
                } else if (useBack) {
                    dx = -back[i][0];
                    dy = -back[i][1];
                }
                motion.dx[row + i] = dx;
                motion.dy[row + i] = dy;
                motion.known[row + i] = useBack || useAhead;
            }
        }
    });
}

}  // namespace

bool estimateMotion(const HostPixels* previous, const HostPixels& current, const HostPixels* next,
                    const MotionEstimateSettings& settings, RawVectors& motion, std::string& error) {
    if (!Whole(current, "the frame", error) || (previous && !Whole(*previous, "the previous frame", error)) ||
        (next && !Whole(*next, "the next frame", error)))
        return false;
    for (const HostPixels* other : {previous, next})
        if (other && (other->width != current.width || other->height != current.height)) {
            error = "a neighbouring frame is " + SizeText(other->width, other->height) +
                    " but the frame is " + SizeText(current.width, current.height);
            return false;
        }
    return Guarded(error, [&] {
        const GreyFrame middle = MakeGreyFrame(current);
        PairEstimator pairs(settings);
        PairFlow before, after;
        if (previous) before = pairs.estimate(MakeGreyFrame(*previous), middle);
        if (next) after = pairs.estimate(middle, MakeGreyFrame(*next));
        Combine(middle.grey.size(), previous ? &before : nullptr, next ? &after : nullptr, motion);
    });
}

struct MotionSequence::Cache {
    int first, last;
    FrameReader reader;
    PairEstimator estimator;
    std::map<int, GreyFrame> frames;
    std::map<int, PairFlow> pairs;  // by the earlier frame of the two
    int sizedBy = 0;                // the frame that set the size all others must have
    cv::Size size;

    const GreyFrame* frame(int number, std::string& error) {
        auto found = frames.find(number);
        if (found != frames.end()) return &found->second;
        HostPixels pixels;
        if (!reader(number, pixels, error) || !Whole(pixels, "frame " + std::to_string(number), error))
            return nullptr;
        const cv::Size got(pixels.width, pixels.height);
        if (size.empty()) {
            size = got;
            sizedBy = number;
        } else if (got != size) {
            error = "frame " + std::to_string(number) + " is " + SizeText(got.width, got.height) +
                    " but frame " + std::to_string(sizedBy) + " is " + SizeText(size.width, size.height);
            return nullptr;
        }
        const GreyFrame* made = nullptr;
        if (!Guarded(error, [&] { made = &frames.emplace(number, MakeGreyFrame(pixels)).first->second; }))
            return nullptr;
        return made;
    }

    const PairFlow* pair(int earlier, std::string& error) {
        auto found = pairs.find(earlier);
        if (found != pairs.end()) return &found->second;
        const GreyFrame* a = frame(earlier, error);
        const GreyFrame* b = a ? frame(earlier + 1, error) : nullptr;
        if (!b) return nullptr;
        const PairFlow* made = nullptr;
        if (!Guarded(error,
                     [&] { made = &pairs.emplace(earlier, estimator.estimate(*a, *b)).first->second; }))
            return nullptr;
        return made;
    }

    // Keeps what the frames next to `number` may still need, either way.
    void forgetAllBut(int number) {
        for (auto it = frames.begin(); it != frames.end();)
            it = it->first < number - 1 || it->first > number + 1 ? frames.erase(it) : std::next(it);
        for (auto it = pairs.begin(); it != pairs.end();)
            it = it->first < number - 1 || it->first > number ? pairs.erase(it) : std::next(it);
    }
};

MotionSequence::MotionSequence(int first, int last, FrameReader reader,
                               const MotionEstimateSettings& settings)
    : cache_(new Cache{first, last, std::move(reader), PairEstimator(settings), {}, {}, 0, {}}) {}

MotionSequence::~MotionSequence() = default;

bool MotionSequence::motionAt(int frame, RawVectors& motion, std::string& error) {
    Cache& c = *cache_;
    if (frame < c.first || frame > c.last) {
        error = "frame " + std::to_string(frame) + " is outside the sequence " + std::to_string(c.first) +
                "-" + std::to_string(c.last);
        return false;
    }
    const GreyFrame* middle = c.frame(frame, error);
    if (!middle) return false;
    const PairFlow* before = nullptr;
    const PairFlow* after = nullptr;
    if (frame > c.first && !(before = c.pair(frame - 1, error))) return false;
    if (frame < c.last && !(after = c.pair(frame, error))) return false;
    const bool done = Guarded(error, [&] { Combine(middle->grey.size(), before, after, motion); });
    c.forgetAllBut(frame);
    return done;
}
