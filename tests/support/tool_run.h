// Helpers of the capture tool's tests: running the built ruvo-capture through the shell with its
// output captured, a scratch directory per test, and reading files back (PNG through libpng,
// text lines, CSV fields).
#pragma once

#include <Poco/File.h>
#include <Poco/TemporaryFile.h>

#include <png.h>
#include <sys/wait.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

namespace ruvo {
namespace test {

// A fresh directory in the temporary folder, removed with everything in it at the end of the scope.
class ScratchDir {
public:
    ScratchDir() { _dir.createDirectories(); }
    const std::string& path() const { return _dir.path(); }
    std::string operator/(const std::string& name) const { return _dir.path() + "/" + name; }

private:
    Poco::TemporaryFile _dir;
};

inline std::string readText(const std::string& path) {
    std::ifstream in(path);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

inline std::vector<std::string> splitLines(const std::string& text, char separator = '\n') {
    std::vector<std::string> lines;
    std::istringstream in(text);
    std::string line;
    while (std::getline(in, line, separator)) lines.push_back(line);
    return lines;
}

// `text` in single quotes for the shell.
inline std::string shellQuoted(const std::string& text) {
    std::string quoted = "'";
    for (char c : text) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return quoted + "'";
}

// The shell command that runs the built tool with `args`.
inline std::string toolCommand(const std::vector<std::string>& args) {
    std::string command = shellQuoted(RUVO_CAPTURE_TOOL);
    for (const std::string& a : args) command += " " + shellQuoted(a);
    return command;
}

struct ToolResult {
    int status = -1;  // exit status, or -1 when the shell did not exit normally
    std::string out;
    std::string err;
};

// Runs the tool to the end, stdout and stderr through files in `scratch`; `environment`
// ("NAME=value") is set for the tool only.
inline ToolResult runTool(const std::vector<std::string>& args, const ScratchDir& scratch,
                          const std::string& environment = "") {
    const std::string out = scratch / "tool.stdout";
    const std::string err = scratch / "tool.stderr";
    const std::string command =
        environment + " " + toolCommand(args) + " >" + shellQuoted(out) + " 2>" + shellQuoted(err);
    const int status = std::system(command.c_str());
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, readText(out), readText(err)};
}

struct PngInfo {
    bool ok = false;
    std::string error;
    uint32_t width = 0;
    uint32_t height = 0;
    uint32_t channels = 0;
    std::vector<uint8_t> pixels;  // decoded in the file's own format (gray, RGB, ...)
};

// Decodes the whole file with libpng, which also checks the signature.
inline PngInfo readPng(const std::string& path) {
    PngInfo info;
    png_image image;
    std::memset(&image, 0, sizeof(image));
    image.version = PNG_IMAGE_VERSION;
    if (png_image_begin_read_from_file(&image, path.c_str()) == 0) {
        info.error = image.message;
        return info;
    }
    info.width = image.width;
    info.height = image.height;
    image.format &= ~PNG_FORMAT_FLAG_COLORMAP;  // palette files are expanded to their colours
    info.channels = PNG_IMAGE_SAMPLE_CHANNELS(image.format);
    info.pixels.resize(PNG_IMAGE_SIZE(image));
    info.ok = png_image_finish_read(&image, nullptr, info.pixels.data(), 0, nullptr) != 0;
    info.error = image.message;
    return info;
}

}  // namespace test
}  // namespace ruvo
