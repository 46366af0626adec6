#pragma once
// A first-in first-out queue in one ring of slots that is kept from use to use.
//
// For a queue that is pushed at the back and taken from near the front at a steady rate, such
// as requests waiting for their answers: once the ring has grown to the queue's usual length,
// pushing and taking allocate nothing (a std::deque allocates and frees a block every few
// elements). Elements may also be taken from the middle; those before it move back one slot.
// Thread safety: none; its owner guards it.

#include <cstddef>
#include <new>
#include <utility>

namespace connector::common {

template <class T>
class RingQueue {
  public:
    RingQueue() = default;
    RingQueue(RingQueue&& other) noexcept
        : slots_(std::exchange(other.slots_, nullptr)),
          capacity_(std::exchange(other.capacity_, 0)),
          head_(std::exchange(other.head_, 0)),
          size_(std::exchange(other.size_, 0)) {}
    RingQueue& operator=(RingQueue&& other) noexcept {
        if (this != &other) {
            release();
            slots_ = std::exchange(other.slots_, nullptr);
            capacity_ = std::exchange(other.capacity_, 0);
            head_ = std::exchange(other.head_, 0);
            size_ = std::exchange(other.size_, 0);
        }
        return *this;
    }
    RingQueue(const RingQueue&) = delete;
    RingQueue& operator=(const RingQueue&) = delete;
    ~RingQueue() { release(); }

    bool empty() const { return size_ == 0; }
    std::size_t size() const { return size_; }

    // The i-th element from the front.
    T& operator[](std::size_t i) { return *slot(i); }
    const T& operator[](std::size_t i) const { return *slot(i); }

    void push_back(T&& value) {
        if (size_ == capacity_)
            grow();
        new (slot(size_)) T(std::move(value));
        ++size_;
    }

    // Moves the i-th element out and closes the gap.
    T take(std::size_t i) {
        T taken = std::move(*slot(i));
        for (std::size_t k = i; k > 0; --k)
            *slot(k) = std::move(*slot(k - 1));
        slot(0)->~T();
        head_ = (head_ + 1) & (capacity_ - 1);
        --size_;
        return taken;
    }

    // Destroys every element; the ring is kept.
    void clear() {
        for (std::size_t i = 0; i < size_; ++i)
            slot(i)->~T();
        head_ = 0;
        size_ = 0;
    }

  private:
    T* slot(std::size_t i) const { return slots_ + ((head_ + i) & (capacity_ - 1)); }

    void grow() {
        const std::size_t capacity = capacity_ == 0 ? 16 : capacity_ * 2;
        T* slots =
            static_cast<T*>(::operator new(capacity * sizeof(T), std::align_val_t(alignof(T))));
        for (std::size_t i = 0; i < size_; ++i) {
            new (slots + i) T(std::move(*slot(i)));
            slot(i)->~T();
        }
        if (slots_)
            ::operator delete(slots_, std::align_val_t(alignof(T)));
        slots_ = slots;
        capacity_ = capacity;
        head_ = 0;
    }

    void release() {
        clear();
        if (slots_)
            ::operator delete(slots_, std::align_val_t(alignof(T)));
        slots_ = nullptr;
        capacity_ = 0;
    }

    T* slots_ = nullptr;
    std::size_t capacity_ = 0;  // zero or a power of two
    std::size_t head_ = 0;      // the slot of the front element
    std::size_t size_ = 0;
};

}  // namespace connector::common
