# Bayeux codec and WebSocket client transport. The tests of internal units reach their private
# headers through the platform folder.
orvale_test(bayeux_codec_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/bayeux_codec_test.cpp)
orvale_test(channel_name_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/channel_name_test.cpp)
orvale_test(json_reader_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/json_reader_test.cpp)
# Boost.JSON is the reference the reader is checked against.
target_link_libraries(json_reader_test PRIVATE Boost::json)
orvale_test(outbound_frames_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/outbound_frames_test.cpp)
orvale_test(paced_socket_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/paced_socket_test.cpp)
orvale_test(ws_url_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/ws_url_test.cpp)
orvale_test(inbound_publisher_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/inbound_publisher_test.cpp)
orvale_test(websocket_transport_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/websocket_transport_test.cpp)
foreach(test bayeux_codec_test json_reader_test outbound_frames_test paced_socket_test ws_url_test
        inbound_publisher_test)
    target_include_directories(${test} PRIVATE ${PROJECT_SOURCE_DIR}/platform)
endforeach()
