// The names the host knows the effect by: its clips, its parameters, and the
// per-clip properties OFX spells with a clip's name. Every action takes them
// from here, so a name is written once.
#pragma once

#include "ofxImageEffect.h"

// Clips.
inline constexpr const char* kSourceClip = kOfxImageEffectSimpleSourceClipName;  // "Source"
inline constexpr const char* kMotionVectorsClip = "Motion Vectors";
inline constexpr const char* kOutputClip = kOfxImageEffectOutputClipName;  // "Output"

// The four numeric parameters, in the order the page lists them.
inline constexpr const char* kAmountParam = "valMBAmount";
inline constexpr const char* kMaxDisplaceParam = "valMaxDisplace";
inline constexpr const char* kVectorScaleXParam = "valVecScaleX";
inline constexpr const char* kVectorScaleYParam = "valVecScaleY";

// The licence layer's hidden data parameter, on the hosts that get it, and the page.
inline constexpr const char* kCustomDataParam = "QFXCustomData";
inline constexpr const char* kCustomDataScriptName = "CustomData_DoNotEdit";
inline constexpr const char* kMainPage = "Main";

// Per-clip properties of the region-of-interest, frames-needed and
// clip-preference answers.
inline constexpr const char* kSourceRoIProperty = "OfxImageClipPropRoI_Source";
inline constexpr const char* kOutputRoIProperty = "OfxImageClipPropRoI_Output";
inline constexpr const char* kMotionVectorsRoIProperty = "OfxImageClipPropRoI_Motion Vectors";
inline constexpr const char* kSourceFramesProperty = "OfxImageClipPropFrameRange_Source";
inline constexpr const char* kMotionVectorsFramesProperty = "OfxImageClipPropFrameRange_Motion Vectors";
inline constexpr const char* kOutputComponentsProperty = "OfxImageClipPropComponents_Output";
inline constexpr const char* kOutputDepthProperty = "OfxImageClipPropDepth_Output";
