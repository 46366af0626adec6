# The Bayeux endpoint (the hub), against raw Boost.Beast clients and server services; its
# listener, its long-polling link, its WebSocket link's bounds and the hub's admission rules have
# files of their own.
foreach(unit bayeux_endpoint endpoint http_link websocket_link hub cross_origin)
    orvale_test(${unit}_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/${unit}_test.cpp
        LIBS Boost::json OpenSSL::SSL OpenSSL::Crypto)
endforeach()
# The browser ids behind the session cookie, through the platform's private header.
orvale_test(browser_id_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/browser_id_test.cpp)
target_include_directories(browser_id_test PRIVATE ${PROJECT_SOURCE_DIR}/platform)
