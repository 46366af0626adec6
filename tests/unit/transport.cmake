# Bayeux codec and WebSocket client transport.
orvale_test(bayeux_codec_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/bayeux_codec_test.cpp)
target_include_directories(bayeux_codec_test PRIVATE ${PROJECT_SOURCE_DIR}/platform)
