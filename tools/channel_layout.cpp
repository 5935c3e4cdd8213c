#include "channel_layout.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>

#include "header_check.h"

std::string channelIn(const std::string& layer, const std::string& channel) {
    return layer.empty() ? channel : layer + "." + channel;
}

bool ChannelLayout::read(const std::string& path, std::string& error) {
    path_ = path;
    headers_.clear();
    struct stat info;
    if (stat(path.c_str(), &info) != 0) {
        error = path + ": " + std::strerror(errno);
        return false;
    }
    if (!checkExrHeader(path, error)) return false;
    std::unique_ptr<OIIO::ImageInput> in = OIIO::ImageInput::open(path);
    if (!in) {
        error = path + ": cannot read it as an image (" + OIIO::geterror() + ")";
        return false;
    }
    read(*in, path);
    if (headers_.empty()) {
        error = path + ": holds no image";
        return false;
    }
    for (const OIIO::ImageSpec& header : headers_) {
        if (!checkFrameSize(path, header.width, header.height, error)) return false;
        if (!checkParsedTiles(path, in->format_name(), header.tile_width, header.tile_height, error))
            return false;
    }
    return true;
}

void ChannelLayout::read(OIIO::ImageInput& file, const std::string& path) {
    path_ = path;
    headers_.clear();
    OIIO::ImageSpec header;
    for (int part = 0; file.seek_subimage(part, 0, header); ++part) headers_.push_back(header);
    (void)file.geterror();  // seeking past the last part is how the end is found, not an error
}

std::vector<std::string> ChannelLayout::qualifiedNames() const {
    std::vector<std::string> names;
    for (const OIIO::ImageSpec& header : headers_) {
        const std::string part = headers_.size() > 1 ? header.get_string_attribute("oiio:subimagename") : "";
        for (const std::string& channel : header.channelnames)
            names.push_back(part.empty() || channel.rfind(part + ".", 0) == 0 ? channel
                                                                              : part + "." + channel);
    }
    return names;
}

bool ChannelLayout::find(const std::string& name, int& part, int& channel) const {
    const std::vector<std::string> qualified = qualifiedNames();
    size_t i = 0;
    for (size_t p = 0; p < headers_.size(); ++p)
        for (size_t c = 0; c < headers_[p].channelnames.size(); ++c, ++i)
            if (headers_[p].channelnames[c] == name || qualified[i] == name) {
                part = static_cast<int>(p);
                channel = static_cast<int>(c);
                return true;
            }
    return false;
}

bool ChannelLayout::has(const std::string& name) const {
    int part, channel;
    return find(name, part, channel);
}

bool ChannelLayout::resolve(const std::vector<std::string>& names, int& part, std::vector<int>& channels,
                            std::string& error) const {
    channels.clear();
    part = -1;
    if (names.empty()) {
        error = path_ + ": no channel named to read";
        return false;
    }
    std::string missing;
    int missingCount = 0;
    for (const std::string& name : names) {
        int p = 0, c = 0;
        if (!find(name, p, c)) {
            missing += (missing.empty() ? "" : ", ") + name;
            ++missingCount;
            continue;
        }
        if (part >= 0 && p != part) {
            error = path_ + ": channels " + names.front() + " and " + name +
                    " are in different parts of the file; pick channels of one part";
            return false;
        }
        part = p;
        channels.push_back(c);
    }
    if (!missing.empty()) {
        error = path_ + (missingCount == 1 ? " has no channel " : " has no channels ") + missing;
        return false;
    }
    return true;
}

std::string ChannelLayout::listing() const {
    // Layers in the order their first channel appears.
    std::vector<std::pair<std::string, std::string>> layers;
    for (const std::string& name : qualifiedNames()) {
        const size_t dot = name.find_last_of('.');
        const std::string layer = dot == std::string::npos ? "" : name.substr(0, dot);
        const std::string channel = dot == std::string::npos ? name : name.substr(dot + 1);
        auto it = std::find_if(layers.begin(), layers.end(), [&](const auto& l) { return l.first == layer; });
        if (it == layers.end())
            layers.emplace_back(layer, channel);
        else
            it->second += ", " + channel;
    }
    std::string text;
    for (const auto& layer : layers)
        text += "    " + (layer.first.empty() ? std::string("(no layer)") : layer.first) + ": " +
                layer.second + "\n";
    return text;
}

std::vector<std::string> ChannelLayout::layersWith(const std::vector<std::string>& suffixes) const {
    std::vector<std::string> found;
    if (suffixes.empty()) return found;
    const std::string& first = suffixes.front();
    for (const std::string& name : qualifiedNames()) {
        std::string layer;
        if (name == first)
            layer = "";
        else if (name.size() > first.size() + 1 &&
                 name.compare(name.size() - first.size(), first.size(), first) == 0 &&
                 name[name.size() - first.size() - 1] == '.')
            layer = name.substr(0, name.size() - first.size() - 1);
        else
            continue;
        bool all = true;
        for (const std::string& suffix : suffixes) all = all && has(channelIn(layer, suffix));
        if (all && std::find(found.begin(), found.end(), layer) == found.end()) found.push_back(layer);
    }
    return found;
}
