# The Bayeux endpoint (the hub), against raw Boost.Beast clients and server services.
orvale_test(bayeux_endpoint_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/bayeux_endpoint_test.cpp
    LIBS Boost::json OpenSSL::SSL OpenSSL::Crypto)
