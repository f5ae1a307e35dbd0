#include "Commands.h"
#include "Common.h"
#include "CopyProgress.h"
#include "tools/restore/view/Attributes.h"
#include "tools/restore/view/Entry.h"
#include "tools/restore/view/PrivateView.h"

#include <algorithm>
#include <fcntl.h>
#include <filesystem>
#include <iostream>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <utility>
#include <vector>

namespace restore {

namespace {

namespace fs = std::filesystem;
using view::Entry;

struct GetOptions {
    ImageOptions image;
    std::string path;
    std::string destination;
    bool mayOverwrite = false;
};

/// The files that cp copies. Their paths begin at an open descriptor of a directory in the image, so that no
/// symbolic link on the way can lead to a file of this machine.
struct Source {
    os::FileDescriptor directory;
    std::vector<std::string> names; ///< one ("." for the directory itself), or several in the volume's root
    bool isPartOfTop = false;

    [[nodiscard]] std::string prefix() const {
        return "/proc/self/fd/" + std::to_string(directory.get()) + "/";
    }

    [[nodiscard]] std::vector<std::string> paths() const {
        std::vector<std::string> all;
        all.reserve(names.size());
        for (const std::string& name : names) {
            all.push_back(prefix() + name);
        }
        return all;
    }
};

bool areSame(const Entry& one, const Entry& other) {
    return one.status.st_dev == other.status.st_dev && one.status.st_ino == other.status.st_ino;
}

/// Everything in the root directory except the snapshot driver's files: their content in an image is of no
/// use, and a target volume that is in use has its own.
Source topOf(os::FileDescriptor top) {
    Source source{std::move(top), {}};
    for (Entry& entry : view::entriesOf(source.directory.get())) {
        if (view::isDriverFile(entry.name)) {
            source.isPartOfTop = true;
        } else {
            source.names.push_back(std::move(entry.name));
        }
    }
    if (!source.isPartOfTop) {
        source.names = {"."};
    }
    return source;
}

Source findSource(const view::PrivateView& image, const std::string& path) {
    os::FileDescriptor found = image.open(path, O_PATH);
    const Entry entry = view::entryOf(found.get(), "");
    if (areSame(entry, view::entryOf(image.root(), ""))) {
        return topOf(std::move(found));
    }
    if (S_ISDIR(entry.status.st_mode)) {
        return {std::move(found), {"."}};
    }
    const std::size_t cut = path.rfind('/') + 1; // 0 if there is no slash
    return {image.open(path.substr(0, cut), O_PATH | O_DIRECTORY), {path.substr(cut)}};
}

void requireFree(const GetOptions& options) {
    if (!options.mayOverwrite && fs::exists(fs::symlink_status(options.destination))) {
        throw std::runtime_error(options.destination +
                                 " is there already: name another place, or allow it with --overwrite");
    }
}

/// Copies all attributes of a file. Naming them makes it a failure if one can't be kept, which plain cp may
/// ignore.
view::Start copyOf(const Source& source, const GetOptions& options) {
    view::Start start;
    start.command = {"cp", "-dR", "--preserve=mode,ownership,timestamps,links,xattr", "--sparse=always"};
    start.command.emplace_back(source.isPartOfTop ? "--target-directory=" + options.destination
                                                  : "--no-target-directory");
    if (options.mayOverwrite) {
        start.command.emplace_back("--remove-destination");
    }
    start.command.emplace_back("--");
    const std::vector<std::string> paths = source.paths();
    start.command.insert(start.command.end(), paths.begin(), paths.end());
    if (!source.isPartOfTop) {
        start.command.push_back(options.destination);
    }
    start.inheritedDescriptor = source.directory.get();
    return start;
}

view::Outcome runCopy(const Source& source, const GetOptions& options) {
    CopyProgress progress(source.paths());
    return view::runProgram(copyOf(source, options), std::nullopt,
                            [&progress](pid_t program) { progress.show(program); });
}

/// Prints the messages of cp, with the paths as they are in the image.
void complain(const std::string& output, const Source& source, const std::string& path) {
    const bool isWhole = source.isPartOfTop || source.names.front() == ".";
    const std::string top = isWhole ? path : path.substr(0, path.rfind('/') + 1);
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

void copy(const Source& source, const GetOptions& options) {
    if (source.isPartOfTop) {
        fs::create_directory(options.destination);
    }
    if (!source.names.empty()) {
        const view::Outcome outcome = runCopy(source, options);
        if (outcome.status != 0) {
            complain(outcome.output, source, options.path);
            throw std::runtime_error("not all of " + options.path + " could be brought to " +
                                     options.destination);
        }
    }
    if (source.isPartOfTop) {
        view::copyAttributes(source.directory.get(), options.destination);
    }
}

int get(const GetOptions& options) {
    requireFree(options);
    view::removeStaleViews();
    const view::PrivateView image(addressOf(options.image), options.image.secret);
    copy(findSource(image, options.path), options);
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
