# The Bayeux endpoint (the hub), against raw Boost.Beast clients and server services; its HTTP
# long-polling link has a file of its own.
foreach(unit bayeux_endpoint http_link)
    orvale_test(${unit}_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/${unit}_test.cpp
        LIBS Boost::json OpenSSL::SSL OpenSSL::Crypto)
endforeach()
