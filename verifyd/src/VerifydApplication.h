#pragma once

#include <string>
#include <vector>

#include <Poco/Util/ServerApplication.h>

#include "ServiceConfig.h"

namespace brackmoor::verifyd {

/// The brackmoor-verifyd program:
///
///   brackmoor-verifyd [--config FILE] [serve]              run the service (the default)
///   brackmoor-verifyd [--config FILE] agent add|remove|list ...
///   brackmoor-verifyd [--config FILE] contact add|remove|list ...
///
/// The configuration defaults to /etc/opt/brackmoor/verifyd.ini. "serve" also
/// takes the server options of the POCO framework (--daemon, --pidfile=FILE).
/// Exit statuses: 0 success; 1 an administration command was refused; 2 a
/// usage error, an invalid configuration, or a service that cannot start with
/// its configuration (certificate, database, outbox, listen address).
class VerifydApplication : public Poco::Util::ServerApplication {
public:
    /// Exit status for usage and configuration errors.
    static constexpr int kBadConfiguration = 2;

    /// Sends messages of the framework's start-up (a bad option, say) to
    /// standard error as one line each, like the program's own messages.
    VerifydApplication();

protected:
    void defineOptions(Poco::Util::OptionSet& options) override;
    void handleOption(const std::string& name, const std::string& value) override;
    int main(const std::vector<std::string>& args) override;

private:
    /// Runs the service until SIGTERM or SIGINT.
    int Serve(const ServiceConfig& config);

    /// Runs one administration subcommand against the configured database.
    int Administer(const ServiceConfig& config, const std::vector<std::string>& args);

    void PrintHelp() const;

    std::string configPath = "/etc/opt/brackmoor/verifyd.ini";
    bool helpRequested = false;
};

} // namespace brackmoor::verifyd
