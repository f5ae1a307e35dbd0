#include "app/ApiComposition.h"

#include "app/ServiceAddresses.h"
#include "app/Version.h"
#include "info/SystemInfoProvider.h"
#include "info/VSSWriterDetailsProvider.h"
#include "ordak/Backup.h"
#include "ordak/BackupCancel.h"
#include "ordak/BackupList.h"
#include "ordak/BackupStatus.h"
#include "ordak/BasicHost.h"
#include "ordak/CertificateGenerator.h"
#include "ordak/CertificateService.h"
#include "ordak/Certificates.h"
#include "ordak/ConfigGet.h"
#include "ordak/ConfigSet.h"
#include "ordak/DriverStatus.h"
#include "ordak/FeatureApi.h"
#include "ordak/HTTPInterpreter.h"
#include "ordak/Host.h"
#include "ordak/Install.h"
#include "ordak/LogLevel.h"
#include "ordak/Logs.h"
#include "ordak/OrdakPairDelegate.h"
#include "ordak/Pair.h"

namespace agent::app {

namespace {

using ordak::APICall;
using ordak::APIExtendedData;
using ordak::HTTPInterpreter;

ordak::Certificates provideCertificates(info::Logger& logger, const info::SystemInfoProvider& systemInfo) {
    ordak::CertificateService service(certificateServiceHost);
    ordak::Certificates certificates;
    ordak::loadOrCreate(certificates, logger, [&] {
        ordak::CertificateGenerator(logger, systemInfo.getHostName(), certificateServiceKey(), service)
            .generate();
    });
    return certificates;
}

/// Wraps a handler's call operator in the function type that the interpreter expects. The function refers to
/// the handler, which must outlive it.
template <typename Handler>
HTTPInterpreter::Handler extended(Handler& handler) {
    return [&handler](const std::string& body, const APIExtendedData& request) {
        return handler(body, request);
    };
}

template <typename Handler>
HTTPInterpreter::BodyHandler withBody(Handler& handler) {
    return [&handler](const std::string& body) { return handler(body); };
}

template <typename Handler>
HTTPInterpreter::PlainHandler plain(Handler& handler) {
    return [&handler] { return handler(); };
}

} // namespace

void composeApi(info::LoggingStack& logging, db::IDataProviderExtended& dataProvider,
                const IDriverInfoProvider& driverInfo, const info::VolumeProvider& volumeProvider,
                core::backup::IBackupManager& backupManager, ordak::FeatureManager& features,
                IConfigData& config, core::IEngine& engine,
                const std::function<void(ordak::HTTPServer&)>& continuation) {
    info::Logger& logger = logging.logger;
    const info::SystemInfoProvider systemInfo;
    ordak::OrdakPairDelegate pairing(dataProvider);
    const ordak::Certificates certificates = provideCertificates(logger, systemInfo);
    HTTPInterpreter interpreter(
        logger, logging.securityLogger,
        [&](int deviceId, const std::string& address) { return pairing.isAuthorized(deviceId, address); });
    ordak::HTTPServer server(
        logger, certificates.key, certificates.certificate, certificates.ca,
        [&](int deviceId, std::string ip, std::string method, std::string url,
            const ordak::HTTPServer::Arguments& args, std::string data, std::string& contentType,
            std::string& response) {
            return interpreter.interpret(deviceId, std::move(ip), std::move(method), std::move(url), args,
                                         std::move(data), contentType, response);
        },
        [&](int deviceId) { return pairing.isPairedWith(deviceId); });

    core::backup::VSSWriterDetailsProvider writers;
    const ordak::BasicHost basicHost(logger, systemInfo);
    ordak::Host host(logger, systemInfo, driverInfo, volumeProvider, engine, writers, version);
    ordak::Pair pair(logger, pairing, features);
    ordak::Backup backup(logger, engine, features);
    ordak::BackupStatus backupStatus(backupManager);
    ordak::BackupList backupList(backupManager, logger);
    ordak::BackupCancel backupCancel(engine);
    ordak::Logs logs(logger, logging.decorator());
    ordak::LogLevel logLevel(logger, logging.levelFilter);
    ordak::FeatureApi feature(logger, features);
    ordak::Install install(driverInfo);
    ordak::ConfigGet configGet(config);
    ordak::ConfigSet configSet(config);
    ordak::DriverStatus driverStatus(driverInfo);
    interpreter.setCallback(APICall::basichost, plain(basicHost));
    interpreter.setCallback(APICall::host, withBody(host));
    interpreter.setCallback(APICall::pair, extended(pair));
    interpreter.setCallback(APICall::backup, withBody(backup));
    interpreter.setCallback(APICall::backupStatus, extended(backupStatus));
    interpreter.setCallback(APICall::backupList, plain(backupList));
    interpreter.setCallback(APICall::backupCancel, extended(backupCancel));
    interpreter.setCallback(APICall::logs, extended(logs));
    interpreter.setCallback(APICall::logLevel, withBody(logLevel));
    interpreter.setCallback(APICall::feature, withBody(feature));
    interpreter.setCallback(APICall::install, plain(install));
    interpreter.setCallback(APICall::configGet, plain(configGet));
    interpreter.setCallback(APICall::configSet, withBody(configSet));
    interpreter.setCallback(APICall::driverStatus, plain(driverStatus));
    continuation(server);
}

} // namespace agent::app
