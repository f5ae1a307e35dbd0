#include "zephane/zephaned/Images.h"

#include "zephane/zephaned/Refusal.h"

#include <cerrno>
#include <utility>

namespace zephane {

Images::Use::Use(Images& images, std::shared_ptr<Image> image, Side& side)
    : images(images), image(std::move(image)), side(side), used(side.backEnd) {}

Images::Use::Use(Use&& other) noexcept
    : images(other.images), image(std::move(other.image)), side(other.side), used(std::move(other.used)) {}

Images::Use::~Use() {
    if (image) {
        images.release(side);
    }
}

bool Images::Side::isEnding() const {
    const std::shared_ptr<IBackEnd> last = ending.lock();
    return last && !last->hasEnded();
}

void Images::configure(const std::vector<ImageConfig>& configs) {
    const os::Lock lock(mutex);
    for (auto& [name, image] : all) {
        image->config.reset();
        image->key.reset();
    }
    for (const ImageConfig& config : configs) {
        std::shared_ptr<Image>& image = all[config.name];
        if (!image) {
            image = std::make_shared<Image>();
        }
        image->config = config;
        image->key.emplace(config.secret);
    }
    // Keeps an image whose back end is still ending, because its name may be configured again.
    std::erase_if(all, [](const auto& entry) {
        const Image& image = *entry.second;
        return !image.config && image.writing.uses + image.reading.uses == 0 && !image.writing.isEnding() &&
               !image.reading.isEnding();
    });
}

bool Images::isServed(const wire::ImageName& name) const {
    const os::Lock lock(mutex);
    const auto found = all.find(name);
    return found != all.end() && found->second->config;
}

std::optional<wire::ProofKey> Images::findKey(const wire::ImageName& name) const {
    const os::Lock lock(mutex);
    const auto found = all.find(name);
    return found == all.end() ? std::nullopt : found->second->key;
}

std::optional<Images::Use> Images::open(const wire::ImageName& name, const wire::ClientId& client,
                                        bool isWritable) {
    const os::Lock lock(mutex);
    const auto found = all.find(name);
    if (found == all.end() || !found->second->config) {
        throw Refusal(-EACCES, "the image isn't served any more");
    }
    Image& image = *found->second;
    Side& side = isWritable ? image.writing : image.reading;
    if (isWritable && side.uses > 0 && side.client != client) {
        throw Refusal(-EBUSY, "another client is writing to the image");
    }
    if (side.isEnding()) {
        return std::nullopt;
    }
    if (!side.backEnd || side.backEnd->hasEnded()) {
        side.backEnd = start(*image.config, isWritable);
    }
    ++side.uses;
    side.client = client;
    return std::optional<Use>(std::in_place, *this, found->second, side);
}

void Images::release(Side& side) {
    const os::Lock lock(mutex);
    --side.uses;
    if (side.uses == 0) {
        side.ending = side.backEnd;
        side.backEnd->stop();
        side.backEnd.reset();
    }
}

} // namespace zephane
