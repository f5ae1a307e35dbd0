#pragma once

#include "zephane/zephaned/Config.h"
#include "zephane/zephaned/IBackEnd.h"

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

namespace zephane {

/// The images that are served, and who uses them. All writers of an image are connections of one client and
/// share one back end; all readers share another, which can't write.
/// Owns:    the back ends, each from its first use to its last.
/// Threads: any.
/// Fails:   `open` throws Refusal, and what starting a back end throws.
class Images {
    struct Image;
    struct Side;

public:
    using Start = std::function<std::shared_ptr<IBackEnd>(const ImageConfig& image, bool isWritable)>;

    /// That an image is used; ends with the object, which must not outlive the Images.
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

    /// From now on these are served. Uses under way go on: they have to be ended by who has them.
    void configure(const std::vector<ImageConfig>& configs);
    [[nodiscard]] bool isServed(const wire::ImageName& name) const;
    [[nodiscard]] std::optional<wire::ProofKey> findKey(const wire::ImageName& name) const;
    /// Nothing while the back end of those before is still ending: two must never write to one image. To be
    /// tried again soon then. Refusal with EACCES if it isn't served, EBUSY if another client is writing to
    /// it.
    [[nodiscard]] std::optional<Use> open(const wire::ImageName& name, const wire::ClientId& client,
                                          bool isWritable);

private:
    /// Those who write to an image, or those who read.
    struct Side {
        std::shared_ptr<IBackEnd> backEnd;
        std::weak_ptr<IBackEnd> ending; // the one before; it stays as long as its process
        std::size_t uses = 0;
        wire::ClientId client{}; // who writes, if anybody does

        [[nodiscard]] bool isEnding() const;
    };

    struct Image {
        std::optional<ImageConfig> config; // nothing: not served any more, but used
        std::optional<wire::ProofKey> key;
        Side writing;
        Side reading;
    };

    void release(Side& side);

    const Start start;
    mutable std::mutex mutex;
    std::map<wire::ImageName, std::shared_ptr<Image>> all; // guarded by mutex, and what is in it
};

} // namespace zephane
