// Sequence plumbing: push sinks (IEnumerate), pull sources (IEnumeration),
// array views (IDataArray) and a shared growable buffer (DynamicBuffer).
// Header-only; nothing here logs or throws beyond what the containers do.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

namespace kel {

// Receives one item per call; returning false asks the producer to stop.
template <typename T>
class IEnumerate {
public:
  virtual ~IEnumerate() = default;
  virtual bool push(const T& item) = 0;
};

// Appends every item to a container with push_back and never stops early.
template <typename Container>
class EnumerateIntoPushBackContainer final : public IEnumerate<typename Container::value_type> {
public:
  explicit EnumerateIntoPushBackContainer(Container& out) : out_(out) {}
  bool push(const typename Container::value_type& item) override {
    out_.push_back(item);
    return true;
  }

private:
  Container& out_;
};

// Pull enumeration: next() fills `value` and returns true until exhausted.
template <typename T>
class IEnumeration {
public:
  virtual ~IEnumeration() = default;
  virtual bool next(T& value) = 0;
  virtual void reset() = 0;
};

// A view of caller-owned elements: pointer to the first and a 32-bit count.
// Operations taking a const reference may still rewrite the elements in place
// (the view is const, the elements are not).
template <typename T>
struct IDataArray {
  T* data = nullptr;
  std::uint32_t count = 0;

  T* begin() const { return data; }
  T* end() const { return data + count; }
  T& operator[](std::uint32_t i) const { return data[i]; }
};

template <typename T>
IDataArray<T> MakeDataArray(std::vector<T>& v) {
  return IDataArray<T>{v.data(), static_cast<std::uint32_t>(v.size())};
}

// Growable typed buffer, shared between its producers and consumers.
template <typename T>
class DynamicBuffer {
public:
  using Ptr = std::shared_ptr<DynamicBuffer<T>>;
  static Ptr Create() { return std::make_shared<DynamicBuffer<T>>(); }

  void append(const T* items, std::size_t n) { items_.insert(items_.end(), items, items + n); }
  void push(const T& item) { items_.push_back(item); }
  void reserve(std::size_t n) { items_.reserve(n); }
  void resize(std::size_t n) { items_.resize(n); }
  void clear() { items_.clear(); }

  T* data() { return items_.data(); }
  const T* data() const { return items_.data(); }
  std::size_t size() const { return items_.size(); }
  bool empty() const { return items_.empty(); }
  T& operator[](std::size_t i) { return items_[i]; }
  const T& operator[](std::size_t i) const { return items_[i]; }

private:
  std::vector<T> items_;
};

}  // namespace kel
