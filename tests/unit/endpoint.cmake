# The Bayeux endpoint (the hub) and its listener, against raw Boost.Beast clients and server
# services; its long-polling link, its WebSocket link's bounds and the hub's admission rules have
# files of their own.
foreach(unit bayeux_endpoint http_link websocket_link hub cross_origin)
    orvale_test(${unit}_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/${unit}_test.cpp
        LIBS Boost::json OpenSSL::SSL OpenSSL::Crypto)
endforeach()
# The browser ids behind the session cookie, through the platform's private header.
orvale_test(browser_id_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/browser_id_test.cpp)
target_include_directories(browser_id_test PRIVATE ${PROJECT_SOURCE_DIR}/platform)
# The I/O threads' turns, on an io_context of the test's own.
orvale_test(io_turns_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/io_turns_test.cpp)
target_include_directories(io_turns_test PRIVATE ${PROJECT_SOURCE_DIR}/platform)
# The operator routes, scraped by the Prometheus client library of the system's Python
# (Debian's python3-prometheus-client), with a NATS server for readiness in a cluster.
find_program(ORVALE_SYSTEM_PYTHON python3 PATHS /usr/bin NO_DEFAULT_PATH)
orvale_test(operator_routes_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/operator_routes_test.cpp
    LIBS Boost::json OpenSSL::SSL OpenSSL::Crypto)
target_compile_definitions(operator_routes_test PRIVATE
    ORVALE_SYSTEM_PYTHON="${ORVALE_SYSTEM_PYTHON}")
orvale_test(channel_tally_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/channel_tally_test.cpp)
