// The long-polling transport against a scripted HTTP server: which connection each request
// takes, keep-alive connections the server closed, and the answers that end the connection.

#include "connector/bayeux/long_polling_transport.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <boost/beast/http.hpp>
#include <list>

#include "websocket_peers.h"

namespace connector::bayeux::transport_test {
namespace {

namespace http = beast::http;

// Answers each POST from a thread per connection with what `answer` makes of its body; records
// the bodies with the number of the connection they came on (0, 1, … in accepting order).
class HttpServer {
  public:
    struct Answer {
        unsigned status = 200;
        std::string body;
        bool closeAfter = false;  // close the socket after answering, with no notice
    };
    using Script = std::function<Answer(const std::string& body)>;

    explicit HttpServer(Script script) : script_(std::move(script)) {
        threads_.emplace_back([this] { acceptLoop(); });
    }
    ~HttpServer() {
        // The accepting thread goes first: no connection comes after the others end, and the
        // lists stop changing, so the joins need no lock (a serving thread may wait for it).
        ::shutdown(acceptor_.native_handle(), SHUT_RDWR);
        threads_[0].join();
        for (auto& socket : sockets_)
            ::shutdown(socket.native_handle(), SHUT_RDWR);
        for (std::size_t i = 1; i < threads_.size(); ++i)
            threads_[i].join();
    }
    std::string url() const {
        return "http://127.0.0.1:" + std::to_string(acceptor_.local_endpoint().port()) + "/b";
    }
    std::vector<std::pair<int, std::string>> requests() {
        std::lock_guard<std::mutex> lock(mutex_);
        return requests_;
    }

  private:
    void acceptLoop() {
        for (int index = 0;; ++index) {
            boost::system::error_code ec;
            tcp::socket socket(io_);
            acceptor_.accept(socket, ec);
            if (ec)
                return;
            std::lock_guard<std::mutex> lock(mutex_);
            auto& kept = sockets_.emplace_back(std::move(socket));
            threads_.emplace_back([this, &kept, index] { serve(kept, index); });
        }
    }
    void serve(tcp::socket& socket, int index) {
        beast::flat_buffer buffer;
        for (;;) {
            http::request<http::string_body> request;
            boost::system::error_code ec;
            http::read(socket, buffer, request, ec);
            if (ec)
                return;
            std::unique_lock<std::mutex> lock(mutex_);
            requests_.emplace_back(index, request.body());
            lock.unlock();
            const Answer answer = script_(request.body());
            http::response<http::string_body> response{http::int_to_status(answer.status), 11};
            response.body() = answer.body;
            response.prepare_payload();
            http::write(socket, response, ec);
            if (ec || answer.closeAfter)
                return (void)::shutdown(socket.native_handle(), SHUT_RDWR);
        }
    }

    const Script script_;
    asio::io_context io_;
    tcp::acceptor acceptor_{io_, {asio::ip::make_address("127.0.0.1"), 0}};
    std::mutex mutex_;  // guards requests_, and sockets_ and threads_ while accepting
    std::list<tcp::socket> sockets_;
    std::vector<std::pair<int, std::string>> requests_;
    std::vector<std::thread> threads_;
};

Client connect(const HttpServer& server, LongPollingTransportOptions options = {}) {
    auto context = std::make_shared<Context>();
    context->registerService(longPollingTransportAddress(), makeLongPollingTransport(options));
    return Client(server.url(), context, longPollingTransportAddress());
}

const char* const kConnectAnswer = R"([{"channel":"/meta/connect","successful":true}])";
const char* const kPublishAnswer = R"([{"channel":"/a","successful":true}])";

TEST(LongPollingTransport, HeldConnectsTakeTheirOwnConnectionsAndBadAnswersEndTheConnection) {
    std::promise<void> release;
    auto released = release.get_future().share();
    HttpServer server([released](const std::string& body) {
        if (body.find("/meta/connect") != std::string::npos) {
            released.wait_for(5s);
            return HttpServer::Answer{200, kConnectAnswer};
        }
        return HttpServer::Answer{200, kPublishAnswer};
    });
    Client client = connect(server);
    client.send(std::make_unique<ConnectRequest>("long-polling"));
    ASSERT_TRUE(waitUntil([&] { return server.requests().size() == 1; }));
    client.send(publish("/a"));
    ASSERT_TRUE(waitUntil([&] { return client.collector->count() == 1; }));
    client.send(publish("/a"));
    ASSERT_TRUE(waitUntil([&] { return client.collector->count() == 2; }));
    release.set_value();
    ASSERT_TRUE(waitUntil([&] { return client.collector->count() == 3; }));
    // The first connection opened while connecting carries the publishes, kept alive.
    const auto requests = server.requests();
    EXPECT_EQ(requests[0].first, 1);
    EXPECT_EQ(requests[1], std::make_pair(0, std::string(R"([{"channel":"/a","data":1}])")));
    EXPECT_EQ(requests[2].first, 0);

    // A request finding its idle connection closed goes on a new one; a non-Bayeux answer ends it.
    HttpServer closing([](const std::string&) {
        return HttpServer::Answer{200, kPublishAnswer, true};
    });
    Client retrying = connect(closing);
    for (std::size_t n = 1; n <= 3; ++n) {
        retrying.send(publish("/a"));
        ASSERT_TRUE(waitUntil([&] { return retrying.collector->count() == n; }));
    }
    EXPECT_EQ(closing.requests().back().first, 2);
    EXPECT_FALSE(retrying.completed());

    const HttpServer::Answer answers[] = {
        {500, kPublishAnswer}, {200, "<html>"}, {200, "[" + std::string(2000, ' ') + "]"}};
    for (const auto& answer : answers) {
        HttpServer server([&](const std::string&) { return answer; });
        LongPollingTransportOptions options;
        options.maxFrameBytes = 1000;
        Client client = connect(server, options);
        client.send(publish("/a"));
        ASSERT_TRUE(waitUntil([&] { return client.completed(); })) << answer.body;
        EXPECT_EQ(client.collector->count(), 0u);
    }
}

}  // namespace
}  // namespace connector::bayeux::transport_test
