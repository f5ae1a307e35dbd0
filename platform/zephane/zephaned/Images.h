#pragma once

#include "os/Mutex.h"
#include "zephane/zephaned/Config.h"
#include "zephane/zephaned/IBackEnd.h"

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <vector>

namespace zephane {

/// The images that are served, and their users. All writers of an image are connections of one client and
/// share a back end. All readers share another back end, which can't write.
/// Owns:    the back ends, each from its first use to its last.
/// Threads: any.
/// Fails:   `open` throws Refusal, and passes on what starting a back end throws.
class Images {
    struct Image;
    struct Side;

public:
    using Start = std::function<std::shared_ptr<IBackEnd>(const ImageConfig& image, bool isWritable)>;

    /// The right to use an image, until the destructor gives it up. A Use must not outlive the Images.
    class Use {
    public:
        Use(Images& images, std::shared_ptr<Image> image, Side& side);
        Use(Use&& other) noexcept;
        Use& operator=(Use&& other) = delete;
        Use(const Use&) = delete;
        Use& operator=(const Use&) = delete;
        ~Use();

        [[nodiscard]] IBackEnd& backEnd() const { return *used; }

    private:
        Images& images;
        std::shared_ptr<Image> image;
        Side& side;
        std::shared_ptr<IBackEnd> used;
    };

    explicit Images(Start start) : start(std::move(start)) {}

    /// Replaces the list of images to serve. Sessions that use a removed image go on until the caller ends
    /// them.
    void configure(const std::vector<ImageConfig>& configs);
    [[nodiscard]] bool isServed(const wire::ImageName& name) const;
    [[nodiscard]] std::optional<wire::ProofKey> findKey(const wire::ImageName& name) const;
    /// Returns none while the previous back end is still ending, because two must never write to one image:
    /// call again soon. Throws Refusal with EACCES if the image isn't served, EBUSY if another client is
    /// writing to it.
    [[nodiscard]] std::optional<Use> open(const wire::ImageName& name, const wire::ClientId& client,
                                          bool isWritable);

private:
    /// The writers of an image, or its readers.
    struct Side {
        std::shared_ptr<IBackEnd> backEnd;
        std::weak_ptr<IBackEnd> ending; // the previous one; exists as long as its process
        std::size_t uses = 0;
        wire::ClientId client{}; // the client that writes, if any

        [[nodiscard]] bool isEnding() const;
    };

    struct Image {
        std::optional<ImageConfig> config; // none if the image isn't served any more, but was in use
        std::optional<wire::ProofKey> key;
        Side writing;
        Side reading;
    };

    void release(Side& side);

    const Start start;
    mutable os::Mutex mutex;
    std::map<wire::ImageName, std::shared_ptr<Image>> all GUARDED_BY(mutex); // the images, too
};

} // namespace zephane
