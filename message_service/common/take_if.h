#pragma once
// Moves the elements matching a predicate out of a vector, keeping the order of the rest, so
// that a caller holding a lock can destroy them after releasing it.

#include <algorithm>
#include <iterator>
#include <vector>

namespace connector::message_service {

template <class T, class Predicate>
std::vector<T> takeIf(std::vector<T>& from, Predicate matches) {
    auto split = std::stable_partition(from.begin(), from.end(),
                                       [&](const T& element) { return !matches(element); });
    std::vector<T> taken(std::make_move_iterator(split), std::make_move_iterator(from.end()));
    from.erase(split, from.end());
    return taken;
}

}  // namespace connector::message_service
