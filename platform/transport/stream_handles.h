#pragma once
// The two streams an open connection hands the client, wired the same way for every transport:
// the client holds the inbound publisher through a handle and subscribes the outbound
// subscriber to its requests; the connection closes once the client lets go of both, and the
// client hears of the close from the outbound side only after the inbound stream has handed
// over what arrived before it, so that a reply never loses the race against the end of the
// connection it came on.
//
// Thread safety: called once per connection, on its I/O thread.

#include <memory>

#include "connection.h"
#include "connector/bayeux/messages.h"
#include "done_signal.h"
#include "inbound_publisher.h"

namespace connector::bayeux::transport {

// `closed` is resolved once `inbound` has ended, with its outcome.
std::unique_ptr<ConnectTransportResponse> makeStreams(std::weak_ptr<Connection> connection,
                                                      std::shared_ptr<InboundPublisher> inbound,
                                                      std::shared_ptr<DoneSignal> closed);

}  // namespace connector::bayeux::transport
