// Motion estimated from the Source footage itself (--vectors estimate), as a
// MotionSource: the frames of the sequence read as the Source is read (same
// channels, same proxy scale), their motion estimated by a MotionSequence over
// the whole footage, so a frame's neighbours outside the frames wanted still
// count and only the footage's first and last frame are one-sided.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "frames.h"
#include "motion_estimate.h"
#include "motion_source.h"

// `footage` names the frames; `channels` are the Source's ReadSettings
// channels; `first`..`last` is the footage's range on disk.
std::unique_ptr<MotionSource> footageMotionSource(const SequencePath& footage,
                                                  const std::vector<std::string>& channels, int first,
                                                  int last, const MotionEstimateSettings& settings = {});

// The settings --estimate-preset names ("" for the defaults).
MotionEstimateSettings estimateSettingsFor(const std::string& preset);

// Under the thread sanitizer OpenCV's parallel loops run on TBB, whose
// synchronisation the sanitizer cannot see: the tools then keep OpenCV on
// the calling thread. Nothing in other builds.
void keepOpenCvSerialUnderThreadSanitizer();
