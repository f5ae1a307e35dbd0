#include "Commands.h"
#include "Common.h"
#include "tools/common/Text.h"
#include "tools/restore/view/Entry.h"
#include "tools/restore/view/PrivateView.h"

#include <fcntl.h>
#include <functional>
#include <iomanip>
#include <iostream>
#include <memory>
#include <sstream>
#include <stdexcept>

namespace restore {

namespace {

using view::Entry;

struct LsOptions {
    ImageOptions image;
    std::string path = "/";
    bool isLong = false;
    bool isDeep = false;
};

/// Prints one line, or one element of JSON, for each file as it is found: a volume can have more files than
/// fit into memory.
class Listing {
public:
    explicit Listing(const LsOptions& options) : options(options) {}

    void begin() {
        if (options.image.isJson) {
            print("{\"image\": " + quoted(options.image.image) + ", \"path\": " + quoted(options.path) +
                  ", \"entries\": [");
        }
    }

    /// `path` is relative to the directory being listed.
    void add(const std::string& path, const Entry& entry) {
        if (options.image.isJson) {
            std::cout << (isEmpty ? "\n  " : ",\n  ") << text(jsonOf(path, entry));
        } else {
            std::cout << (options.isLong ? longLine(path, entry) : view::escaped(path)) << '\n';
        }
        isEmpty = false;
    }

    void end() const { print(std::string(options.image.isJson ? "\n]}\n" : "")); }

private:
    static std::string text(const tools::Json& document) {
        return document.dump(-1, ' ', false, tools::Json::error_handler_t::replace);
    }
    static std::string quoted(const std::string& word) { return text(tools::Json(word)); }

    static tools::Json jsonOf(const std::string& path, const Entry& entry) {
        tools::Json document;
        document["path"] = path;
        document["type"] = view::typeText(entry.status.st_mode);
        document["mode"] = view::modeText(entry.status.st_mode);
        document["links"] = entry.status.st_nlink;
        document["owner"] = entry.status.st_uid;
        document["group"] = entry.status.st_gid;
        document["size"] = entry.status.st_size;
        document["allocated"] = entry.status.st_blocks * 512;
        document["modified"] = tools::utcText(entry.status.st_mtim.tv_sec);
        document["modifiedNanoseconds"] = entry.status.st_mtim.tv_nsec;
        document["target"] = tools::textOrNull(entry.target);
        return document;
    }

    /// Owners are shown as numbers: the user names of this machine needn't be those of the volume.
    static std::string longLine(const std::string& path, const Entry& entry) {
        std::ostringstream line;
        line << view::modeText(entry.status.st_mode) << std::setw(4) << entry.status.st_nlink << ' '
             << std::setw(5) << entry.status.st_uid << ' ' << std::setw(5) << entry.status.st_gid << ' '
             << std::setw(12) << entry.status.st_size << ' ' << tools::localText(entry.status.st_mtim.tv_sec)
             << ' ' << view::escaped(path);
        if (!entry.target.empty()) {
            line << " -> " << view::escaped(entry.target);
        }
        return line.str();
    }

    const LsOptions& options;
    bool isEmpty = true;
};

os::FileDescriptor openDirectory(int parent, const std::string& name) {
    os::FileDescriptor found(::openat(parent, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!found) {
        throw std::runtime_error("the directory can't be opened");
    }
    return found;
}

/// Returns false if a directory below couldn't be read, which has been reported then.
// NOLINTNEXTLINE(misc-no-recursion): as deep as descriptors of directories can be had
bool listBelow(Listing& listing, int directory, const std::string& prefix, bool isDeep) {
    bool isComplete = true;
    for (const Entry& entry : view::entriesOf(directory)) {
        const std::string path = prefix + entry.name;
        listing.add(path, entry);
        if (!isDeep || !S_ISDIR(entry.status.st_mode)) {
            continue;
        }
        try {
            const os::FileDescriptor below = openDirectory(directory, entry.name);
            isComplete = listBelow(listing, below.get(), path + "/", isDeep) && isComplete;
        } catch (const std::runtime_error& error) {
            std::cerr << programName << ": " << view::escaped(path) << ": " << error.what() << '\n';
            isComplete = false;
        }
    }
    return isComplete;
}

int list(const LsOptions& options) {
    view::removeStaleViews();
    const view::PrivateView image(addressOf(options.image), options.image.secret);
    const os::FileDescriptor place = image.open(options.path, O_PATH);
    const Entry entry = view::entryOf(place.get(), "");
    Listing listing(options);
    listing.begin();
    bool isComplete = true;
    if (S_ISDIR(entry.status.st_mode)) {
        isComplete = listBelow(listing, place.get(), "", options.isDeep);
    } else {
        listing.add(options.path, entry);
    }
    listing.end();
    return isComplete ? done : failed;
}

} // namespace

void declareLs(CLI::App& app, Run& chosen) {
    auto options = std::make_shared<LsOptions>();
    CLI::App& command = *app.add_subcommand("ls", "List the files of an image");
    declareImage(command, options->image);
    command.add_option("PATH", options->path, "A file or a directory, from the top of the volume")
        ->capture_default_str();
    command.add_flag("-l", options->isLong, "With modes, owners, sizes and times");
    command.add_flag("-R,--recursive", options->isDeep, "All that is below, too");
    command.callback([options, &chosen] { chosen = [options] { return list(*options); }; });
}

} // namespace restore
