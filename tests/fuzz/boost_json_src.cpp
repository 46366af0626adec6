// Boost.JSON compiled into the fuzzer itself, so that its parser is instrumented too.
#include <boost/json/src.hpp>
