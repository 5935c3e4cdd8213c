// What channels an image file holds and where, for picking them by name: a
// multilayer EXR from a renderer keeps its beauty and its passes side by
// side as "ViewLayer.Combined.R", "ViewLayer.Vector.X", ..., a multi-part
// EXR puts each layer in a part of its own. Reading only the headers, so a
// job can check every frame's file before it renders the first.
#pragma once

#include <OpenImageIO/imageio.h>

#include <string>
#include <vector>

class ChannelLayout {
  public:
    // Reads the headers of every part. False with a message naming the file
    // when it is missing, no image, or refused by the header checks.
    bool read(const std::string& path, std::string& error);
    // The same from a file already open.
    void read(OIIO::ImageInput& file, const std::string& path);

    const std::string& path() const { return path_; }
    int parts() const { return static_cast<int>(headers_.size()); }
    const OIIO::ImageSpec& header(int part = 0) const { return headers_[static_cast<size_t>(part)]; }

    // A channel by its full name, or by "<part name>.<channel>" in a
    // multi-part file. False when the file has none.
    bool find(const std::string& name, int& part, int& channel) const;
    bool has(const std::string& name) const;

    // The channels named, all from one part: their part and indices. False
    // with a message naming the file and what is missing (the caller adds
    // the listing and the option to use).
    bool resolve(const std::vector<std::string>& names, int& part, std::vector<int>& channels,
                 std::string& error) const;

    // Layers with their channels, one indented line each, for messages:
    // "    ViewLayer.Combined: R, G, B, A".
    std::string listing() const;
    // Layers that hold every one of the given channel suffixes, in file
    // order: layersWith({"R", "G", "B"}) finds pictures, layersWith({"Vector.X",
    // ...}) a renderer's motion pass. A layer of "" stands for unprefixed channels.
    std::vector<std::string> layersWith(const std::vector<std::string>& suffixes) const;

  private:
    // The channel names of every part as a user writes them: prefixed by the
    // part's name where the channel's own name isn't.
    std::vector<std::string> qualifiedNames() const;

    std::string path_;
    std::vector<OIIO::ImageSpec> headers_;
};

// "a.b" from a layer and a channel name; the channel alone for the layer "".
std::string channelIn(const std::string& layer, const std::string& channel);
