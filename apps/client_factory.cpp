#include "client_factory.h"

#include "cli.h"

namespace orvale::app {

namespace ms = connector::message_service;

ClientFactory::ClientFactory()
    : server_(connector::bayeux::makeBayeuxServer(connector::bayeux::BayeuxServerOptions{1})),
      delegator_(std::make_shared<ms::MessageServiceFactoryDelegatorImpl>(
          std::make_shared<ms::MessageServiceFactoryServerDelegate>(server_),
          std::make_shared<ms::MessageServiceFactoryClientDelegate>(connector::makeContext()))) {}

connector::Future<std::shared_ptr<ms::MessageService>> ClientFactory::start(
    const std::string& name, const std::string& url, const std::string& apiKey,
    const ms::Options& extra) {
    ms::Options options = extra;
    options["endpoint"] = url;
    if (!apiKey.empty())
        options["orvapikey"] = apiKey;
    return delegator_->createMessageService(name, options);
}

std::shared_ptr<ms::MessageService> ClientFactory::connect(const std::string& name,
                                                           const std::string& url,
                                                           const std::string& apiKey,
                                                           std::chrono::milliseconds timeout,
                                                           const ms::Options& extra) {
    auto future = start(name, url, apiKey, extra);
    if (!future.waitFor(timeout))
        throw Failure("cannot connect to " + url + ": no answer within " +
                      std::to_string(timeout.count()) + " ms");
    try {
        return future.get();
    } catch (const std::exception& e) {
        const std::string cause = e.what();
        // The transport's own message names the URL already.
        throw Failure(cause.find(url) != std::string::npos
                          ? cause
                          : "cannot connect to " + url + ": " + cause);
    }
}

template <class T>
T await(connector::Future<T>& future, std::chrono::milliseconds timeout, const std::string& what) {
    if (!future.waitFor(timeout))
        throw Failure(what + ": no answer within " + std::to_string(timeout.count()) + " ms");
    try {
        return future.get();
    } catch (const std::exception& e) {
        throw Failure(what + ": " + e.what());
    }
}

template std::shared_ptr<ms::MessageService> await(
    connector::Future<std::shared_ptr<ms::MessageService>>&, std::chrono::milliseconds,
    const std::string&);
template std::shared_ptr<ms::Subscription> await(
    connector::Future<std::shared_ptr<ms::Subscription>>&, std::chrono::milliseconds,
    const std::string&);
template ms::PublishResult await(connector::Future<ms::PublishResult>&, std::chrono::milliseconds,
                                 const std::string&);
template ms::DisconnectResult await(connector::Future<ms::DisconnectResult>&,
                                    std::chrono::milliseconds, const std::string&);

}  // namespace orvale::app
