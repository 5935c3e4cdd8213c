// The two functions that an OFX host looks up by name in the module.
#include "shell/ofx_plugin.h"

extern "C" {

__attribute__((visibility("default"))) int OfxGetNumberOfPlugins(void) {
    return 1;
}

__attribute__((visibility("default"))) OfxPlugin* OfxGetPlugin(int nth) {
    return nth == 0 ? &pluginRecord : nullptr;
}

}  // extern "C"
