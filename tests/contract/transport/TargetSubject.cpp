#include "FileSubject.h"
#include "core/transport/IscsiTransport.h"

namespace agent::contract {

namespace {

/// The transport to an image of a real iSCSI target.
class TargetSubject : public FileSubject {
public:
    std::shared_ptr<core::ITransport> make() override {
        return std::make_shared<core::IscsiTransport>(logger, setting("TARGET_NAME"),
                                                      setting("TARGET_PORTAL"),
                                                      std::stoi(setting("TARGET_LUN")), 0, "", "");
    }
};

} // namespace

std::vector<SubjectRow<TransportSubject>> transportSubjects() {
    return {{"IscsiTarget", [] { return std::make_unique<TargetSubject>(); }}};
}

} // namespace agent::contract
