#include <sys/stat.h>

#include <iostream>

#include <Poco/Exception.h>

#include "VerifydApplication.h"

int main(int argc, char** argv)
{
    // The database, the outbox and the log hold tokens' digests, contacts and
    // codes: nothing this program creates is for other users.
    ::umask(077);
    try {
        brackmoor::verifyd::VerifydApplication application;
        const int status = application.run(argc, argv);
        // The framework answers a bad command line with its own "configuration
        // error" status; this program uses one status for all such errors.
        return status == Poco::Util::Application::EXIT_CONFIG
                   ? brackmoor::verifyd::VerifydApplication::kBadConfiguration
                   : status;
    } catch (const Poco::Exception& e) {
        std::cerr << "brackmoor-verifyd: " << e.displayText() << "\n";
        return 1;
    } catch (const std::exception& e) {
        std::cerr << "brackmoor-verifyd: " << e.what() << "\n";
        return 1;
    }
}
