#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "connector/core.h"
#include "log_capture.h"

namespace {

using connector::Address;
using connector::Context;
using connector::ContextScope;
using connector::Future;
using connector::Message;
using connector::common::ContextState;

using Response = std::unique_ptr<Message>;

class TextMessage : public Message {
  public:
    explicit TextMessage(std::string text) : text(std::move(text)) {}
    std::string text;
};

std::string textOf(const Response& message) {
    auto* text = dynamic_cast<TextMessage*>(message.get());
    return text ? text->text : std::string("<not a text message>");
}

// Answers with its own name followed by the request's text.
connector::ServiceHandler echo(std::string name) {
    return [name](Context&, Response request) {
        return connector::makeReadyFuture<Response>(
            std::make_unique<TextMessage>(name + ":" + textOf(request)));
    };
}

const Address kEcho("test/echo", "test/local");

TEST(ContextStateTest, StoresValuesWithTheirScopeAndReplacesThem) {
    ContextState state;
    EXPECT_FALSE(state.get("key").has_value());
    EXPECT_FALSE(state.scopeOf("key").has_value());
    EXPECT_FALSE(state.getString("key").has_value());

    state.set("key", std::string("one"), ContextScope::Session);
    EXPECT_EQ(state.getString("key"), "one");
    EXPECT_EQ(state.scopeOf("key"), ContextScope::Session);

    state.set("key", 42, ContextScope::Global);
    EXPECT_FALSE(state.getString("key").has_value()) << "an int is not a string";
    ASSERT_TRUE(state.get("key").has_value());
    EXPECT_EQ(std::any_cast<int>(*state.get("key")), 42);
    EXPECT_EQ(state.scopeOf("key"), ContextScope::Global);
}

TEST(ContextStateTest, ConcurrentWritersAndReadersSeeWholeValues) {
    ContextState state;
    std::atomic<bool> wrong{false};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < 2000; ++i) {
                state.set("shared", std::string(8, char('a' + t)), ContextScope::Request);
                auto value = state.getString("shared");
                if (!value || value->size() != 8 || (*value)[0] != (*value)[7])
                    wrong = true;
            }
        });
    }
    for (auto& thread : threads)
        thread.join();
    EXPECT_FALSE(wrong);
}

TEST(ContextTest, DeliversToTheRegisteredServiceAndToItsReplacement) {
    auto context = std::make_shared<Context>();
    EXPECT_FALSE(context->hasService(kEcho));
    context->registerService(kEcho, echo("first"));
    EXPECT_TRUE(context->hasService(kEcho));
    EXPECT_FALSE(context->hasService(Address("test/echo", "other/protocol")));
    EXPECT_EQ(textOf(context->deliver(kEcho, std::make_unique<TextMessage>("hi")).get()),
              "first:hi");

    context->registerService(kEcho, echo("second"));
    EXPECT_EQ(textOf(context->deliver(kEcho, std::make_unique<TextMessage>("hi")).get()),
              "second:hi");
}

TEST(ContextTest, UnknownAddressAndThrowingHandlerGiveFailedFutures) {
    auto context = std::make_shared<Context>();
    auto missing = context->deliver(Address("no/such", "proto"), nullptr);
    ASSERT_TRUE(missing.isReady());
    try {
        missing.get();
        FAIL() << "expected a failed future";
    } catch (const std::runtime_error& e) {
        EXPECT_STREQ(e.what(), "No service registered at: no/such@proto");
    }

    struct HandlerError : std::logic_error {
        using std::logic_error::logic_error;
    };
    context->registerService(
        kEcho, [](Context&, Response) -> Future<Response> { throw HandlerError("handler broke"); });
    auto failed = context->deliver(kEcho, nullptr);
    EXPECT_THROW(failed.get(), HandlerError);
}

TEST(ContextTest, HandlerRunsWithoutTheRegistryLock) {
    // A handler that registers and delivers from inside deliver would deadlock if the registry
    // lock were held while it runs.
    auto context = std::make_shared<Context>();
    const Address inner("test/inner", "test/local");
    context->registerService(kEcho, [inner](Context& ctx, Response request) {
        ctx.registerService(inner, echo("inner"));
        return ctx.deliver(inner, std::move(request));
    });
    auto done = std::make_shared<std::atomic<bool>>(false);
    auto result = std::make_shared<std::string>();
    std::thread caller([context, done, result] {
        *result = textOf(context->deliver(kEcho, std::make_unique<TextMessage>("x")).get());
        *done = true;
    });
    const bool finished = orvale::test::waitUntil([&] { return done->load(); });
    if (!finished) {
        caller.detach();
        FAIL() << "deliver deadlocked";
    }
    caller.join();
    EXPECT_EQ(*result, "inner:x");
}

TEST(ContextTest, ConcurrentRegistrationAndDelivery) {
    auto context = std::make_shared<Context>();
    context->registerService(kEcho, echo("a"));
    std::atomic<int> answered{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 2; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < 500; ++i)
                context->registerService(kEcho, echo(t ? "a" : "b"));
        });
        threads.emplace_back([&] {
            for (int i = 0; i < 500; ++i) {
                const auto text =
                    textOf(context->deliver(kEcho, std::make_unique<TextMessage>("m")).get());
                if (text == "a:m" || text == "b:m")
                    ++answered;
            }
        });
    }
    for (auto& thread : threads)
        thread.join();
    EXPECT_EQ(answered.load(), 1000);
}

}  // namespace
