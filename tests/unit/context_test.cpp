#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "connector/core.h"
#include "failure_text.h"
#include "log_capture.h"

namespace {

using connector::Address;
using connector::Context;
using connector::ContextScope;
using connector::Message;
using Response = std::unique_ptr<Message>;

struct Text : Message {
    explicit Text(std::string text) : text(std::move(text)) {}
    std::string text;
};

std::string ask(Context& context, const Address& to, std::string text) {
    const Response reply = context.deliver(to, std::make_unique<Text>(text)).get();
    auto* typed = dynamic_cast<Text*>(reply.get());
    return typed ? typed->text : "<not a text message>";
}

// Answers with its own name followed by the request's text.
connector::ServiceHandler echo(std::string name) {
    return [name](Context&, Response request) {
        return connector::makeReadyFuture<Response>(
            std::make_unique<Text>(name + ":" + static_cast<Text&>(*request).text));
    };
}

const Address kEcho("test/echo", "test/local");

// The latest service registered at an address answers, and a handler runs without the registry's
// lock: it may register and deliver from inside deliver, and registration may race delivery.
TEST(ContextTest, DeliversToTheLatestServiceWhichMayRegisterAndDeliverItselfAndKeepsState) {
    auto context = std::make_shared<Context>();
    EXPECT_FALSE(context->hasService(kEcho));
    context->registerService(kEcho, echo("first"));
    EXPECT_TRUE(context->hasService(kEcho));
    EXPECT_FALSE(context->hasService(Address("test/echo", "other/protocol")));
    EXPECT_EQ(ask(*context, kEcho, "hi"), "first:hi");
    context->registerService(kEcho, echo("second"));
    EXPECT_EQ(ask(*context, kEcho, "hi"), "second:hi");

    EXPECT_EQ(orvale::test::failureText(context->deliver(Address("no/such", "proto"), nullptr)),
              "No service registered at: no/such@proto");
    context->registerService(kEcho, [](Context&, Response) -> connector::Future<Response> {
        throw std::logic_error("handler broke");
    });
    EXPECT_THROW(context->deliver(kEcho, nullptr).get(), std::logic_error);
    const Address inner("test/inner", "test/local");
    context->registerService(kEcho, [inner](Context& ctx, Response request) {
        ctx.registerService(inner, echo("inner"));
        return ctx.deliver(inner, std::move(request));
    });
    auto result = std::make_shared<std::string>();
    auto done = std::make_shared<std::atomic<bool>>(false);
    std::thread caller([context, result, done] {
        *result = ask(*context, kEcho, "x");
        *done = true;
    });
    if (!orvale::test::waitUntil([&] { return done->load(); })) {
        caller.detach();
        FAIL() << "deliver deadlocked";
    }
    caller.join();
    EXPECT_EQ(*result, "inner:x");

    // A call in flight keeps its handler alive while another thread replaces it.
    std::atomic<int> answered{0};
    std::thread registering([&] {
        for (int i = 0; i < 1000; ++i)
            context->registerService(kEcho, echo(i % 2 ? "a" : "b"));
    });
    for (int i = 0; i < 1000; ++i) {
        const auto text = ask(*context, kEcho, "m");
        answered += text == "a:m" || text == "b:m" || text == "inner:m";
    }
    registering.join();
    EXPECT_EQ(answered.load(), 1000);

    // Values keep their scope; a value of another type is not read as a string. Concurrent access
    // runs under the transport tests, which set the API key while the I/O thread reads it.
    connector::common::ContextState state;
    EXPECT_FALSE(state.get("key") || state.scopeOf("key") || state.getString("key"));
    state.set("key", std::string("one"), ContextScope::Session);
    EXPECT_EQ(state.getString("key"), "one");
    EXPECT_EQ(state.scopeOf("key"), ContextScope::Session);
    state.set("key", 42, ContextScope::Global);
    EXPECT_FALSE(state.getString("key").has_value()) << "an int is not a string";
    EXPECT_EQ(std::any_cast<int>(state.get("key").value_or(0)), 42);
    EXPECT_EQ(state.scopeOf("key"), ContextScope::Global);
}

}  // namespace
