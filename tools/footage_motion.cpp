#include "footage_motion.h"

#include <map>
#include <opencv2/core/utility.hpp>
#include <utility>

namespace {

class FootageSource : public MotionSource {
  public:
    FootageSource(const SequencePath& footage, const std::vector<std::string>& channels, int first, int last,
                  const MotionEstimateSettings& settings)
        : footage_(footage), channels_(channels), first_(first), last_(last), settings_(settings) {}

    bool read(int frame, double scale, RawVectors& motion, std::string& error) override {
        // The sequence works at one scale: the first frame asked for sets it.
        if (!sequence_) {
            scale_ = scale;
            sequence_ = std::make_unique<MotionSequence>(
                first_, last_,
                [this](int number, HostPixels& pixels, std::string& why) {
                    if (!readHostPixels(footage_.frame(number), {scale_, false, channels_}, pixels, why))
                        return false;
                    // Kept for takePicture: the frame just read and the one before.
                    pictures_.erase(pictures_.begin(), pictures_.lower_bound(number - 1));
                    pictures_.erase(pictures_.upper_bound(number + 1), pictures_.end());
                    pictures_[number] = pixels;
                    return true;
                },
                settings_);
        } else if (scale != scale_) {
            error = "motion of " + footage_.path() + " asked for at two scales";
            return false;
        }
        if (!sequence_->motionAt(frame, motion, error)) return false;
        // Estimated on the scaled frames; a MotionSource speaks in pixels of the full frame.
        if (scale_ != 1.0) {
            const float toFull = static_cast<float>(1.0 / scale_);
            for (size_t i = 0; i < motion.size(); ++i) {
                motion.dx[i] *= toFull;
                motion.dy[i] *= toFull;
            }
        }
        return true;
    }

    bool takePicture(int frame, HostPixels& picture) override {
        const auto found = pictures_.find(frame);
        if (found == pictures_.end()) return false;
        picture = std::move(found->second);
        pictures_.erase(found);
        return true;
    }

    std::string name(int frame) const override { return "the motion estimated for " + footage_.frame(frame); }

    std::string whyNoneKnown() const override {
        return "the consistency check failed everywhere; the frame does not match its neighbours (a cut, a "
               "flash, or no texture to follow)";
    }

  private:
    SequencePath footage_;
    std::vector<std::string> channels_;
    int first_, last_;
    MotionEstimateSettings settings_;
    double scale_ = 1.0;
    std::unique_ptr<MotionSequence> sequence_;
    std::map<int, HostPixels> pictures_;  // frames read, by number
};

}  // namespace

std::unique_ptr<MotionSource> footageMotionSource(const SequencePath& footage,
                                                  const std::vector<std::string>& channels, int first,
                                                  int last, const MotionEstimateSettings& settings) {
    return std::make_unique<FootageSource>(footage, channels, first, last, settings);
}

MotionEstimateSettings estimateSettingsFor(const std::string& preset) {
    MotionEstimateSettings settings;
    if (preset == "ultrafast") settings.preset = FlowPreset::UltraFast;
    if (preset == "fast") settings.preset = FlowPreset::Fast;
    return settings;
}

void keepOpenCvSerialUnderThreadSanitizer() {
#if defined(__SANITIZE_THREAD__)
    cv::setNumThreads(1);
#endif
}
