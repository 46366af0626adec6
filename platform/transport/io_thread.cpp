// The transport's I/O thread.

#include "io_thread.h"

#include <boost/asio/post.hpp>
#include <exception>

#include "connector/log/diagnostic_logger.h"

namespace connector::bayeux::transport {

namespace {
const foundation::log::basic_diagnostic_logger<char> logger("connector::bayeux::transport");
}

IoThread::IoThread()
    : io_(std::make_shared<boost::asio::io_context>(1)), work_(boost::asio::make_work_guard(*io_)) {
    thread_ = std::thread([io = io_] {
        for (;;) {
            try {
                io->run();
                return;
            } catch (const std::exception& e) {
                // A handler that throws must not end the thread of every other connection.
                logger.log(foundation::log::error,
                           "Uncaught exception on the I/O thread: ", e.what());
            } catch (...) {
                logger.log(foundation::log::error, "Uncaught exception on the I/O thread");
            }
        }
    });
    id_ = thread_.get_id();
}

IoThread::~IoThread() {
    // Once the work guard goes, run() returns as soon as nothing is queued or in progress.
    work_.reset();
    if (onThisThread())
        thread_.detach();
    else
        thread_.join();
}

void IoThread::post(std::function<void()> task) {
    boost::asio::post(*io_, std::move(task));
}

}  // namespace connector::bayeux::transport
