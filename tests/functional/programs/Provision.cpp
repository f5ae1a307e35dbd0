#include "app/ServiceAddresses.h"
#include "info/log/Logger.h"
#include "ordak/CertificateGenerator.h"
#include "ordak/CertificateService.h"
#include "ordak/Certificates.h"

#include <array>
#include <exception>
#include <iostream>
#include <string>
#include <unistd.h>

namespace {

using agent::ordak::CertificateServiceLimits;

CertificateServiceLimits limitsFrom(int count, char** arguments) {
    CertificateServiceLimits limits;
    if (count > 1) {
        limits.connect = limits.total = std::chrono::milliseconds(std::stoi(arguments[1]));
    }
    return limits;
}

void provision(agent::info::Logger& logger, CertificateServiceLimits limits) {
    std::array<char, 256> hostName{};
    ::gethostname(hostName.data(), hostName.size() - 1);
    agent::ordak::CertificateService service(agent::app::certificateServiceHost, limits);
    agent::ordak::Certificates certificates;
    agent::ordak::loadOrCreate(certificates, logger, [&] {
        agent::ordak::CertificateGenerator(logger, hostName.data(), agent::app::certificateServiceKey(),
                                           service)
            .generate();
    });
    std::cout << certificates.key << certificates.certificate << certificates.ca << std::flush;
}

} // namespace

/// Obtains the agent's certificates in the same way as the agent, and prints the three texts. The log, and
/// the reason of a failure, go to standard error. The argument is the time limit for the service in
/// milliseconds.
int main(int count, char** arguments) {
    agent::info::Logger logger([](const std::string& message, int level, agent::info::LogTime /*time*/) {
        std::cerr << level << " " << message << std::flush;
    });
    try {
        provision(logger, limitsFrom(count, arguments));
        return 0;
    } catch (const std::exception& error) {
        std::cerr << error.what() << "\n";
        return 1;
    }
}
