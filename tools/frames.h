// Frame sequences on disk: file names with a frame-number pattern ("####" or a
// printf-style "%04d") and the frame lists a user types ("1-100", "1-100x2",
// "7", "1,5,10-12"). Kept apart from the renderer so that the rules a render
// farm relies on can be tested without images.
#pragma once

#include <string>
#include <vector>

// A path with at most one frame-number pattern in its file name.
class SequencePath {
  public:
    // Gives false with a message naming the path when it holds more than one
    // pattern or a malformed printf field.
    bool parse(const std::string& path, std::string& error);

    bool isSequence() const { return padding_ > 0; }
    const std::string& path() const { return path_; }
    // The path of one frame: the number zero-padded to the pattern's width
    // (a negative frame keeps its sign in front of the padding). A single
    // file gives its own path for every frame.
    std::string frame(int number) const;
    // The frames of this sequence that exist in its folder, ascending.
    std::vector<int> framesOnDisk() const;

  private:
    std::string path_;
    std::string prefix_, suffix_;
    int padding_ = 0;  // 0: not a sequence
};

// "7", "1-100", "1-100x2", "10-1" (backwards), comma-separated lists of
// those. Gives false with a message naming the text for anything else: an
// empty item, a step of 0 or below, a frame out of +-99999999. A frame
// named twice renders once, where it first appears.
bool parseFrames(const std::string& text, std::vector<int>& frames, std::string& error);
