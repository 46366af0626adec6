# Message service module: foundations, factory, server and client services.
set(_m ${CMAKE_CURRENT_LIST_DIR}/module)
orvale_test(future_test SOURCES ${_m}/future_test.cpp)
orvale_test(channel_rules_test SOURCES ${_m}/channel_rules_test.cpp)
orvale_test(diagnostic_logger_test SOURCES ${_m}/diagnostic_logger_test.cpp)
orvale_test(types_test SOURCES ${_m}/types_test.cpp)
orvale_test(subscription_test SOURCES ${_m}/subscription_test.cpp)
orvale_test(cached_value_publisher_test SOURCES ${_m}/cached_value_publisher_test.cpp)
orvale_test(factory_delegator_test SOURCES ${_m}/factory_delegator_test.cpp)
