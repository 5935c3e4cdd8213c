#include "frames.h"

#include <dirent.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <set>

namespace {

constexpr long kFrameLimit = 99999999;

// A whole decimal integer within the frame limit, sign allowed.
bool parseNumber(const std::string& text, int& value) {
    const size_t digit = text[0] == '-' ? 1 : 0;
    if (text.size() <= digit || !std::isdigit(static_cast<unsigned char>(text[digit]))) return false;
    const char* start = text.c_str();
    char* end = nullptr;
    errno = 0;
    long v = std::strtol(start, &end, 10);
    if (errno || *end || v < -kFrameLimit || v > kFrameLimit) return false;
    value = static_cast<int>(v);
    return true;
}

}  // namespace

bool SequencePath::parse(const std::string& path, std::string& error) {
    path_ = path;
    padding_ = 0;
    const size_t slash = path.find_last_of('/');
    const size_t nameStart = slash == std::string::npos ? 0 : slash + 1;
    int patterns = 0;
    for (size_t i = nameStart; i < path.size(); ++i) {
        size_t length = 0;
        int width = 0;
        if (path[i] == '#') {
            length = path.find_first_not_of('#', i);
            length = (length == std::string::npos ? path.size() : length) - i;
            width = static_cast<int>(length);
        } else if (path[i] == '%') {
            size_t j = i + 1;
            while (j < path.size() && std::isdigit(static_cast<unsigned char>(path[j]))) ++j;
            if (j >= path.size() || path[j] != 'd') {
                error = "'" + path + "': a '%' in the file name must be a frame pattern like %04d";
                return false;
            }
            const std::string digits = path.substr(i + 1, j - i - 1);
            if (!digits.empty() && digits[0] != '0') {
                error = "'" + path + "': write the frame pattern zero-padded, as %0" + digits + "d";
                return false;
            }
            width = digits.empty() ? 1 : std::atoi(digits.c_str());
            if (width < 1 || width > 10) {
                error = "'" + path + "': frame pattern width must be 1 to 10";
                return false;
            }
            length = j + 1 - i;
        } else {
            continue;
        }
        if (++patterns > 1) {
            error = "'" + path + "' has more than one frame pattern";
            return false;
        }
        prefix_ = path.substr(0, i);
        suffix_ = path.substr(i + length);
        padding_ = width;
        i += length - 1;
    }
    return true;
}

std::string SequencePath::frame(int number) const {
    if (!isSequence()) return path_;
    char digits[32];
    std::snprintf(digits, sizeof digits, "%0*d", padding_, number);
    return prefix_ + digits + suffix_;
}

std::vector<int> SequencePath::framesOnDisk() const {
    std::vector<int> frames;
    if (!isSequence()) return frames;
    const size_t slash = prefix_.find_last_of('/');
    const std::string folder = slash == std::string::npos ? "." : prefix_.substr(0, slash + 1);
    const std::string namePrefix = slash == std::string::npos ? prefix_ : prefix_.substr(slash + 1);
    DIR* dir = opendir(folder.c_str());
    if (!dir) return frames;
    while (dirent* entry = readdir(dir)) {
        const std::string name = entry->d_name;
        if (name.size() <= namePrefix.size() + suffix_.size() ||
            name.compare(0, namePrefix.size(), namePrefix) ||
            name.compare(name.size() - suffix_.size(), suffix_.size(), suffix_))
            continue;
        const std::string digits =
            name.substr(namePrefix.size(), name.size() - namePrefix.size() - suffix_.size());
        int number = 0;
        // Only names this pattern would write: "frame.12.exr" is not frame 12 of "frame.####.exr".
        if (parseNumber(digits, number) &&
            frame(number) == (slash == std::string::npos ? name : folder + name))
            frames.push_back(number);
    }
    closedir(dir);
    std::sort(frames.begin(), frames.end());
    return frames;
}

bool parseFrames(const std::string& text, std::vector<int>& frames, std::string& error) {
    frames.clear();
    std::set<int> seen;
    auto fail = [&](const std::string& why) {
        error = "--frames '" + text + "': " + why;
        return false;
    };
    size_t start = 0;
    while (start <= text.size()) {
        size_t comma = text.find(',', start);
        if (comma == std::string::npos) comma = text.size();
        const std::string item = text.substr(start, comma - start);
        start = comma + 1;
        if (item.empty()) return fail("empty item in the list");
        // A dash after the first character separates the ends; a leading one is a sign.
        const size_t dash = item.find('-', 1);
        const size_t x = item.find('x');
        int first = 0, last = 0, step = 1;
        if (dash == std::string::npos) {
            if (x != std::string::npos || !parseNumber(item, first))
                return fail("'" + item + "' is not a frame");
            last = first;
        } else {
            const std::string lastText =
                item.substr(dash + 1, x == std::string::npos ? std::string::npos : x - dash - 1);
            if (!parseNumber(item.substr(0, dash), first) || !parseNumber(lastText, last))
                return fail("'" + item + "' is not a range FIRST-LAST");
            if (x != std::string::npos && (!parseNumber(item.substr(x + 1), step) || step < 1))
                return fail("'" + item + "': the step after 'x' must be a whole number of at least 1");
        }
        const int direction = last >= first ? 1 : -1;
        for (long f = first; direction > 0 ? f <= last : f >= last; f += direction * step)
            if (seen.insert(static_cast<int>(f)).second) frames.push_back(static_cast<int>(f));
    }
    return true;
}
