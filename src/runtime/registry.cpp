#include "kel/runtime/registry.h"

namespace kel {

RegistryImpl::RegistryImpl() = default;
RegistryImpl::~RegistryImpl() = default;

RegistryImpl& RegistryImpl::Global() {
  static RegistryImpl registry;
  return registry;
}

void RegistryImpl::add(std::type_index type, std::shared_ptr<void> object) {
  std::lock_guard<std::mutex> guard(mutex_);
  entries_.push_back({type, std::move(object)});
}

std::shared_ptr<void> RegistryImpl::first(std::type_index type) const {
  std::lock_guard<std::mutex> guard(mutex_);
  for (const Entry& e : entries_)
    if (e.type == type) return e.object;
  return nullptr;
}

std::vector<std::shared_ptr<void>> RegistryImpl::all(std::type_index type) const {
  std::lock_guard<std::mutex> guard(mutex_);
  std::vector<std::shared_ptr<void>> out;
  for (const Entry& e : entries_)
    if (e.type == type) out.push_back(e.object);
  return out;
}

bool RegistryImpl::remove(std::type_index type, const void* object) {
  std::shared_ptr<void> dropped;  // released after the lock: its destructor may use the registry
  std::lock_guard<std::mutex> guard(mutex_);
  for (auto it = entries_.begin(); it != entries_.end(); ++it)
    if (it->type == type && it->object.get() == object) {
      dropped = std::move(it->object);
      entries_.erase(it);
      return true;
    }
  return false;
}

std::size_t RegistryImpl::Size() const {
  std::lock_guard<std::mutex> guard(mutex_);
  return entries_.size();
}

void RegistryImpl::Clear() {
  std::vector<Entry> dropped;
  {
    std::lock_guard<std::mutex> guard(mutex_);
    dropped.swap(entries_);
  }
}

}  // namespace kel
