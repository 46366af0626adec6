// The client TLS context.

#include "tls_client.h"

#include <stdexcept>

namespace connector::bayeux::transport {

std::shared_ptr<boost::asio::ssl::context> makeClientTlsContext(const std::string& caFile) {
    namespace ssl = boost::asio::ssl;
    auto tls = std::make_shared<ssl::context>(ssl::context::tls_client);
    tls->set_options(ssl::context::default_workarounds | ssl::context::no_sslv2 |
                     ssl::context::no_sslv3);
    tls->set_default_verify_paths();
    if (!caFile.empty()) {
        boost::system::error_code ec;
        tls->load_verify_file(caFile, ec);
        if (ec)
            throw std::runtime_error("cannot load the CA file " + caFile + ": " + ec.message());
    }
    return tls;
}

}  // namespace connector::bayeux::transport
