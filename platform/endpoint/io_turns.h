#pragma once
// Runs an endpoint I/O thread's io_context a turn at a time: the handlers that are ready
// together run inside one DeferredWakes.
//
// A busy connection's frames then share the wakes of the server's delivery threads and, in a
// cluster, one message to the other members per channel, instead of paying for both once per
// frame. The batch grows with the load: a turn holds only what is already there (queued
// handlers and sockets that are ready without waiting), so a quiet hub answers as soon as
// before. `handlers` bounds a turn, and with it how long a busy thread holds wakes back.
//
// Thread safety: call on the thread that is to run `io`; returns once `io` stops or runs out
// of work. An exception from a handler leaves through it, after the turn's scope has ended.

#include <boost/asio/io_context.hpp>
#include <cstddef>

namespace connector::bayeux::endpoint {

void runInTurns(boost::asio::io_context& io, std::size_t handlers);

}  // namespace connector::bayeux::endpoint
