# The in-process Bayeux server. The tests reach the server's own headers for its diagnostics.
orvale_test(channel_tree_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/channel_tree_test.cpp)
target_include_directories(channel_tree_test PRIVATE ${PROJECT_SOURCE_DIR}/platform/server)
orvale_test(bayeux_server_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/bayeux_server_test.cpp)
target_include_directories(bayeux_server_test PRIVATE ${PROJECT_SOURCE_DIR}/platform/server)
orvale_test(cluster_link_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/cluster_link_test.cpp)
orvale_test(clustered_server_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/clustered_server_test.cpp)
