# Core: the context and its state, the process timer, random identifiers, the ring queue, and
# the child processes the tests and load runs start.
foreach(unit context delay random_string ring_queue spawn)
    orvale_test(${unit}_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/${unit}_test.cpp)
endforeach()
