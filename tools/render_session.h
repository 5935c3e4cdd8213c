// One plug-in driven through the embedded host for a whole render job: the
// bundle loaded, the effect described and instantiated in the general
// context once, then one frame after another from pixels in memory. The
// command line and the image files stay outside; this is the OFX side.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "image_file.h"

// A numeric parameter the plug-in defined, as a user may set it.
struct ParamInfo {
    std::string name;
    std::string label;
    std::string hint;
    double min = 0.0;
    double max = 0.0;
    double defaultValue = 0.0;
};

struct FrameInputs {
    const HostPixels* source = nullptr;
    const HostPixels* vectors = nullptr;
    double firstFrame = 0.0;  // the Source clip's frame range
    double lastFrame = 0.0;
    double renderScale = 1.0;
};

class RenderSession {
  public:
    // threads: the processor count the host reports (0: the machine's).
    explicit RenderSession(unsigned threads);
    ~RenderSession();
    RenderSession(const RenderSession&) = delete;
    RenderSession& operator=(const RenderSession&) = delete;

    // Loads the first image-effect plug-in of the bundle and makes an
    // instance in the general context; false with a message on failure.
    bool open(const std::string& bundle, std::string& error);
    const std::string& identifier() const;
    // The double parameters the plug-in defined, in its order.
    const std::vector<ParamInfo>& params() const;
    void setParam(const std::string& name, double value);

    // From now on every abort poll of the plug-in answers yes. Safe from
    // any thread.
    void abort();
    // The plug-in's abort polls so far: its only sign of progress inside a frame.
    unsigned long abortPolls() const;
    // What the plug-in told the user through the host since the last call.
    std::vector<std::string> takeMessages();

    // Renders one frame at `time` into `output`, which it sizes and gives
    // the depth the effect's clip preferences chose. False with a message
    // when the plug-in returned an error status.
    bool render(double time, const FrameInputs& inputs, HostPixels& output, std::string& error);

  private:
    struct State;
    std::unique_ptr<State> state_;
};
