# Core: the context and its state, the process timer, random identifiers, the ring queue.
foreach(unit context delay random_string ring_queue)
    orvale_test(${unit}_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/${unit}_test.cpp)
endforeach()
