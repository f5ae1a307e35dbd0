#pragma once

#include "os/Mutex.h"
#include "zephane/zephaned/Config.h"
#include "zephane/zephaned/IEngine.h"

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <vector>

namespace zephane {

/// The images that are served, and their users. All writers of an image are connections of one client and
/// share an engine. All readers share another engine, which can't write.
/// Owns:    the engines, each from its first lease to its last.
/// Threads: any.
/// Fails:   `open` throws Refusal, and passes on what starting an engine throws.
class Images {
    struct Image;
    struct AccessGroup;

public:
    using Start = std::function<std::shared_ptr<IEngine>(const ImageConfig& image, bool isWritable)>;

    /// The right to use an image, until the destructor gives it up. A Lease must not outlive the Images.
    class Lease {
    public:
        Lease(Images& images, std::shared_ptr<Image> image, AccessGroup& group);
        Lease(Lease&& other) noexcept;
        Lease& operator=(Lease&& other) = delete;
        Lease(const Lease&) = delete;
        Lease& operator=(const Lease&) = delete;
        ~Lease();

        [[nodiscard]] IEngine& engine() const { return *leasedEngine; }

    private:
        Images& images;
        std::shared_ptr<Image> image;
        AccessGroup& group;
        std::shared_ptr<IEngine> leasedEngine;
    };

    explicit Images(Start start) : start(std::move(start)) {}

    /// Replaces the list of images to serve. Sessions that use a removed image go on until the caller ends
    /// them.
    void configure(const std::vector<ImageConfig>& configs);
    [[nodiscard]] bool isServed(const wire::ImageName& name) const;
    [[nodiscard]] std::optional<wire::ProofKey> findKey(const wire::ImageName& name) const;
    /// Returns none while the previous engine is still ending, because two must never write to one image:
    /// call again soon. Throws Refusal with EACCES if the image isn't served, EBUSY if another client is
    /// writing to it.
    [[nodiscard]] std::optional<Lease> open(const wire::ImageName& name, const wire::ClientId& client,
                                            bool isWritable);

private:
    /// The writers of an image, or its readers.
    struct AccessGroup {
        std::shared_ptr<IEngine> engine;
        std::weak_ptr<IEngine> ending; // the previous one; exists as long as its process
        std::size_t leases = 0;
        wire::ClientId client{}; // the client that writes, if any

        [[nodiscard]] bool isEnding() const;
    };

    struct Image {
        std::optional<ImageConfig> config; // none if no longer served; kept until its engines have ended
        std::optional<wire::ProofKey> key;
        AccessGroup writing;
        AccessGroup reading;
    };

    void release(AccessGroup& group);

    const Start start;
    mutable os::Mutex mutex;
    std::map<wire::ImageName, std::shared_ptr<Image>> all GUARDED_BY(mutex); // and so are the images in it
};

} // namespace zephane
