#include "connector/common/ring_queue.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

namespace {

using connector::common::RingQueue;

// Owns a heap value, so a slot copied or destroyed twice, or never, shows under the sanitizer
// and in the live count.
struct Tracked {
    static inline int live = 0;
    explicit Tracked(int v) : value(std::make_unique<int>(v)) { ++live; }
    Tracked(Tracked&& other) noexcept : value(std::move(other.value)) { ++live; }
    Tracked& operator=(Tracked&&) noexcept = default;
    ~Tracked() { --live; }
    std::unique_ptr<int> value;
};

std::vector<int> contents(RingQueue<Tracked>& queue) {
    std::vector<int> out;
    for (std::size_t i = 0; i < queue.size(); ++i)
        out.push_back(*queue[i].value);
    return out;
}

TEST(RingQueueTest, KeepsOrderAcrossWrapsGrowthAndTakesFromAnywhere) {
    {
        RingQueue<Tracked> queue;
        std::vector<int> model;
        int next = 0;
        // Steady push-two take-one with the head walking round the ring, taken from the front,
        // from just behind it and from the back, through several doublings.
        for (int round = 0; round < 300; ++round) {
            for (int k = 0; k < 2; ++k) {
                queue.push_back(Tracked(next));
                model.push_back(next++);
            }
            const std::size_t at = round % 3 == 0 ? 0 : round % 3 == 1 ? 1 : model.size() - 1;
            EXPECT_EQ(*queue.take(at).value, model[at]);
            model.erase(model.begin() + static_cast<std::ptrdiff_t>(at));
            ASSERT_EQ(contents(queue), model) << "round " << round;
        }
        EXPECT_EQ(Tracked::live, static_cast<int>(model.size()));

        RingQueue<Tracked> moved = std::move(queue);
        EXPECT_TRUE(queue.empty());
        EXPECT_EQ(contents(moved), model);
        queue.push_back(Tracked(-1));  // a moved-from queue is usable again
        EXPECT_EQ(contents(queue), std::vector<int>{-1});
        moved.clear();
        EXPECT_TRUE(moved.empty());
        EXPECT_EQ(Tracked::live, 1);
    }
    EXPECT_EQ(Tracked::live, 0);
}

}  // namespace
