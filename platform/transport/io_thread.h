#pragma once
// The one I/O thread of a WebSocket transport service and the io_context it runs.
//
// Owned by the service alone; connections post through a weak reference and keep only the
// io_context object alive (their sockets must not outlive it). The destructor lets run() return
// once no work is left, which the service ensures by closing its connections first, and joins
// the thread; on the I/O thread itself, where joining is impossible, it detaches it instead.
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

    const std::shared_ptr<boost::asio::io_context>& context() const { return io_; }
    bool onThisThread() const { return std::this_thread::get_id() == id_; }
    std::thread::id id() const { return id_; }
    // Runs `task` on the I/O thread, never inline.
    void post(std::function<void()> task);

  private:
    std::shared_ptr<boost::asio::io_context> io_;  // the thread keeps its own reference
    boost::asio::executor_work_guard<boost::asio::io_context::executor_type> work_;
    std::thread thread_;
    std::thread::id id_;
};

}  // namespace connector::bayeux::transport
