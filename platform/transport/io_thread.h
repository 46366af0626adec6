#pragma once
// The one I/O thread of a WebSocket transport service and the io_context it runs.
//
// Shared by the service and every connection it opened, so the thread lives while any of them
// does. The last owner lets run() return and joins the thread; when that owner is a handler on
// the I/O thread itself the thread is detached instead and ends as soon as that handler returns.
// Only included by the transport's own .cpp files.

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <functional>
#include <memory>
#include <thread>

namespace connector::bayeux::transport {

class IoThread {
  public:
    IoThread();
    ~IoThread();
    IoThread(const IoThread&) = delete;
    IoThread& operator=(const IoThread&) = delete;

    boost::asio::io_context& context() { return *io_; }
    bool onThisThread() const { return std::this_thread::get_id() == id_; }
    // Runs `task` on the I/O thread, never inline.
    void post(std::function<void()> task);

  private:
    std::shared_ptr<boost::asio::io_context> io_;  // the thread keeps its own reference
    boost::asio::executor_work_guard<boost::asio::io_context::executor_type> work_;
    std::thread thread_;
    std::thread::id id_;
};

}  // namespace connector::bayeux::transport
