#include "flow_preview.h"

#include <cmath>
#include <cstring>
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

HostPixels flowColours(const RawVectors& motion, double maxDisplace) {
    // Hue in degrees, saturation and value in 0..1: OpenCV's float HSV.
    cv::Mat hsv(motion.height, motion.width, CV_32FC3);
    const float scale = maxDisplace > 0.0 ? static_cast<float>(1.0 / maxDisplace) : 0.0f;
    for (int j = 0; j < motion.height; ++j) {
        cv::Vec3f* row = hsv.ptr<cv::Vec3f>(j);
        for (int i = 0; i < motion.width; ++i) {
            const size_t k =
                static_cast<size_t>(j) * static_cast<size_t>(motion.width) + static_cast<size_t>(i);
            const float dx = motion.dx[k], dy = motion.dy[k];
            if (!motion.isKnown(k) || !std::isfinite(dx) || !std::isfinite(dy)) {
                row[i] = cv::Vec3f(0.0f, 0.0f, 0.0f);
                continue;
            }
            // cv::fastAtan2 gives degrees in [0, 360); y is up, so up reads as up.
            row[i] = cv::Vec3f(cv::fastAtan2(dy, dx), std::min(1.0f, std::hypot(dx, dy) * scale), 1.0f);
        }
    }
    cv::Mat rgb, rgba;
    cv::cvtColor(hsv, rgb, cv::COLOR_HSV2RGB);
    rgb.convertTo(rgb, CV_8U, 255.0);
    cv::cvtColor(rgb, rgba, cv::COLOR_RGB2RGBA);
    HostPixels picture;
    picture.width = motion.width;
    picture.height = motion.height;
    picture.depth = PixelDepth::Byte;
    picture.alpha = AlphaState::Opaque;
    picture.data.resize(picture.rowBytes() * static_cast<size_t>(picture.height));
    for (int j = 0; j < motion.height; ++j)
        std::memcpy(picture.data.data() + static_cast<size_t>(j) * picture.rowBytes(), rgba.ptr(j),
                    picture.rowBytes());
    return picture;
}

bool writeFlowPreview(const RawVectors& motion, double maxDisplace, const std::string& path,
                      std::string& error) {
    return writeHostPixels(path, flowColours(motion, maxDisplace), {"8", ""}, error);
}
