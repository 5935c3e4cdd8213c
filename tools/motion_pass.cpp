#include "motion_pass.h"

#include <cmath>

#include "image_file.h"

void convertMotionPass(const MotionPass& pass, int width, int height, const std::vector<const float*>& planes,
                       RawVectors& motion) {
    motion.width = width;
    motion.height = height;
    const size_t count = motion.size();
    motion.dx.assign(count, 0.0f);
    motion.dy.assign(count, 0.0f);
    motion.known.clear();
    const float* mask = pass.kind == MotionPass::Kind::Components && planes.size() > 2 ? planes[2] : nullptr;
    const float flip = pass.flipY ? -1.0f : 1.0f;
    const float scale = static_cast<float>(pass.scale);
    std::vector<uint8_t> known(count, 1);
    bool holes = false;
    for (size_t i = 0; i < count; ++i) {
        float dx, dy;
        if (pass.kind == MotionPass::Kind::BlenderVector) {
            dx = -0.5f * (planes[0][i] + planes[2][i]);
            dy = -0.5f * (planes[1][i] + planes[3][i]);
        } else {
            dx = planes[0][i];
            dy = planes[1][i];
        }
        // A NaN mask fails the test too.
        if ((mask && !(mask[i] >= 0.5f)) || !std::isfinite(dx) || !std::isfinite(dy)) {
            known[i] = 0;
            holes = true;
            continue;
        }
        motion.dx[i] = dx * scale;
        motion.dy[i] = flip * dy * scale;
    }
    if (holes) motion.known = std::move(known);
}

bool readMotionPass(const std::string& path, const MotionPass& pass, double scale, RawVectors& motion,
                    std::string& error) {
    ChannelPlanes read;
    if (!readChannelPlanes(path, pass.channels, scale, read, error)) return false;
    std::vector<const float*> planes;
    for (const std::vector<float>& plane : read.planes) planes.push_back(plane.data());
    convertMotionPass(pass, read.width, read.height, planes, motion);
    return true;
}

namespace {

class PassSource : public MotionSource {
  public:
    PassSource(const SequencePath& files, const MotionPass& pass) : files_(files), pass_(pass) {}
    bool read(int frame, double scale, RawVectors& motion, std::string& error) override {
        return readMotionPass(files_.frame(frame), pass_, scale, motion, error);
    }
    std::string name(int frame) const override { return files_.frame(frame); }
    std::string whyNoneKnown() const override {
        if (pass_.kind == MotionPass::Kind::Components && pass_.channels.size() > 2)
            return "its mask channel " + pass_.channels[2] +
                   " is below 0.5 everywhere, or its vectors are not finite";
        return "none of its vectors is finite";
    }

  private:
    SequencePath files_;
    MotionPass pass_;
};

}  // namespace

std::unique_ptr<MotionSource> motionPassSource(const SequencePath& files, const MotionPass& pass) {
    return std::make_unique<PassSource>(files, pass);
}
