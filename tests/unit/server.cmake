# The in-process Bayeux server. The tests reach the server's own headers for its diagnostics.
foreach(unit channel_tree bayeux_server)
    orvale_test(${unit}_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/${unit}_test.cpp)
    target_include_directories(${unit}_test PRIVATE ${PROJECT_SOURCE_DIR}/platform/server)
endforeach()
# Servers of several processes joined through a NATS cluster the tests start, and what a member
# knows of the others.
foreach(unit cluster_link clustered_server member_interest)
    orvale_test(${unit}_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/${unit}_test.cpp)
endforeach()
