#include "RequestHandlerFactory.h"

#include "RequestHandler.h"

namespace brackmoor::verifyd {

Poco::Net::HTTPRequestHandler* RequestHandlerFactory::createRequestHandler(
    const Poco::Net::HTTPServerRequest&)
{
    return new RequestHandler(api);
}

} // namespace brackmoor::verifyd
