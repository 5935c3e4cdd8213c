// The image library's error codes. They are returned and also thrown by value:
// a failure deep in the library throws the PLErr itself, and the only handlers
// are the row workers (which store it), the engine entry and the render action.
#pragma once

#include <cstdint>

enum PLErr : int32_t {
    PLErrNone = 0,
    PLErrOutOfMemory = 1,
    PLErrBadHandle = 2,
    PLErrBadHandleAlt = 3,
    PLErrBadIndex = 4,
    PLErrFailed = 5,
    PLErrAborted = 6,
    PLErrNoFrame = 7,
};

static_assert(sizeof(PLErr) == 4, "PLErr travels as a 32-bit value");
