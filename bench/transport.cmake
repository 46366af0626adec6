# Benchmarks of the Bayeux codec and the WebSocket transport, each beside its bare baseline
# (Boost.JSON alone; a synchronous Beast client against the same echo server).
add_executable(codec_bench ${CMAKE_CURRENT_LIST_DIR}/codec_bench.cpp)
target_include_directories(codec_bench PRIVATE ${PROJECT_SOURCE_DIR}/platform)
target_link_libraries(codec_bench PRIVATE orvale::connector orvale_warnings benchmark::benchmark
    Boost::json)
add_executable(websocket_transport_bench ${CMAKE_CURRENT_LIST_DIR}/websocket_transport_bench.cpp)
target_link_libraries(websocket_transport_bench PRIVATE orvale::connector orvale_warnings
    benchmark::benchmark Boost::system)
# Our client services against a real Faye server, beside Faye's Node client and a bare
# WebSocket client, in one run (needs node and the npm packages of tests/interop).
add_executable(client_load
    ${CMAKE_CURRENT_LIST_DIR}/client_load.cpp ${CMAKE_CURRENT_LIST_DIR}/client_load_raw.cpp)
target_include_directories(client_load PRIVATE ${PROJECT_SOURCE_DIR}/tests/support)
target_compile_definitions(client_load PRIVATE ORVALE_SOURCE_DIR="${PROJECT_SOURCE_DIR}")
target_link_libraries(client_load PRIVATE orvale::connector orvale_tools orvale_warnings Boost::json Boost::log
    Boost::system)
