# Benchmarks of the in-process Bayeux server and their bare thread hand-off baselines.
add_executable(bayeux_server_bench
    ${CMAKE_CURRENT_LIST_DIR}/bayeux_server_bench.cpp
    ${CMAKE_CURRENT_LIST_DIR}/allocation_counter.cpp)
target_include_directories(bayeux_server_bench PRIVATE ${PROJECT_SOURCE_DIR}/platform/server)
target_link_libraries(bayeux_server_bench PRIVATE orvale::connector orvale_warnings
    benchmark::benchmark)
