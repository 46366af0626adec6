#include "connector/message_service/factory_delegator.h"

#include <gtest/gtest.h>

#include <any>
#include <map>

#include "connector/message_service/factory_options.h"
#include "log_capture.h"

namespace connector::message_service {
namespace {

// A service that only has a name; the delegator never calls anything else on it.
class NamedService : public MessageService {
  public:
    explicit NamedService(std::string name) : name_(std::move(name)) {}
    std::string getName() override { return name_; }
    Future<std::shared_ptr<Subscription>> subscribe(
        const std::string&, std::function<void(const JsonMessage&)>) override {
        return unsupported<std::shared_ptr<Subscription>>();
    }
    Future<PublishResult> publish(const std::string&, common::DataBuffer&&) override {
        return unsupported<PublishResult>();
    }
    Future<DisconnectResult> disconnect() override { return unsupported<DisconnectResult>(); }
    Future<std::shared_ptr<Subscription>> listenSubscribe(
        const std::string&, std::function<void(const SubscribeEvent&)>) override {
        return unsupported<std::shared_ptr<Subscription>>();
    }
    Future<std::shared_ptr<Subscription>> listenUnsubscribe(
        const std::string&, std::function<void(const UnsubscribeEvent&)>) override {
        return unsupported<std::shared_ptr<Subscription>>();
    }
    Future<std::shared_ptr<Subscription>> listenStateChange(
        std::function<void(const StateChangeEvent&)>) override {
        return unsupported<std::shared_ptr<Subscription>>();
    }
    ConnectionState getState() override { return ConnectionState::CONNECTED; }
    Future<PublishResult> publishWithContext(const std::string&, common::DataBuffer&&,
                                             std::shared_ptr<common::ContextState>&) override {
        return unsupported<PublishResult>();
    }
    Future<std::shared_ptr<Subscription>> subscribeWithContext(
        const std::string&, std::function<void(const JsonMessage&)>,
        const std::shared_ptr<common::ContextState>&) override {
        return unsupported<std::shared_ptr<Subscription>>();
    }

  private:
    template <class T>
    static Future<T> unsupported() {
        return makeFailedFuture<T>(std::logic_error("not used by these tests"));
    }
    std::string name_;
};

// Makes NamedServices, remembers them strongly and records the options it was given.
class RecordingDelegate : public MessageServiceFactoryDelegate {
  public:
    Future<std::shared_ptr<MessageService>> createMessageService(const std::string& name,
                                                                 const Options& options) override {
        created.push_back(options);
        auto service = std::make_shared<NamedService>(name);
        services[name] = service;
        return makeReadyFuture<std::shared_ptr<MessageService>>(service);
    }
    std::shared_ptr<MessageService> getMessageService(const std::string& name) override {
        auto found = services.find(name);
        return found == services.end() ? nullptr : found->second;
    }
    std::vector<Options> created;
    std::map<std::string, std::shared_ptr<MessageService>> services;
};

class FactoryDelegatorTest : public ::testing::Test {
  protected:
    std::shared_ptr<RecordingDelegate> server = std::make_shared<RecordingDelegate>();
    std::shared_ptr<RecordingDelegate> client = std::make_shared<RecordingDelegate>();
    std::shared_ptr<MessageServiceFactoryDelegatorImpl> delegator =
        std::make_shared<MessageServiceFactoryDelegatorImpl>(server, client);

    static std::string failure(Future<std::shared_ptr<MessageService>> future) {
        try {
            future.get();
        } catch (const std::invalid_argument& e) {
            return e.what();
        }
        return "no invalid_argument";
    }
};

TEST_F(FactoryDelegatorTest, RoutesByEndpointOption) {
    delegator->createMessageService("local", {}).get();
    delegator->createMessageService("remote", {{"endpoint", ""}}).get();
    ASSERT_EQ(server->created.size(), 1u);
    ASSERT_EQ(client->created.size(), 1u);
    EXPECT_EQ(server->created[0].at("name"), "local");
    EXPECT_EQ(client->created[0].at("endpoint"), "");
}

TEST_F(FactoryDelegatorTest, BadNamesFailThroughTheFuture) {
    EXPECT_EQ(failure(delegator->createMessageService("", {})),
              "Invalid message service name, must not be an empty string.");
    EXPECT_EQ(failure(delegator->createMessageService("a b", {})),
              "Message service name must be alpha numeric ([_:-] also allowed): a b");
    EXPECT_TRUE(server->created.empty());
    EXPECT_TRUE(client->created.empty());
}

TEST_F(FactoryDelegatorTest, ExistingServiceIsReturnedWithoutCreating) {
    orvale::test::LogCapture capture;
    auto first = delegator->createMessageService("svc", {}).get();
    auto second = delegator->createMessageService("svc", {{"endpoint", "ws://x"}}).get();
    EXPECT_EQ(first, second);
    EXPECT_TRUE(client->created.empty());
    EXPECT_TRUE(capture.contains("Found existing message service instance: svc"));
    EXPECT_TRUE(capture.contains("Using server factory to create message service: svc"));
    // The client delegate is asked after the server delegate.
    client->services["remote"] = std::make_shared<NamedService>("remote");
    EXPECT_EQ(delegator->getMessageService("remote")->getName(), "remote");
    EXPECT_EQ(delegator->getMessageService("nobody"), nullptr);
}

TEST_F(FactoryDelegatorTest, FirstMatchingMappingAddsOptionsWithoutOverwriting) {
    orvale::test::LogCapture capture;
    delegator->setFactoryOptionsMappings({
        {"name", "remote", {{"endpoint", "ws://first"}, {"colour", "red"}}},
        {"name", "remote", {{"extra", "second"}}},
    });
    delegator->createMessageService("remote", {{"colour", "blue"}, {"name", "ignored"}}).get();
    ASSERT_EQ(client->created.size(), 1u);
    const auto& options = client->created[0];
    EXPECT_EQ(options.at("endpoint"), "ws://first");
    EXPECT_EQ(options.at("colour"), "blue");
    EXPECT_EQ(options.at("name"), "remote");
    EXPECT_EQ(options.count("extra"), 0u);
    EXPECT_TRUE(capture.contains("Found options mapping: name = remote"));
}

TEST_F(FactoryDelegatorTest, MappingsLogTextAndIndependentCopies) {
    orvale::test::LogCapture capture;
    delegator->setFactoryOptionsMappings({});
    EXPECT_TRUE(capture.contains("Setting options mappings: []"));
    delegator->setFactoryOptionsMappings({{"K1", "V1", {{"a", "1"}}}, {"K2", "V2", {{"b", "2"}}}});
    EXPECT_TRUE(capture.contains(
        "Setting options mappings: [{optionKey:K1,optionValue:V1,extraOptions:{a:1,}},"
        "{optionKey:K2,optionValue:V2,extraOptions:{b:2,}},]"));
    auto copy = delegator->getFactoryOptionsMappings();
    copy.clear();
    EXPECT_EQ(delegator->getFactoryOptionsMappings().size(), 2u);
}

// The property API of a service framework, as readFactoryOptionsFrom expects it.
namespace props {
class AnyMap;
class Any {
  public:
    Any() = default;
    template <class T>
    Any(T value) : value_(std::move(value)) {}  // NOLINT: implicit like the real one
    bool Empty() const { return !value_.has_value(); }
    const std::type_info& Type() const { return value_.type(); }
    const std::any& raw() const { return value_; }

  private:
    std::any value_;
};
template <class T>
T any_cast(const Any& any) {
    return std::any_cast<T>(any.raw());
}
class AnyMap : public std::map<std::string, Any> {
  public:
    Any AtCompoundKey(const std::string& key, Any defaultValue) const {
        const auto dot = key.find('.');
        auto found = find(key.substr(0, dot));
        if (found == end())
            return defaultValue;
        if (dot == std::string::npos)
            return found->second;
        if (found->second.Type() != typeid(AnyMap))
            return defaultValue;
        return any_cast<AnyMap>(found->second).AtCompoundKey(key.substr(dot + 1), defaultValue);
    }
};
struct ServiceReference {
    std::map<std::string, Any> properties;
    Any GetProperty(const std::string& key) const {
        auto found = properties.find(key);
        return found == properties.end() ? Any() : found->second;
    }
};
}  // namespace props

TEST(FactoryOptions, ReadsStringEntriesOfTheNestedMap) {
    props::AnyMap options;
    options["endpoint"] = std::string("ws://host/bayeux");
    options["retries"] = 3;
    options["nested"] = props::AnyMap();
    props::AnyMap connector;
    connector["messageServiceFactoryOptions"] = options;
    props::AnyMap orv;
    orv["embeddedConnector"] = connector;
    props::ServiceReference reference{{{"orv", orv}}};

    auto result = readFactoryOptionsFrom<props::AnyMap>(reference);
    EXPECT_EQ(result.size(), 1u);
    EXPECT_EQ(result.at("endpoint"), "ws://host/bayeux");

    EXPECT_TRUE(readFactoryOptionsFrom<props::AnyMap>(props::ServiceReference{}).empty());
    EXPECT_TRUE(readFactoryOptionsFrom<props::AnyMap>(
                    props::ServiceReference{{{"orv", std::string("not a map")}}})
                    .empty());
    props::AnyMap withoutKey;
    withoutKey["other"] = connector;
    EXPECT_TRUE(
        readFactoryOptionsFrom<props::AnyMap>(props::ServiceReference{{{"orv", withoutKey}}})
            .empty());
}

}  // namespace
}  // namespace connector::message_service
