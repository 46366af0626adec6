# Benchmarks of the Bayeux codec and the WebSocket transport, each beside its bare baseline
# (Boost.JSON alone; a synchronous Beast client against the same echo server).
add_executable(codec_bench ${CMAKE_CURRENT_LIST_DIR}/codec_bench.cpp)
target_link_libraries(codec_bench PRIVATE orvale::connector orvale_warnings benchmark::benchmark
    Boost::json)
add_executable(websocket_transport_bench ${CMAKE_CURRENT_LIST_DIR}/websocket_transport_bench.cpp)
target_link_libraries(websocket_transport_bench PRIVATE orvale::connector orvale_warnings
    benchmark::benchmark Boost::system)
