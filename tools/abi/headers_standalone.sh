#!/bin/sh
# Compiles each OFX header on its own, as C99 and as C++17, checks that each
# header provides the macros code written against the standard set expects
# from it, and that the entry points keep C linkage when defined in C++.
# Usage: headers_standalone.sh INCLUDE_DIR   (exit status non-zero on failure)
set -u

if [ $# -ne 1 ] || [ ! -f "$1/ofxCore.h" ]; then
    echo "usage: $0 INCLUDE_DIR (the folder holding ofxCore.h)" >&2
    exit 2
fi
inc=$1
CC=${CC:-gcc}
CXX=${CXX:-g++}
tmp=$(mktemp -d) || exit 2
trap 'rm -rf "$tmp"' EXIT INT TERM
failures=0

fail() {
    echo "FAIL: $*" >&2
    failures=$((failures + 1))
}

compile() { # LANG FILE
    case $1 in
    c) "$CC" -std=c99 -pedantic -Wall -Wextra -Werror -fsyntax-only -I "$inc" -x c "$2" ;;
    c++) "$CXX" -std=c++17 -pedantic -Wall -Wextra -Werror -fsyntax-only -I "$inc" -x c++ "$2" ;;
    esac
}

headers="ofxCore.h ofxProperty.h ofxParam.h ofxImageEffect.h ofxMemory.h ofxMultiThread.h ofxMessage.h ofxInteract.h ofxOld.h"

for h in $headers; do
    src=$tmp/standalone.c
    : >"$src"
    # ofxMemory.h includes nothing, as in the standard set; it relies on ofxCore.h.
    [ "$h" = ofxMemory.h ] && echo '#include "ofxCore.h"' >>"$src"
    # Twice, to exercise the include guard.
    printf '#include "%s"\n#include "%s"\n' "$h" "$h" >>"$src"
    # ofxOld.h holds only macros; pedantic C rejects an empty unit.
    echo 'typedef int standalone_nonempty;' >>"$src"
    for lang in c c++; do
        compile "$lang" "$src" || fail "$h does not compile on its own as $lang"
    done
done

# Macro placement: header, then macros it must define by itself. The suite
# names of other headers stand for the includes each header must make.
while read -r h macros; do
    [ -z "$h" ] && continue
    src=$tmp/placement.c
    : >"$src"
    [ "$h" = ofxMemory.h ] && echo '#include "ofxCore.h"' >>"$src"
    echo "#include \"$h\"" >>"$src"
    for m in $macros; do
        printf '#ifndef %s\n#error %s missing from %s\n#endif\n' "$m" "$m" "$h" >>"$src"
    done
    echo 'typedef int placement_nonempty;' >>"$src"
    compile c "$src" || fail "macros missing from $h"
done <<'TABLE'
ofxCore.h kOfxStatOK kOfxStatFailed kOfxStatErrFatal kOfxStatErrUnknown kOfxStatErrMissingHostFeature kOfxStatErrUnsupported kOfxStatErrExists kOfxStatErrFormat kOfxStatErrMemory kOfxStatErrBadHandle kOfxStatErrBadIndex kOfxStatErrValue kOfxStatReplyYes kOfxStatReplyNo kOfxStatReplyDefault kOfxActionCreateInstance kOfxActionDescribe kOfxActionDestroyInstance kOfxActionInstanceChanged kOfxActionLoad kOfxActionSyncPrivateData kOfxActionUnload kOfxBitDepthByte kOfxBitDepthFloat kOfxBitDepthShort kOfxChangeUserEdited kOfxPropChangeReason kOfxPropLabel kOfxPropName kOfxPropPluginDescription kOfxPropTime kOfxPropType OfxExport
ofxProperty.h kOfxPropertySuite
ofxParam.h kOfxPropertySuite kOfxParameterSuite kOfxParamTypeCustom kOfxParamTypeDouble kOfxParamTypePage kOfxParamTypeString kOfxParamDoubleTypeScale kOfxParamPropDefault kOfxParamPropDisplayMax kOfxParamPropDisplayMin kOfxParamPropDoubleType kOfxParamPropEnabled kOfxParamPropEvaluateOnChange kOfxParamPropHint kOfxParamPropMax kOfxParamPropMin kOfxParamPropPageChild kOfxParamPropPersistant kOfxParamPropScriptName kOfxParamPropSecret
ofxMemory.h kOfxMemorySuite
ofxMultiThread.h kOfxMultiThreadSuite
ofxMessage.h kOfxMessageSuite kOfxMessageError kOfxMessageLog kOfxMessageMessage
ofxInteract.h kOfxInteractSuite
ofxOld.h kOfxImageEffectPropInAnalysis
ofxImageEffect.h kOfxParameterSuite kOfxInteractSuite kOfxMessageSuite kOfxMemorySuite kOfxMultiThreadSuite kOfxStatErrImageFormat kOfxImageEffectPluginApi kOfxImageEffectPluginApiVersion kOfxImageEffectSuite kOfxImageEffectActionDescribeInContext kOfxImageEffectActionGetClipPreferences kOfxImageEffectActionGetFramesNeeded kOfxImageEffectActionGetRegionOfDefinition kOfxImageEffectActionGetRegionsOfInterest kOfxImageEffectActionGetTimeDomain kOfxImageEffectActionIsIdentity kOfxImageEffectActionRender kOfxImageEffectContextGeneral kOfxImageEffectOutputClipName kOfxImageEffectSimpleSourceClipName kOfxImageComponentAlpha kOfxImageComponentRGBA kOfxImageUnPreMultiplied kOfxImageEffectRenderFullySafe kOfxImageFieldBoth kOfxImageClipPropConnected kOfxImageClipPropFieldExtraction kOfxImageClipPropOptional kOfxImageClipPropUnmappedComponents kOfxImageClipPropUnmappedPixelDepth kOfxImageEffectHostPropIsBackground kOfxImageEffectInstancePropSequentialRender kOfxImageEffectPluginPropFieldRenderTwiceAlways kOfxImageEffectPluginPropGrouping kOfxImageEffectPluginPropHostFrameThreading kOfxImageEffectPluginPropSingleInstance kOfxImageEffectPluginRenderThreadSafety kOfxImageEffectPropComponents kOfxImageEffectPropContext kOfxImageEffectPropFrameRange kOfxImageEffectPropPixelDepth kOfxImageEffectPropPreMultiplication kOfxImageEffectPropRegionOfDefinition kOfxImageEffectPropRegionOfInterest kOfxImageEffectPropRenderScale kOfxImageEffectPropRenderWindow kOfxImageEffectPropSupportedComponents kOfxImageEffectPropSupportedContexts kOfxImageEffectPropSupportedPixelDepths kOfxImageEffectPropSupportsMultiResolution kOfxImageEffectPropSupportsMultipleClipDepths kOfxImageEffectPropSupportsMultipleClipPARs kOfxImageEffectPropSupportsTiles kOfxImageEffectPropTemporalClipAccess kOfxImagePropBounds kOfxImagePropData kOfxImagePropRowBytes
TABLE

# The entry points, defined in C++ with the declarations in scope, must come
# out under their plain names for dlsym.
cat >"$tmp/entry.cpp" <<'SRC'
#include "ofxImageEffect.h"
static OfxPlugin plugin;
int OfxGetNumberOfPlugins(void) { return 1; }
OfxPlugin *OfxGetPlugin(int) { return &plugin; }
SRC
if "$CXX" -std=c++17 -Wall -Wextra -Werror -c -I "$inc" -o "$tmp/entry.o" "$tmp/entry.cpp"; then
    for sym in OfxGetNumberOfPlugins OfxGetPlugin; do
        nm -g --defined-only "$tmp/entry.o" | awk '{print $3}' | grep -qx "$sym" ||
            fail "$sym is not defined under its unmangled name (missing extern \"C\"?)"
    done
else
    fail "entry point definitions do not compile as C++"
fi

if [ "$failures" -ne 0 ]; then
    echo "$failures check(s) failed" >&2
    exit 1
fi
echo "OFX headers: all standalone checks passed"
