#include "zephane/zephaned/Images.h"

#include "zephane/zephaned/Refusal.h"

#include <cerrno>
#include <utility>

namespace zephane {

Images::Lease::Lease(Images& images, std::shared_ptr<Image> image, AccessGroup& group)
    : images(images), image(std::move(image)), group(group), leasedEngine(group.engine) {}

Images::Lease::Lease(Lease&& other) noexcept
    : images(other.images),
      image(std::move(other.image)),
      group(other.group),
      leasedEngine(std::move(other.leasedEngine)) {}

Images::Lease::~Lease() {
    if (image) {
        images.release(group);
    }
}

bool Images::AccessGroup::isEnding() const {
    const std::shared_ptr<IEngine> last = ending.lock();
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
    // Keeps an image whose engine is still ending, because its name may be configured again.
    std::erase_if(all, [](const auto& entry) {
        const Image& image = *entry.second;
        return !image.config && image.writing.leases + image.reading.leases == 0 &&
               !image.writing.isEnding() && !image.reading.isEnding();
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

std::optional<Images::Lease> Images::open(const wire::ImageName& name, const wire::ClientId& client,
                                          bool isWritable) {
    const os::Lock lock(mutex);
    const auto found = all.find(name);
    if (found == all.end() || !found->second->config) {
        throw Refusal(-EACCES, "the image isn't served any more");
    }
    Image& image = *found->second;
    AccessGroup& group = isWritable ? image.writing : image.reading;
    if (isWritable && group.leases > 0 && group.client != client) {
        throw Refusal(-EBUSY, "another client is writing to the image");
    }
    if (group.isEnding()) {
        return std::nullopt;
    }
    if (!group.engine || group.engine->hasEnded()) {
        group.engine = start(*image.config, isWritable);
    }
    ++group.leases;
    group.client = client;
    return std::optional<Lease>(std::in_place, *this, found->second, group);
}

void Images::release(AccessGroup& group) {
    const os::Lock lock(mutex);
    --group.leases;
    if (group.leases == 0) {
        group.ending = group.engine;
        group.engine->stop();
        group.engine.reset();
    }
}

} // namespace zephane
