#include "Commands.h"
#include "Common.h"
#include "tools/restore/view/ImageView.h"
#include "tools/restore/view/Mounting.h"

#include <filesystem>
#include <memory>
#include <stdexcept>

namespace restore {

namespace {

namespace fs = std::filesystem;

struct MountOptions {
    ImageOptions image;
    std::string directory;
};

std::string pathOf(const std::string& directory) {
    if (!fs::is_directory(directory)) {
        throw std::runtime_error(directory + " is no directory; make it first");
    }
    return fs::canonical(directory).string();
}

int mountImage(const MountOptions& options) {
    const std::string directory = pathOf(options.directory);
    view::removeStaleViews();
    view::ImageView view(addressOf(options.image), options.image.secret,
                         view::ImageView::Lifetime::outlivesProcess);
    view.setMountPoint(directory);
    const std::string kind = view::findKind(view.device());
    view::mountForAll(view, kind, directory);
    view.detach();
    if (options.image.isJson) {
        print(tools::Json{{"image", options.image.image},
                          {"mountPoint", directory},
                          {"kind", kind},
                          {"device", view.device()}});
    } else {
        print(options.image.image + " (" + kind + ") can be read at " + directory +
              ". When you are done: " + programName + " umount " + directory + "\n");
    }
    return done;
}

} // namespace

void declareMount(CLI::App& app, Run& chosen) {
    auto options = std::make_shared<MountOptions>();
    CLI::App& command = *app.add_subcommand(
        "mount",
        "Show the files of an image in a directory, for reading. A journal is replayed in an overlay, "
        "not in the image");
    declareImage(command, options->image);
    command.add_option("DIR", options->directory, "Where to")->required();
    command.callback([options, &chosen] { chosen = [options] { return mountImage(*options); }; });
}

} // namespace restore
