# Benchmarks of the Bayeux endpoint: frame handling, delivery encoding and delivery over
# loopback WebSockets. The end-to-end comparison with Faye is `orvale bench`.
add_executable(endpoint_bench ${CMAKE_CURRENT_LIST_DIR}/endpoint_bench.cpp)
target_include_directories(endpoint_bench PRIVATE ${PROJECT_SOURCE_DIR}/platform/endpoint
    ${PROJECT_SOURCE_DIR}/platform)
target_link_libraries(endpoint_bench PRIVATE orvale::connector orvale_warnings
    benchmark::benchmark Boost::system)
