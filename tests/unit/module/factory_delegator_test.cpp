#include "connector/message_service/factory_delegator.h"

#include <gtest/gtest.h>

#include <any>
#include <map>

#include "connector/message_service/factory_options.h"
#include "connector/message_service/server_impl.h"
#include "failure_text.h"
#include "log_capture.h"

namespace connector::message_service {
namespace {

// Makes server services, remembers them strongly and records the options it was given.
struct RecordingDelegate : MessageServiceFactoryDelegate {
    Future<std::shared_ptr<MessageService>> createMessageService(const std::string& name,
                                                                 const Options& options) override {
        created.push_back(options);
        services[name] = std::make_shared<MessageServiceServerImpl>(name, bayeux);
        return makeReadyFuture<std::shared_ptr<MessageService>>(services[name]);
    }
    std::shared_ptr<MessageService> getMessageService(const std::string& name) override {
        auto found = services.find(name);
        return found == services.end() ? nullptr : found->second;
    }
    std::shared_ptr<bayeux::BayeuxServer> bayeux = bayeux::makeBayeuxServer();
    std::vector<Options> created;
    std::map<std::string, std::shared_ptr<MessageService>> services;
};

struct FactoryDelegatorTest : ::testing::Test {
    std::shared_ptr<RecordingDelegate> server = std::make_shared<RecordingDelegate>();
    std::shared_ptr<RecordingDelegate> client = std::make_shared<RecordingDelegate>();
    std::shared_ptr<MessageServiceFactoryDelegatorImpl> delegator =
        std::make_shared<MessageServiceFactoryDelegatorImpl>(server, client);
    orvale::test::LogCapture capture;
};

// The endpoint option picks the client delegate; an existing service is returned as it is, the
// server delegate asked before the client one.
TEST_F(FactoryDelegatorTest, RoutesByEndpointOptionFindsExistingServicesAndMapsOptions) {
    auto local = delegator->createMessageService("local", {}).get();
    delegator->createMessageService("remote", {{"endpoint", ""}}).get();
    EXPECT_EQ(server->created, (std::vector<Options>{{{"name", "local"}}}));
    EXPECT_EQ(client->created, (std::vector<Options>{{{"name", "remote"}, {"endpoint", ""}}}));
    EXPECT_TRUE(capture.contains("Using server factory to create message service: local"));

    EXPECT_EQ(delegator->createMessageService("local", {{"endpoint", "ws://x"}}).get(), local);
    EXPECT_EQ(client->created.size(), 1u);
    EXPECT_TRUE(capture.contains("Found existing message service instance: local"));
    EXPECT_EQ(delegator->getMessageService("remote")->getName(), "remote");
    EXPECT_EQ(delegator->getMessageService("nobody"), nullptr);

    EXPECT_EQ(orvale::test::failureText(delegator->createMessageService("a b", {})),
              "Message service name must be alpha numeric ([_:-] also allowed): a b");
    EXPECT_EQ(server->created.size() + client->created.size(), 2u) << "a refused name asks none";

    // The first matching mapping adds its options without overwriting the caller's.
    delegator->setFactoryOptionsMappings({{"K1", "V1", {{"a", "1"}}}, {"K2", "V2", {{"b", "2"}}}});
    EXPECT_TRUE(capture.contains(
        "Setting options mappings: [{optionKey:K1,optionValue:V1,extraOptions:{a:1,}},"
        "{optionKey:K2,optionValue:V2,extraOptions:{b:2,}},]"));
    EXPECT_EQ(delegator->getFactoryOptionsMappings().size(), 2u);

    delegator->setFactoryOptionsMappings({
        {"name", "mapped", {{"endpoint", "ws://first"}, {"colour", "red"}}},
        {"name", "mapped", {{"extra", "second"}}},
    });
    delegator->createMessageService("mapped", {{"colour", "blue"}, {"name", "ignored"}}).get();
    ASSERT_EQ(client->created.size(), 2u);
    EXPECT_EQ(client->created.back(),
              (Options{{"endpoint", "ws://first"}, {"colour", "blue"}, {"name", "mapped"}}));
    EXPECT_TRUE(capture.contains("Found options mapping: name = mapped"));
}

// The property API of a service framework, as readFactoryOptionsFrom expects it.
namespace props {
struct Any : std::any {
    using std::any::any;
    bool Empty() const { return !has_value(); }
    const std::type_info& Type() const { return type(); }
};
struct AnyMap : std::map<std::string, Any> {
    using std::map<std::string, Any>::map;
    Any AtCompoundKey(const std::string& key, Any otherwise) const {
        const auto dot = key.find('.');
        auto found = find(key.substr(0, dot));
        if (found == end() || dot == std::string::npos)
            return found == end() ? otherwise : found->second;
        if (found->second.Type() != typeid(AnyMap))
            return otherwise;
        return std::any_cast<AnyMap>(found->second).AtCompoundKey(key.substr(dot + 1), otherwise);
    }
};
struct ServiceReference {
    AnyMap properties;
    Any GetProperty(const std::string& key) const { return properties.AtCompoundKey(key, Any()); }
};
}  // namespace props

TEST(FactoryOptions, ReadsStringEntriesOfTheNestedMap) {
    using props::AnyMap;
    const AnyMap options{
        {"endpoint", std::string("ws://host/bayeux")}, {"retries", 3}, {"nested", AnyMap()}};
    const AnyMap connector{{"messageServiceFactoryOptions", options}};
    auto read = [](AnyMap properties) {
        return readFactoryOptionsFrom<AnyMap>(props::ServiceReference{std::move(properties)});
    };
    const auto result = read({{"orv", AnyMap{{"embeddedConnector", connector}}}});
    EXPECT_EQ(result,
              (std::unordered_map<std::string, std::string>{{"endpoint", "ws://host/bayeux"}}));
    EXPECT_TRUE(read({}).empty());
    EXPECT_TRUE(read({{"orv", std::string("not a map")}}).empty());
    EXPECT_TRUE(read({{"orv", AnyMap{{"other", connector}}}}).empty());
    EXPECT_TRUE(read({{"orv", AnyMap{{"embeddedConnector", 1}}}}).empty());
}

}  // namespace
}  // namespace connector::message_service
