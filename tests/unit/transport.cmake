# Bayeux codec, the WebSocket client transport and the cookie jar; the transport service and its connection's frames
# share the peers of websocket_peers.h.
foreach(unit bayeux_codec channel_name cookie_jar json_reader outbound_frames paced_socket ws_url
        inbound_publisher websocket_transport websocket_connection long_polling_transport)
    orvale_test(${unit}_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/${unit}_test.cpp)
endforeach()
# Boost.JSON is the reference the reader is checked against.
target_link_libraries(json_reader_test PRIVATE Boost::json)
