// The command-line tools run as a user runs them, in a scratch folder (with
// an "out" folder inside) that is gone afterwards; image files through OpenImageIO.
#pragma once

#include <OpenImageIO/imagebuf.h>
#include <OpenImageIO/imageio.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <thread>
#include <vector>

extern char** environ;
using ::testing::HasSubstr;

struct Outcome {
    int status = -1;  // exit status, or 128 + signal
    std::string err;  // standard error, and standard output mixed in
};

// Starts `binary` with `args`; `whileRunning` gets the pid and the output
// read so far each time more arrives.
inline Outcome RunTool(const char* binary, std::vector<std::string> args,
                       const std::function<void(pid_t, const std::string&)>& whileRunning = nullptr) {
    args.insert(args.begin(), binary);
    std::vector<char*> argv;
    for (std::string& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    int pipeFds[2];
    EXPECT_EQ(pipe(pipeFds), 0);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, pipeFds[1], STDERR_FILENO);
    posix_spawn_file_actions_adddup2(&actions, pipeFds[1], STDOUT_FILENO);
    posix_spawn_file_actions_addclose(&actions, pipeFds[0]);
    pid_t pid = 0;
    EXPECT_EQ(posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ), 0);
    posix_spawn_file_actions_destroy(&actions);
    close(pipeFds[1]);
    Outcome run;
    char buffer[4096];
    ssize_t n;
    while ((n = read(pipeFds[0], buffer, sizeof buffer)) > 0) {
        run.err.append(buffer, static_cast<size_t>(n));
        if (whileRunning) whileRunning(pid, run.err);
    }
    close(pipeFds[0]);
    int wstatus = 0;
    waitpid(pid, &wstatus, 0);
    run.status = WIFEXITED(wstatus) ? WEXITSTATUS(wstatus) : 128 + WTERMSIG(wstatus);
    return run;
}

// Runs the tool and sends it Ctrl-C `delayMs` after it first says `cue`.
inline Outcome Interrupted(const char* binary, std::vector<std::string> args, const std::string& cue,
                           int delayMs = 0) {
    bool sent = false;
    const Outcome run = RunTool(binary, std::move(args), [&](pid_t pid, const std::string& err) {
        if (sent || err.find(cue) == std::string::npos) return;
        std::this_thread::sleep_for(std::chrono::milliseconds(delayMs));
        sent = kill(pid, SIGINT) == 0;
    });
    EXPECT_TRUE(sent) << run.err;
    return run;
}

class ToolFolder : public ::testing::Test {
  protected:
    void SetUp() override {
        char folder[] = "/tmp/trelvo-tools-cli-XXXXXX";
        ASSERT_NE(mkdtemp(folder), nullptr);
        dir_ = folder;
        std::filesystem::create_directory(dir_ + "/out");
    }
    void TearDown() override { std::filesystem::remove_all(dir_); }
    // The files of a folder, sorted, without "out".
    static std::vector<std::string> Listing(const std::string& folder) {
        std::vector<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator(folder))
            if (entry.path().filename() != "out") names.push_back(entry.path().filename());
        std::sort(names.begin(), names.end());
        return names;
    }
    // The file of `frame` in a sequence of the scratch folder: stem.0007.ext.
    std::string Seq(const std::string& stem, int frame, const std::string& ext = "exr") const {
        char number[16];
        std::snprintf(number, sizeof number, ".%04d.", frame);
        return dir_ + "/" + stem + number + ext;
    }
    // The tool stopped with `status`, said `said`, and wrote nothing.
    void ExpectRefused(const Outcome& run, const std::string& said, int status = 2) const {
        EXPECT_EQ(run.status, status) << run.err;
        EXPECT_THAT(run.err, HasSubstr(said));
        EXPECT_TRUE(Listing(dir_ + "/out").empty()) << run.err;
    }
    std::string dir_;
};

// Writes `pixels`, laid out as `header` says, rows from the top.
inline void WriteImage(const std::string& path, const OIIO::ImageSpec& header, const void* pixels) {
    auto out = OIIO::ImageOutput::create(path);
    EXPECT_TRUE(out && out->open(path, header) && out->write_image(header.format, pixels) && out->close())
        << path;
}

// A PPM file whose header claims an RGB frame of width x height, holding a
// few bytes of it.
inline void WriteClaimingPpm(const std::string& path, uint32_t width, uint32_t height) {
    std::ofstream(path, std::ios::binary) << "P6\n"
                                          << width << " " << height << "\n255\n"
                                          << std::string(64, 'x');
}

// Every sample of an image file as float, rows from the top.
inline std::vector<float> FilePixels(const std::string& path) {
    OIIO::ImageBuf image(path);
    std::vector<float> px(image.nativespec().image_pixels() * image.nativespec().nchannels);
    EXPECT_TRUE(image.get_pixels(image.roi(), OIIO::TypeDesc::FLOAT, px.data()))
        << path << ": " << image.geterror();
    return px;
}
