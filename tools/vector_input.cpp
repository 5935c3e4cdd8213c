#include "vector_input.h"

#include <algorithm>
#include <cctype>
#include <map>
#include <set>

#include "channel_layout.h"
#include "image_file.h"
#include "motion_pass.h"

namespace {

std::vector<std::string> splitNames(const std::string& text) {
    std::vector<std::string> names;
    size_t start = 0;
    for (;;) {
        const size_t comma = text.find(',', start);
        names.push_back(text.substr(start, comma == std::string::npos ? std::string::npos : comma - start));
        if (comma == std::string::npos) return names;
        start = comma + 1;
    }
}

std::string joinNames(const std::vector<std::string>& names, const char* separator = ", ") {
    std::string text;
    for (const std::string& name : names) text += (text.empty() ? "" : separator) + name;
    return text;
}

const std::vector<std::string> kBlenderVector = {"Vector.X", "Vector.Y", "Vector.Z", "Vector.W"};

// Headers read once per file, however many frames or roles name it.
class Layouts {
  public:
    const ChannelLayout* get(const std::string& path, std::string& error) {
        auto it = read_.find(path);
        if (it != read_.end()) return &it->second;
        ChannelLayout layout;
        if (!layout.read(path, error)) return nullptr;
        return &read_.emplace(path, std::move(layout)).first->second;
    }

  private:
    std::map<std::string, ChannelLayout> read_;
};

std::string listingOf(const ChannelLayout& layout) {
    return " Its layers and channels:\n" + layout.listing();
}

// The picture layers of a file, a renderer's beauty first.
std::vector<std::string> pictureLayers(const ChannelLayout& layout) {
    std::vector<std::string> layers = layout.layersWith({"R", "G", "B"});
    std::stable_partition(layers.begin(), layers.end(), [](const std::string& l) {
        return l.size() >= 8 && l.compare(l.size() - 8, 8, "Combined") == 0;
    });
    return layers;
}

// R, G, B (and A where the layer has it) of a layer, or nothing.
std::vector<std::string> layerChannels(const ChannelLayout& layout, const std::string& layer) {
    std::vector<std::string> names;
    for (const char* c : {"R", "G", "B", "A"}) names.push_back(channelIn(layer, c));
    if (!layout.has(names[3])) names[3].clear();
    return names;
}

// Checks a file against the channels chosen from the first frame: empty
// names mean the file's own RGBA layout.
bool fits(const ChannelLayout& layout, const std::vector<std::string>& names, std::string& error) {
    if (names.empty()) {
        int order[4];
        bool hasAlpha;
        if (defaultChannelOrder(layout.header(), order, hasAlpha)) return true;
        error = layout.path() + " is not an RGB, RGBA, Y or YA picture.";
        return false;
    }
    std::vector<std::string> needed;
    for (const std::string& name : names)
        if (!name.empty()) needed.push_back(name);
    int part;
    std::vector<int> channels;
    if (layout.resolve(needed, part, channels, error)) return true;
    error += ".";
    return false;
}

// The Source's channels, from the first frame's file. `presetLayer`: the
// render layer a preset found the vectors in, if one did.
bool chooseSourceChannels(const ChannelLayout& layout, const std::string& sourceLayer,
                          const std::string* presetLayer, std::vector<std::string>& names,
                          std::string& error) {
    if (!sourceLayer.empty()) {
        names = layerChannels(layout, sourceLayer);
        if (fits(layout, names, error)) return true;
        const std::vector<std::string> layers = pictureLayers(layout);
        error = "--source-layer " + sourceLayer + ": " + error + listingOf(layout) +
                (layers.empty() ? "  No layer of it holds R, G and B."
                                : "  Layers with R, G and B: " + joinNames(layers) + ".");
        return false;
    }
    // A preset's beauty, where the Source file has it; else the file's own layout.
    if (presetLayer) {
        names = layerChannels(layout, channelIn(*presetLayer, "Combined"));
        std::string ignored;
        if (fits(layout, names, ignored)) return true;
    }
    names.clear();
    if (fits(layout, names, error)) return true;
    const std::vector<std::string> layers = pictureLayers(layout);
    error = "--source: " + error + listingOf(layout) +
            (layers.empty()
                 ? "  No layer of it holds R, G and B."
                 : "  Pick the picture with --source-layer NAME, e.g. --source-layer " + layers[0] + ".");
    return false;
}

// A Blender render layer's Vector pass, from the first frame's file.
bool chooseBlenderLayer(const ChannelLayout& layout, const VectorOptions& options, std::string& layer,
                        std::string& error) {
    const std::vector<std::string> layers = layout.layersWith(kBlenderVector);
    if (!options.layer.empty()) {
        for (const std::string& l : layers)
            if (l == options.layer) return layer = l, true;
        error = "--vector-layer " + options.layer + ": " + layout.path() +
                " has no Vector pass in that layer." +
                (layers.empty() ? listingOf(layout)
                                : " Its Vector passes are in the layers " + joinNames(layers) + ".");
        return false;
    }
    if (layers.size() == 1) return layer = layers[0], true;
    if (layers.empty()) {
        error =
            "--vectors-from blender: " + layout.path() +
            " has no Vector pass (<layer>.Vector.X, Y, Z and W)." + listingOf(layout) +
            "  In Blender, turn on the Vector pass of the view layer (Cycles, motion blur off) and write "
            "OpenEXR MultiLayer; a Vector pass saved on its own as RGBA reads with --vectors-from blender "
            "--vector-channels R,G,B,A.";
        return false;
    }
    error = "--vectors-from blender: " + layout.path() +
            " has a Vector pass in several layers: " + joinNames(layers) +
            ". Pick one with --vector-layer NAME.";
    return false;
}

std::string vectorHint(const ChannelLayout& layout, const VectorOptions& options) {
    if (!layout.layersWith(kBlenderVector).empty())
        return "  It holds a Blender Vector pass: read it with --vectors-from blender.";
    return "  Name the vectors' channels with --vector-channels X,Y[,A]" +
           std::string(options.inPixels() ? "." : ", and add --vector-units pixels for a pass in pixels.");
}

// The Source's channels, chosen on the first of `frames`, and every frame's
// file checked for them; with `sameSize`, for frames of one size too.
bool planSourceChannels(Layouts& layouts, const SequencePath& source, const std::string& sourceLayer,
                        const std::string* presetLayer, const std::vector<int>& frames, bool sameSize,
                        std::vector<std::string>& names, std::string& error) {
    const ChannelLayout* layout = layouts.get(source.frame(frames.front()), error);
    if (!layout || !chooseSourceChannels(*layout, sourceLayer, presetLayer, names, error)) return false;
    int width = 0, height = 0, sizedBy = frames.front();
    for (int frame : frames) {
        layout = layouts.get(source.frame(frame), error);
        if (!layout) return false;
        if (!fits(*layout, names, error)) {
            error =
                (sourceLayer.empty() ? std::string("--source: ") : "--source-layer " + sourceLayer + ": ") +
                error + listingOf(*layout);
            return false;
        }
        if (!sameSize) continue;
        std::vector<std::string> taken;
        for (const std::string& name : names)
            if (!name.empty()) taken.push_back(name);
        int part = 0;
        std::vector<int> channels;
        if (!taken.empty()) layout->resolve(taken, part, channels, error);
        const OIIO::ImageSpec& header = layout->header(part);
        if (frame == sizedBy) {
            width = header.width;
            height = header.height;
        } else if (header.width != width || header.height != height) {
            error = "--source: " + layout->path() + " is " + std::to_string(header.width) + "x" +
                    std::to_string(header.height) + " but " + source.frame(sizedBy) + " is " +
                    std::to_string(width) + "x" + std::to_string(height) +
                    "; motion is estimated between frames of one size";
            return false;
        }
    }
    return true;
}

}  // namespace

const std::vector<OptionRule<VectorOptions>>& vectorOptionRules() {
    static const std::vector<OptionRule<VectorOptions>> rules = {
        {"--vector-units", true,
         [](VectorOptions& o, const std::string& v) {
             if (v != "encoded" && v != "pixels")
                 return "option '--vector-units': '" + v + "' is not encoded or pixels";
             o.units = v;
             return std::string();
         }},
        {"--vectors-from", true,
         [](VectorOptions& o, const std::string& v) {
             std::string lower = v;
             for (char& c : lower) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
             if (lower != "blender")
                 return "option '--vectors-from': '" + v + "' is not a layout this tool knows (blender)";
             o.preset = lower;
             return std::string();
         }},
        {"--vector-channels", true,
         [](VectorOptions& o, const std::string& v) {
             const std::vector<std::string> names = splitNames(v);
             bool empty = false;
             for (const std::string& name : names) empty = empty || name.empty();
             if (names.size() < 2 || names.size() > 4 || empty)
                 return "option '--vector-channels': '" + v + "' is not X,Y or X,Y,A (channel names)";
             o.channels = v;
             return std::string();
         }},
        {"--vector-layer", true,
         [](VectorOptions& o, const std::string& v) {
             if (v.empty()) return std::string("option '--vector-layer' needs a layer name");
             o.layer = v;
             return std::string();
         }},
        {"--vector-flip-y", false,
         [](VectorOptions& o, const std::string&) { return o.flipY = true, std::string(); }},
        {"--vector-scale", true,
         [](VectorOptions& o, const std::string& v) {
             if (!parseDouble(v, o.scale)) return "option '--vector-scale': '" + v + "' is not a number";
             o.scaleGiven = true;
             return std::string();
         }},
        {"--estimate-preset", true,
         [](VectorOptions& o, const std::string& v) {
             if (v != "ultrafast" && v != "fast" && v != "medium")
                 return "option '--estimate-preset': '" + v + "' is not ultrafast, fast or medium";
             o.estimatePreset = v;
             return std::string();
         }},
    };
    return rules;
}

std::string vectorOptionsHelp(bool encodedToo) {
    const char* const channels =
        encodedToo
            ? "  --vector-channels X,Y[,A]  dx, dy and, optionally, which vectors are known, by channel\n"
              "                       name (default R,G,A; in pixels R,G, every vector known); with\n"
            : "  --vector-channels X,Y[,A]  dx, dy and, optionally, a mask (known where 0.5 or more),\n"
              "                       by channel name (default R,G, every vector known); with\n";
    const char* const units =
        "  --vector-units U     encoded (default: the plug-in's encoding, M from --max-displace) or\n"
        "                       pixels (displacements in pixels; the tool encodes them and chooses M)\n";
    const char* const pixelsOnly = encodedToo ? " (pixels only)\n" : "\n";
    return std::string(channels) +
           "                       --vectors-from the pass's own four, e.g. R,G,B,A for one saved as RGBA\n" +
           (encodedToo ? units : "") +
           "  --vectors-from blender  the Vector pass of a Blender multilayer EXR, in pixels\n"
           "  --vector-layer NAME  the render layer whose Vector pass to read, when there are several\n"
           "  --vector-flip-y      the pass's y points down the picture" +
           pixelsOnly + "  --vector-scale S     multiply both components by S, e.g. -1" + pixelsOnly;
}

bool checkVectorOptions(const VectorOptions& o, std::string& error) {
    if (!o.estimatePreset.empty())
        error = "--estimate-preset applies to --vectors estimate";
    else if (!o.preset.empty() && o.units == "encoded")
        error = "--vectors-from " + o.preset + " reads a pass in pixels; leave out --vector-units encoded";
    else if (!o.preset.empty() && !o.channels.empty() && splitNames(o.channels).size() != 4)
        error = "--vector-channels " + o.channels + ": with --vectors-from " + o.preset +
                " it names the pass's four channels X,Y,Z,W, e.g. R,G,B,A";
    else if (!o.preset.empty() && !o.channels.empty() && !o.layer.empty())
        error = "--vector-layer and --vector-channels both say where the pass is; give one";
    else if (o.preset.empty() && splitNames(o.channels).size() > 3)
        error = "--vector-channels " + o.channels + ": name X,Y or X,Y,A (four only with --vectors-from)";
    else if (!o.layer.empty() && o.preset.empty())
        error =
            "--vector-layer picks the render layer of --vectors-from; name other channels with "
            "--vector-channels";
    else if (!o.inPixels() && (o.flipY || o.scaleGiven))
        error = std::string(o.flipY ? "--vector-flip-y" : "--vector-scale") +
                " applies to vectors in pixels (--vector-units pixels or --vectors-from); for a clip in the "
                "plug-in's encoding use --scale-x and --scale-y";
    return error.empty();
}

bool planInputs(const SequencePath* source, const std::string& sourceLayer, const SequencePath& vectors,
                const std::vector<int>& frames, const VectorOptions& options, InputPlan& plan,
                std::string& error) {
    if (frames.empty()) return true;
    Layouts layouts;
    const int first = frames.front();
    const ChannelLayout* layout = layouts.get(vectors.frame(first), error);
    if (!layout) return false;

    // The vectors' channels, chosen on the first frame.
    MotionPass pass;
    std::string blenderLayer;
    bool presetFoundLayer = false;
    if (options.preset == "blender") {
        pass.kind = MotionPass::Kind::BlenderVector;
        if (!options.channels.empty()) {
            pass.channels = splitNames(options.channels);  // a pass saved on its own, e.g. as R,G,B,A
        } else {
            if (!chooseBlenderLayer(*layout, options, blenderLayer, error)) return false;
            presetFoundLayer = true;
            for (const std::string& suffix : kBlenderVector)
                pass.channels.push_back(channelIn(blenderLayer, suffix));
        }
    } else if (options.inPixels()) {
        pass.channels = splitNames(options.channels.empty() ? "R,G" : options.channels);
    } else if (!options.channels.empty()) {
        const std::vector<std::string> names = splitNames(options.channels);
        plan.vectorChannels = {names[0], names[1], "", names.size() > 2 ? names[2] : ""};
    }
    pass.flipY = options.flipY;
    pass.scale = options.scale;
    const std::vector<std::string>& vectorNames = options.inPixels() ? pass.channels : plan.vectorChannels;

    for (int frame : frames) {
        layout = layouts.get(vectors.frame(frame), error);
        if (!layout) return false;
        if (!fits(*layout, vectorNames, error)) {
            const std::string option = !options.channels.empty() ? "--vector-channels " + options.channels
                                       : !options.preset.empty() ? "--vectors-from " + options.preset
                                                                 : std::string("--vectors");
            error = option + ": " + error + listingOf(*layout) + vectorHint(*layout, options);
            return false;
        }
    }
    if (source) {
        const std::string* presetLayer = presetFoundLayer ? &blenderLayer : nullptr;
        if (!planSourceChannels(layouts, *source, sourceLayer, presetLayer, frames, false,
                                plan.sourceChannels, error))
            return false;
    }
    if (options.inPixels()) plan.motion = motionPassSource(vectors, pass);
    return true;
}

std::vector<std::string> vectorOptionsGiven(const VectorOptions& o) {
    std::vector<std::string> given;
    if (!o.units.empty()) given.push_back("--vector-units");
    if (!o.preset.empty()) given.push_back("--vectors-from");
    if (!o.channels.empty()) given.push_back("--vector-channels");
    if (!o.layer.empty()) given.push_back("--vector-layer");
    if (o.flipY) given.push_back("--vector-flip-y");
    if (o.scaleGiven) given.push_back("--vector-scale");
    return given;
}

bool planFootage(const SequencePath& source, const std::string& sourceLayer, const std::vector<int>& frames,
                 InputPlan& plan, std::string& error) {
    if (!source.isSequence()) {
        error = "--vectors estimate: --source '" + source.path() +
                "' is one file; motion is estimated from a sequence, named with #### or %04d";
        return false;
    }
    const std::vector<int> onDisk = source.framesOnDisk();
    if (onDisk.size() < 2) {
        error = "--vectors estimate: --source '" + source.path() + "' has " +
                (onDisk.empty() ? "no frame" : "one frame") + " on disk; motion needs at least two";
        return false;
    }
    plan.estimate = true;
    plan.footageFirst = onDisk.front();
    plan.footageLast = onDisk.back();
    const std::string range = std::to_string(plan.footageFirst) + "-" + std::to_string(plan.footageLast);
    // The frames read, in the order first read: those wanted and their neighbours inside the footage.
    std::vector<int> read;
    std::set<int> seen;
    for (int frame : frames) {
        if (frame < plan.footageFirst || frame > plan.footageLast) {
            error = "source frame " + std::to_string(frame) + " is missing: " + source.frame(frame) +
                    " (the footage on disk runs " + range + ")";
            return false;
        }
        for (int k : {frame - 1, frame, frame + 1})
            if (k >= plan.footageFirst && k <= plan.footageLast && seen.insert(k).second) read.push_back(k);
    }
    const std::set<int> asked(frames.begin(), frames.end());
    const auto wanted = [&](int k) { return asked.count(k) > 0; };
    for (int k : read) {
        if (std::binary_search(onDisk.begin(), onDisk.end(), k)) continue;
        error = "source frame " + std::to_string(k) + " is missing: " + source.frame(k);
        if (!wanted(k))
            error += "; the motion of frame " + std::to_string(wanted(k - 1) ? k - 1 : k + 1) +
                     " is estimated with it";
        error += " (the footage on disk runs " + range + ")";
        return false;
    }
    Layouts layouts;
    return planSourceChannels(layouts, source, sourceLayer, nullptr, read, true, plan.sourceChannels, error);
}
