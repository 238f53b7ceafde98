// A set of shared objects registered under their type, for services that
// modules hand each other (a coordinate-system catalogue, a texture cache)
// without a global per service. An object is found by exactly the type it
// was registered as, not by a base class. Thread-safe.
#pragma once

#include <cstddef>
#include <memory>
#include <mutex>
#include <typeindex>
#include <typeinfo>
#include <vector>

#include "kel/export.h"

namespace kel {

class KEL_API RegistryImpl {
public:
  RegistryImpl();
  ~RegistryImpl();
  RegistryImpl(const RegistryImpl&) = delete;
  RegistryImpl& operator=(const RegistryImpl&) = delete;

  // The process-wide registry.
  static RegistryImpl& Global();

  // Adds `object` (null is ignored); several objects of one type may live
  // side by side, the first registered is the one Find returns.
  template <typename T>
  void Register(std::shared_ptr<T> object) {
    if (object) add(typeid(T), std::static_pointer_cast<void>(std::move(object)));
  }
  // The first object registered as T, or null.
  template <typename T>
  std::shared_ptr<T> Find() const {
    return std::static_pointer_cast<T>(first(typeid(T)));
  }
  // Every object registered as T, in order of registration.
  template <typename T>
  std::vector<std::shared_ptr<T>> FindAll() const {
    std::vector<std::shared_ptr<T>> out;
    for (auto& p : all(typeid(T))) out.push_back(std::static_pointer_cast<T>(std::move(p)));
    return out;
  }
  // False when that object was not registered as T.
  template <typename T>
  bool Unregister(const std::shared_ptr<T>& object) {
    return remove(typeid(T), object.get());
  }

  std::size_t Size() const;
  // Drops every object; the registry's references go, callers' stay.
  void Clear();

private:
  void add(std::type_index type, std::shared_ptr<void> object);
  std::shared_ptr<void> first(std::type_index type) const;
  std::vector<std::shared_ptr<void>> all(std::type_index type) const;
  bool remove(std::type_index type, const void* object);

  struct Entry {
    std::type_index type;
    std::shared_ptr<void> object;
  };
  mutable std::mutex mutex_;
  std::vector<Entry> entries_;
};

}  // namespace kel
