#pragma once
// The text of a future's failure, waiting a bounded time for it: "still pending" when it does not
// resolve within five seconds, "no exception" when it succeeds. Of a callable, what it throws.

#include <chrono>
#include <exception>
#include <string>
#include <type_traits>

#include "connector/future.h"

namespace orvale::test {

// Takes a future as an lvalue or as a temporary, or a callable.
template <class F>
std::string failureText(F&& future) {
    try {
        if constexpr (std::is_invocable_v<F&>)
            future();
        else if (!future.waitFor(std::chrono::seconds(5)))
            return "still pending";
        else
            future.get();
    } catch (const std::exception& e) {
        return e.what();
    }
    return "no exception";
}

}  // namespace orvale::test
