#include "IscsiUnits.h"

#include "core/transport/IscsiLibrary.h"
#include "core/transport/Libiscsi.h"

#include <algorithm>
#include <stdexcept>

namespace restore {

namespace {

namespace iscsi = agent::core::iscsi;

constexpr int timeoutSeconds = 60;
constexpr int allUnits = 0;
constexpr int longestReport = 16 + 8 * 256; // bytes, for 256 LUNs
constexpr const char* initiator = "iqn.2026-01.bek-restore:initiator";

[[noreturn]] void giveUp(const ImageAddress& address, const iscsi::Context& context) {
    throw std::runtime_error("the target " + address.target +
                             " doesn't tell of its units: " + iscsi::errorOf(context));
}

iscsi::Context logIn(const ImageAddress& address, const std::string& password) {
    iscsi::Context context(::iscsi_create_context(initiator));
    if (!context) {
        throw std::runtime_error("no iSCSI session can be had");
    }
    ::iscsi_set_noautoreconnect(context.get(), 1);
    ::iscsi_set_timeout(context.get(), timeoutSeconds);
    const bool isTold =
        ::iscsi_set_targetname(context.get(), address.target.c_str()) == 0 &&
        ::iscsi_set_session_type(context.get(), ISCSI_SESSION_NORMAL) == 0 &&
        ::iscsi_set_header_digest(context.get(), ISCSI_HEADER_DIGEST_NONE_CRC32C) == 0 &&
        ::iscsi_set_initiator_username_pwd(context.get(), address.user.c_str(), password.c_str()) == 0;
    if (!isTold || ::iscsi_connect_sync(context.get(), portalOf(address).c_str()) != 0 ||
        ::iscsi_login_sync(context.get()) != 0) {
        giveUp(address, context);
    }
    return context;
}

} // namespace

bool isWholeTarget(const std::string& text) {
    constexpr std::string_view scheme = "iscsi://";
    return text.starts_with(scheme) && std::ranges::count(text.substr(scheme.size()), '/') == 1;
}

std::vector<int> findUnits(const ImageAddress& address, const std::string& password) {
    const iscsi::Context context = logIn(address, password);
    const iscsi::Task task(::iscsi_reportluns_sync(context.get(), allUnits, longestReport));
    const auto* const list =
        iscsi::isGood(task) ? static_cast<const scsi_reportluns_list*>(::scsi_datain_unmarshall(task.get()))
                            : nullptr; // owned by the task
    if (list == nullptr) {
        giveUp(address, context);
    }
    std::vector<int> units;
    units.reserve(list->num);
    for (std::uint32_t index = 0; index < list->num; ++index) {
        units.push_back(
            list->luns[index]); // NOLINT(cppcoreguidelines-pro-bounds-*): as long as the task says
    }
    ::iscsi_logout_sync(context.get());
    return units;
}

} // namespace restore
