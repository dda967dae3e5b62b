// Helpers of the capture tool's tests: running the built ruvo-capture as a child process with
// its output captured, a scratch directory per test, and reading files back (PNG through libpng,
// text lines, CSV).
#pragma once

#include <Poco/File.h>

#include <fcntl.h>
#include <png.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

extern char** environ;

namespace ruvo {
namespace test {

// A fresh directory under /tmp, removed with everything in it at the end of the scope.
class ScratchDir {
public:
    ScratchDir() {
        char name[] = "/tmp/ruvo-tool-test-XXXXXX";
        const char* made = mkdtemp(name);
        _path = made != nullptr ? made : "";
    }
    ~ScratchDir() {
        if (!_path.empty()) Poco::File(_path).remove(true);
    }
    ScratchDir(const ScratchDir&) = delete;
    ScratchDir& operator=(const ScratchDir&) = delete;
    const std::string& path() const { return _path; }
    std::string operator/(const std::string& name) const { return _path + "/" + name; }

private:
    std::string _path;
};

inline std::string readText(const std::string& path) {
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

inline std::vector<std::string> splitLines(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    std::string line;
    while (std::getline(in, line)) lines.push_back(line);
    return lines;
}

inline std::vector<std::string> splitFields(const std::string& line, char separator) {
    std::vector<std::string> fields;
    std::string field;
    std::istringstream in(line);
    while (std::getline(in, field, separator)) fields.push_back(field);
    if (!line.empty() && line.back() == separator) fields.push_back("");
    return fields;
}

struct ToolResult {
    int status = -1;  // exit status, or -1 when the tool did not exit normally
    std::string out;
    std::string err;
};

// The environment of this process with `overrides` ("NAME=value") replacing or adding entries.
inline std::vector<std::string> environmentWith(const std::vector<std::string>& overrides) {
    std::vector<std::string> env;
    for (char** e = environ; *e != nullptr; ++e) {
        const std::string entry = *e;
        bool replaced = false;
        for (const std::string& o : overrides)
            replaced |= entry.compare(0, o.find('=') + 1, o, 0, o.find('=') + 1) == 0;
        if (!replaced) env.push_back(entry);
    }
    env.insert(env.end(), overrides.begin(), overrides.end());
    return env;
}

// Starts `program` with `args`; its stdout goes to `stdoutFd` (dup'ed) and stderr to `errPath`.
inline pid_t spawnProgram(const std::string& program, const std::vector<std::string>& args,
                          const std::vector<std::string>& envOverrides, int stdoutFd, const std::string& errPath,
                          int closeFd = -1) {
    std::vector<std::string> argStorage = {program};
    argStorage.insert(argStorage.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (std::string& a : argStorage) argv.push_back(&a[0]);
    argv.push_back(nullptr);
    std::vector<std::string> envStorage = environmentWith(envOverrides);
    std::vector<char*> envp;
    for (std::string& e : envStorage) envp.push_back(&e[0]);
    envp.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, stdoutFd, STDOUT_FILENO);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (closeFd >= 0) posix_spawn_file_actions_addclose(&actions, closeFd);
    pid_t pid = -1;
    if (posix_spawn(&pid, program.c_str(), &actions, nullptr, argv.data(), envp.data()) != 0) pid = -1;
    posix_spawn_file_actions_destroy(&actions);
    return pid;
}

inline int waitForExit(pid_t pid) {
    int status = 0;
    if (pid < 0 || waitpid(pid, &status, 0) != pid) return -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// Runs `program` to the end, collecting stdout and stderr through files in `scratch`.
inline ToolResult runProgram(const std::string& program, const std::vector<std::string>& args,
                             const ScratchDir& scratch, const std::vector<std::string>& envOverrides = {}) {
    const std::string outPath = scratch / "tool.stdout";
    const std::string errPath = scratch / "tool.stderr";
    const int outFd = open(outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    ToolResult result;
    result.status = waitForExit(spawnProgram(program, args, envOverrides, outFd, errPath));
    close(outFd);
    result.out = readText(outPath);
    result.err = readText(errPath);
    return result;
}

struct PngInfo {
    bool ok = false;
    std::string error;
    uint32_t width = 0;
    uint32_t height = 0;
    uint32_t channels = 0;
    std::vector<uint8_t> pixels;  // decoded in the file's own format (gray, RGB, ...)
};

// Checks the PNG signature, then decodes the whole file with libpng.
inline PngInfo readPng(const std::string& path) {
    PngInfo info;
    std::ifstream in(path, std::ios::binary);
    char signature[8] = {};
    in.read(signature, sizeof(signature));
    if (!in || png_sig_cmp(reinterpret_cast<png_const_bytep>(signature), 0, sizeof(signature)) != 0) {
        info.error = "no PNG signature";
        return info;
    }
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
    if (png_image_finish_read(&image, nullptr, info.pixels.data(), 0, nullptr) == 0) {
        info.error = image.message;
        return info;
    }
    info.ok = true;
    return info;
}

}  // namespace test
}  // namespace ruvo
