// The user's vector scale, applied to the filled flow image so that decoded and
// filled vectors are scaled alike. No short cut for a factor of 1 and no clamp:
// 0 and negative factors go straight through.
#include "vectors/scale_flow.h"

#include "image/pixel_format.h"
#include "mp/isa_rows.h"
#include "mp/kqmp.h"

namespace {

PL_INLINE_HOT void ScaleFlowRows(int32_t, bool, int32_t firstRow, int32_t lastRow, kqmp_args* args) {
    const PLImage* flow = args->next<PLImage*>();
    const float scaleX = *args->next<const float*>();
    const float scaleY = *args->next<const float*>();
    for (int32_t y = firstRow; y <= lastRow; ++y) {
        uint8_t* p = flow->Row(y);
        for (int32_t x = 0; x < flow->width; ++x, p += 2 * sizeof(float)) {
            PLStoreElement<float>(p, PLLoadElement<float>(p) * scaleX);
            PLStoreElement<float>(p + sizeof(float), PLLoadElement<float>(p + sizeof(float)) * scaleY);
        }
    }
}

}  // namespace

void PLScaleFlow(float scaleX, float scaleY, PLImage* flow) {
    if (!flow || flow->pixelType != PLPixelFloat || flow->numChannels != 2) return;
    kqmp_runrows(flow->height, kqmp_forisa<ScaleFlowRows>(), flow, &scaleX, &scaleY);
}
