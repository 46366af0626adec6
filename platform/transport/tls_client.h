#pragma once
// TLS for client connections: the context the transports share, the peer checks each stream
// makes, and the words that explain a failed handshake. Only included by the transport's own
// .cpp files.
//
// Thread safety: makeClientTlsContext may be called from any thread; the others on the thread
// that owns the stream.

#include <openssl/ssl.h>
#include <openssl/x509.h>

#include <boost/asio/ip/address.hpp>
#include <boost/asio/ssl/context.hpp>
#include <boost/asio/ssl/error.hpp>
#include <boost/asio/ssl/host_name_verification.hpp>
#include <memory>
#include <string>

namespace connector::bayeux::transport {

// The system's trusted certificates plus `caFile` (PEM) when given; throws std::runtime_error
// when that file cannot be loaded.
std::shared_ptr<boost::asio::ssl::context> makeClientTlsContext(const std::string& caFile);

// Names `host` for server name indication (names only, never addresses) and verifies the
// server's certificate against it, unless `verify` is off.
template <class TlsStream>
void prepareClientTls(TlsStream& tls, const std::string& host, bool verify) {
    boost::system::error_code notAnAddress;
    boost::asio::ip::make_address(host, notAnAddress);
    if (notAnAddress)
        SSL_set_tlsext_host_name(tls.native_handle(), host.c_str());
    if (verify) {
        tls.set_verify_mode(boost::asio::ssl::verify_peer);
        tls.set_verify_callback(boost::asio::ssl::host_name_verification(host));
    } else {
        tls.set_verify_mode(boost::asio::ssl::verify_none);
    }
}

// The error's text, with the reason a certificate was refused when that was the cause.
template <class TlsStream>
std::string describeTlsError(TlsStream& tls, const boost::system::error_code& ec) {
    std::string text = ec.message();
    if (ec.category() == boost::asio::error::get_ssl_category()) {
        const long result = SSL_get_verify_result(tls.native_handle());
        if (result != X509_V_OK)
            text += std::string(" (") + X509_verify_cert_error_string(result) + ")";
    }
    return text;
}

}  // namespace connector::bayeux::transport
