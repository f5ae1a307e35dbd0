#include "ImageView.h"

#include "common/PosixError.h"

#include <cerrno>
#include <chrono>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <thread>
#include <unistd.h>

namespace restore::view {

namespace {

namespace fs = std::filesystem;

constexpr std::chrono::milliseconds readyPause(10);
constexpr std::chrono::seconds readyTimeout(180); // longer than a target that refuses or is restarted needs
constexpr const char* pluginFile = "nbdkit-bek-plugin.so";

/// Prefers the plugin beside this program, as in a build folder, to the installed one.
std::string pluginPath() {
    std::error_code error;
    const fs::path beside = fs::read_symlink("/proc/self/exe", error).parent_path() / pluginFile;
    return fs::exists(beside, error) ? beside.string() : std::string("/usr/lib/bek-restore/") + pluginFile;
}

/// An absolute path, as the server has another working directory.
std::string textOf(const ImageAddress& address) {
    return address.kind == ImageAddress::Kind::file ? fs::absolute(address.path).string() : address.text;
}

bool hasContent(const std::string& path) {
    std::error_code error;
    const std::uintmax_t size = fs::file_size(path, error);
    return !error && size > 0;
}

} // namespace

ImageView::ImageView(const ImageAddress& address, const SecretSource& secret, Lifetime lifetime)
    : address(address) {
    serve(secret, lifetime);
    awaitServer();
    const std::string path = "/proc/" + std::to_string(server()) + "/root" + file();
    const os::FileDescriptor image(::open(path.c_str(), O_RDWR | O_CLOEXEC));
    if (!image) {
        throw agent::PosixError("the view of " + address.text + " can't be opened", errno);
    }
    loop.emplace(image.get(), place.path());
    state.loop = loop->path();
    place.write(state);
}

void ImageView::setMountPoint(const std::string& path) {
    state.mountPoint = path;
    place.write(state);
}

void ImageView::detach() {
    place.keep();
    served->release();
}

/// Starts nbdfuse, with nbdkit as its child. nbdkit's filter `cow` keeps all writes out of the image.
void ImageView::serve(const SecretSource& secret, Lifetime lifetime) {
    Start start;
    start.command = {"nbdfuse",
                     "-P",
                     place.path("ready"),
                     place.path(fileName),
                     "[",
                     "nbdkit",
                     "--exit-with-parent",
                     "--filter=cow",
                     pluginPath(),
                     "image=" + textOf(address),
                     "offset=" + std::to_string(address.offset),
                     "]"};
    if (address.wantsSecret()) {
        start.environment.emplace_back(secretVariable, findSecret(secret, "Secret of " + address.text));
    }
    const os::FileDescriptor log(
        ::open(place.path("log").c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600));
    start.output = log.get();
    start.inheritedDescriptor = place.lock();
    start.isDetached = true;
    start.hasOwnMountNamespace = true;
    start.endsWithParent = lifetime == Lifetime::endsWithProcess;
    served.emplace(start);
    state.owner = ProcessId::self();
    state.server = ProcessId::of(served->pid()).value_or(ProcessId{});
    state.image = address.text;
    place.write(state);
}

void ImageView::awaitServer() {
    const auto deadline = std::chrono::steady_clock::now() + readyTimeout;
    while (!hasContent(place.path("ready"))) {
        if (served->status()) {
            throw std::runtime_error("the image " + address.text + " can't be shown: " + serverError());
        }
        if (std::chrono::steady_clock::now() > deadline) {
            throw std::runtime_error("the image " + address.text + " can't be shown: no answer within " +
                                     std::to_string(readyTimeout.count()) + " s");
        }
        std::this_thread::sleep_for(readyPause);
    }
}

/// nbdkit's error comes first and says the reason; nbdfuse only reports that nbdkit has ended.
std::string ImageView::serverError() const {
    std::ifstream log(place.path("log"));
    const std::string text{std::istreambuf_iterator<char>(log), {}};
    constexpr std::string_view mark = "error: ";
    const std::size_t found = text.find(mark);
    if (found == std::string::npos) {
        return lastOutputLine(text);
    }
    const std::size_t begin = found + mark.size();
    return lastOutputLine(text.substr(begin, text.find('\n', begin) - begin));
}

} // namespace restore::view
