#include "Commands.h"
#include "Common.h"
#include "tools/restore/view/Entry.h"
#include "tools/restore/view/PrivateView.h"

#include <algorithm>
#include <fcntl.h>
#include <filesystem>
#include <iostream>
#include <memory>
#include <sstream>
#include <stdexcept>

namespace restore {

namespace {

namespace fs = std::filesystem;

struct GetOptions {
    ImageOptions image;
    std::string path;
    std::string destination;
    bool mayOverwrite = false;
};

/// What cp is told to copy: what is in a directory of the image that is held open, so that no link on the way
/// to it can lead to a file of this machine.
struct Source {
    os::FileDescriptor directory;
    std::string name; ///< "." for the directory itself

    [[nodiscard]] std::string prefix() const {
        return "/proc/self/fd/" + std::to_string(directory.get()) + "/";
    }
};

Source findSource(const view::PrivateView& image, const std::string& path) {
    os::FileDescriptor found = image.open(path, O_PATH);
    if (S_ISDIR(view::entryOf(found.get(), "").status.st_mode)) {
        return {std::move(found), "."};
    }
    const std::size_t cut = path.rfind('/') + 1; // 0 if there is none
    return {image.open(path.substr(0, cut), O_PATH | O_DIRECTORY), path.substr(cut)};
}

void requireFree(const GetOptions& options) {
    if (!options.mayOverwrite && fs::exists(fs::symlink_status(options.destination))) {
        throw std::runtime_error(options.destination +
                                 " is there already: name another place, or allow it with --overwrite");
    }
}

/// All that a file has; what can't be kept is a failure, as with cp alone it needn't be.
view::Start copyOf(const Source& source, const GetOptions& options) {
    view::Start start;
    start.command = {"cp", "-dR", "--preserve=mode,ownership,timestamps,links,xattr", "--sparse=always",
                     "--no-target-directory"};
    if (options.mayOverwrite) {
        start.command.emplace_back("--remove-destination");
    }
    start.command.insert(start.command.end(), {"--", source.prefix() + source.name, options.destination});
    start.kept = source.directory.get();
    start.endsWithUs = true;
    return start;
}

/// The words of cp, with the paths as they are in the image.
void complain(const std::string& output, const Source& source, const std::string& path) {
    const std::string top = source.name == "." ? path : path.substr(0, path.rfind('/') + 1);
    std::istringstream lines(output);
    constexpr std::string_view itself = "cp: ";
    for (std::string line; std::getline(lines, line);) {
        for (std::size_t at = 0; (at = line.find(source.prefix(), at)) != std::string::npos;) {
            line.replace(at, source.prefix().size(), top + (top.ends_with('/') || top.empty() ? "" : "/"));
        }
        std::cerr << programName << ": "
                  << view::escaped(line.substr(line.starts_with(itself) ? itself.size() : 0)) << '\n';
    }
}

int get(const GetOptions& options) {
    requireFree(options);
    view::clearRemains();
    const view::PrivateView image(addressOf(options.image), options.image.secret);
    const Source source = findSource(image, options.path);
    const view::Outcome outcome = view::runProgram(copyOf(source, options), std::nullopt);
    if (outcome.status != 0) {
        complain(outcome.output, source, options.path);
        throw std::runtime_error("not all of " + options.path + " could be brought to " +
                                 options.destination);
    }
    if (options.image.isJson) {
        print(tools::Json{
            {"image", options.image.image}, {"path", options.path}, {"destination", options.destination}});
    }
    return done;
}

} // namespace

void declareGet(CLI::App& app, Run& chosen) {
    auto options = std::make_shared<GetOptions>();
    CLI::App& command = *app.add_subcommand(
        "get",
        "Bring a file or a directory back from an image, with owners, modes, times, links, ACLs, extended "
        "attributes and holes");
    declareImage(command, options->image);
    command.add_option("PATH", options->path, "What, from the top of the volume")->required();
    command.add_option("DEST", options->destination, "Its new name on this machine")->required();
    command.add_flag("--overwrite", options->mayOverwrite,
                     "Replace files that are there; a directory is filled up");
    command.callback([options, &chosen] { chosen = [options] { return get(*options); }; });
}

} // namespace restore
