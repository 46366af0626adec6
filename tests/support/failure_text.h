#pragma once
// The text of a future's failure, waiting a bounded time for it: "still pending" when it does not
// resolve within five seconds, "no exception" when it succeeds.

#include <chrono>
#include <exception>
#include <string>

#include "connector/future.h"

namespace orvale::test {

template <class T>
std::string failureText(connector::Future<T>& future) {
    if (!future.waitFor(std::chrono::seconds(5)))
        return "still pending";
    try {
        future.get();
    } catch (const std::exception& e) {
        return e.what();
    }
    return "no exception";
}

template <class T>
std::string failureText(connector::Future<T>&& future) {
    return failureText(future);
}

}  // namespace orvale::test
