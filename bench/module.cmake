# End-to-end load of the in-process publish -> callback path, beside bare baselines.
add_executable(publish_load ${CMAKE_CURRENT_LIST_DIR}/publish_load.cpp
    ${CMAKE_CURRENT_LIST_DIR}/allocation_counter.cpp)
target_link_libraries(publish_load PRIVATE orvale::connector orvale_warnings Boost::log)
