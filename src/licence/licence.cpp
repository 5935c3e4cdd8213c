#include "licence/licence.h"

#include <cstdlib>
#include <cstring>

bool TrelvoLicenceGranted() {
    const char* demo = std::getenv("TRELVO_DEMO");
    return !(demo && std::strcmp(demo, "1") == 0);
}

void TrelvoLicenceRelease() {
    // Nothing is held: the licence is granted without files, keys or a service.
}
