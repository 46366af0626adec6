# Core: the context and its state, the process timer, random identifiers, the ring queue.
orvale_test(context_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/context_test.cpp)
orvale_test(delay_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/delay_test.cpp)
orvale_test(random_string_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/random_string_test.cpp)
orvale_test(ring_queue_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/ring_queue_test.cpp)
