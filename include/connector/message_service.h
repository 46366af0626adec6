#pragma once
// Everything a host application needs: the message service classes and the platform entry
// points (contexts and connectors, the in-process Bayeux server, the Bayeux endpoint, logging).

#include "connector/bayeux/endpoint.h"
#include "connector/bayeux/messages.h"
#include "connector/bayeux/server.h"
#include "connector/bayeux/websocket_transport.h"
#include "connector/common/data_buffer.h"
#include "connector/common/delay.h"
#include "connector/core.h"
#include "connector/future.h"
#include "connector/log/diagnostic_logger.h"
#include "connector/message_service/cached_value_publisher.h"
#include "connector/message_service/client_delegate.h"
#include "connector/message_service/client_impl.h"
#include "connector/message_service/factory_delegator.h"
#include "connector/message_service/factory_options.h"
#include "connector/message_service/message_service.h"
#include "connector/message_service/server_delegate.h"
#include "connector/message_service/server_impl.h"
#include "connector/message_service/subscription.h"
#include "connector/message_service/types.h"
