#pragma once
// Bytes handed to publish: a JSON text owned by value and moved along the publish path.
//
// Thread safety: a value like std::string: one object is changed by one thread at a time.

#include <string>
#include <utility>

namespace connector::common {

class DataBuffer {
  public:
    DataBuffer() = default;
    DataBuffer(std::string data) : data_(std::move(data)) {}  // NOLINT: implicit by design
    DataBuffer(const char* data) : data_(data) {}             // NOLINT: implicit by design

    const std::string& toString() const& { return data_; }
    std::string toString() && { return std::move(data_); }
    const char* data() const { return data_.data(); }
    std::size_t size() const { return data_.size(); }
    bool empty() const { return data_.empty(); }

  private:
    std::string data_;
};

}  // namespace connector::common
