#include "kel/runtime/registry.h"

#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace kel {
namespace {

struct Service {
  virtual ~Service() = default;
  int id = 0;
};
struct Catalogue : Service {};

TEST(Registry, FindsObjectsByTheTypeTheyWereRegisteredAs) {
  RegistryImpl registry;
  auto a = std::make_shared<Service>();
  auto b = std::make_shared<Service>();
  auto c = std::make_shared<Catalogue>();
  auto text = std::make_shared<std::string>("shared");
  registry.Register(a);
  registry.Register(b);
  registry.Register(c);
  registry.Register(text);
  registry.Register(std::shared_ptr<int>());  // ignored
  EXPECT_EQ(registry.Size(), 4u);
  EXPECT_EQ(registry.Find<Service>(), a);
  EXPECT_EQ(registry.FindAll<Service>(), (std::vector<std::shared_ptr<Service>>{a, b}));
  EXPECT_EQ(registry.Find<Catalogue>(), c);  // not found as a Service: exact types only
  EXPECT_EQ(*registry.Find<std::string>(), "shared");
  EXPECT_EQ(registry.Find<int>(), nullptr);

  EXPECT_FALSE(registry.Unregister(std::static_pointer_cast<Service>(c)));  // registered as Catalogue
  EXPECT_TRUE(registry.Unregister(a));
  EXPECT_EQ(registry.Find<Service>(), b);
  registry.Clear();
  EXPECT_EQ(registry.Size(), 0u);
  EXPECT_EQ(b.use_count(), 1);  // the registry let go
}

TEST(Registry, GlobalRegistryIsSharedAcrossThreads) {
  RegistryImpl& global = RegistryImpl::Global();
  std::vector<std::thread> threads;
  for (int t = 0; t < 8; ++t)
    threads.emplace_back([&global, t] {
      for (int i = 0; i < 200; ++i) {
        auto s = std::make_shared<Service>();
        s->id = t * 1000 + i;
        global.Register(s);
        if (global.Find<Service>() == nullptr) ADD_FAILURE();
        if (i % 2) global.Unregister(s);
      }
    });
  for (auto& t : threads) t.join();
  EXPECT_EQ(global.FindAll<Service>().size(), 8u * 100u);
  global.Clear();
}

}  // namespace
}  // namespace kel
