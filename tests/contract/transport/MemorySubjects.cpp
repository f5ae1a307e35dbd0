#include "TransportSubject.h"
#include "core/transport/IscsiTransport.h"
#include "core/transport/ZephaneFTPTransport.h"
#include "support/FakeIscsi.h"
#include "support/FakeTransport.h"
#include "support/FakeZephane.h"
#include "support/FaultyTransport.h"
#include "support/RecordingLogger.h"

#include <algorithm>

/// The transports that need no far side: the fakes of the unit tests, and those to an iSCSI target and to a
/// server of the file protocol in memory.
namespace agent::contract {

namespace {

using Bytes = TransportSubject::Bytes;

/// Fake transports that share one image.
class FakeSubject : public BreakableSubject {
public:
    explicit FakeSubject(bool holePunching) : holePunching(holePunching) {}

    std::shared_ptr<core::ITransport> make() override {
        auto transport = std::make_shared<test::FakeTransport>(remote);
        transport->holePunching = holePunching;
        return transport;
    }
    void setImage(const Bytes& image) override { remote->image = image; }
    Bytes image() override { return remote->image; }
    std::string lastWrite() override { return std::to_string(remote->changes); }
    void startFailing() override { remote->isBroken = true; }
    void stopFailing() override { remote->isBroken = false; }

private:
    std::shared_ptr<test::FakeTransport::RemoteImage> remote =
        std::make_shared<test::FakeTransport::RemoteImage>();
    bool holePunching;
};

/// The decorator that injects failures, without any failure.
class FaultySubject : public FakeSubject {
public:
    using FakeSubject::FakeSubject;
    std::shared_ptr<core::ITransport> make() override {
        return std::make_shared<test::FaultyTransport>(FakeSubject::make(), 0);
    }
};

class IscsiSubject : public BreakableSubject {
public:
    explicit IscsiSubject(std::uint64_t offset) : offset(offset) {
        iscsi.disk.resize(offset + imageBytes);
        iscsi.lastBlock = iscsi.disk.size() / iscsi.blockSize - 1;
    }

    std::shared_ptr<core::ITransport> make() override {
        return std::make_shared<core::IscsiTransport>(log.logger, "iqn.x:y", "portal", 1, offset, "", "");
    }
    void setImage(const Bytes& image) override {
        std::copy(image.begin(), image.end(), iscsi.disk.begin() + static_cast<std::ptrdiff_t>(offset));
    }
    Bytes image() override {
        return {iscsi.disk.begin() + static_cast<std::ptrdiff_t>(offset), iscsi.disk.end()};
    }
    std::string lastWrite() override {
        return std::to_string(std::count_if(iscsi.calls.begin(), iscsi.calls.end(), [](const auto& call) {
            return call.starts_with("iscsi_write16_task");
        }));
    }
    void startFailing() override {
        scriptCommands(std::vector(moreThanAllTries, test::FakeIscsi::Outcome::failed));
    }
    void stopFailing() override { scriptCommands({}); }

private:
    static constexpr std::size_t moreThanAllTries = 100;

    void scriptCommands(const std::vector<test::FakeIscsi::Outcome>& next) {
        iscsi.script("iscsi_read16_task", next);
        iscsi.script("iscsi_write16_task", next);
    }

    std::uint64_t offset;
    test::RecordingLogger log;
    test::FakeIscsi iscsi;
};

class ZephaneSubject : public BreakableSubject {
public:
    explicit ZephaneSubject(std::uint64_t offset) : offset(offset) {
        zephane.image.resize(offset + imageBytes);
    }

    std::shared_ptr<core::ITransport> make() override {
        return std::make_shared<core::ZephaneFTPTransport>(log.logger, "host", "path", 1, offset,
                                                           std::uint16_t{21}, "");
    }
    void setImage(const Bytes& image) override {
        std::copy(image.begin(), image.end(), zephane.image.begin() + static_cast<std::ptrdiff_t>(offset));
    }
    Bytes image() override {
        return {zephane.image.begin() + static_cast<std::ptrdiff_t>(offset), zephane.image.end()};
    }
    std::string lastWrite() override { return std::to_string(zephane.changes); }
    [[nodiscard]] bool mayFailShort() const override { return true; }
    [[nodiscard]] bool mayFailLate() const override { return true; }
    [[nodiscard]] bool staysBroken() const override { return true; }
    void startFailing() override { zephane.isBroken = true; }
    void stopFailing() override { zephane.isBroken = false; }

private:
    std::uint64_t offset;
    test::RecordingLogger log;
    test::FakeZephane zephane;
};

template <typename Subject>
std::vector<SubjectRow<Subject>> allSubjects() {
    return {
        {"Fake", [] { return std::make_unique<FakeSubject>(false); }},
        {"FakeWithHoles", [] { return std::make_unique<FakeSubject>(true); }},
        {"Faulty", [] { return std::make_unique<FaultySubject>(true); }},
        {"Iscsi", [] { return std::make_unique<IscsiSubject>(0); }},
        {"IscsiFromAnOffset",
         [] { return std::make_unique<IscsiSubject>(3 * TransportSubject::blockBytes); }},
        {"Zephane", [] { return std::make_unique<ZephaneSubject>(0); }},
        {"ZephaneFromAnOffset",
         [] { return std::make_unique<ZephaneSubject>(3 * TransportSubject::blockBytes); }},
    };
}

} // namespace

std::vector<SubjectRow<TransportSubject>> transportSubjects() {
    return allSubjects<TransportSubject>();
}

std::vector<SubjectRow<BreakableSubject>> breakableSubjects() {
    return allSubjects<BreakableSubject>();
}

} // namespace agent::contract
