// Plug-ins against what a user would write by hand, in the same run:
// - PluginLoader::load + unload of a trivial plug-in against dlopen, dlsym("exports"), create,
//   start, stop, destroy and dlclose written out;
// - PluginContext::GetService of one of 100 registered names against
//   std::unordered_map<std::string, void*>::find on the same names.
// Both sides of the first pair do the same dynamic-linker work, which dominates; the loader adds
// its checks and its map. Needs SCHED_FIFO (root) for the context's pool thread.
#include <benchmark/benchmark.h>
#include <dlfcn.h>

#include <cstdio>
#include <string>
#include <unordered_map>
#include <vector>

#include "mosk/kelvo/plugin.h"

namespace {

using mosk::kelvo::PluginActivator;
using mosk::kelvo::PluginContext;
using mosk::kelvo::PluginDetails;
using mosk::kelvo::PluginLoader;

constexpr int kMaster = 1000000;

void BM_LoaderLoadUnload(benchmark::State& state) {
  PluginLoader loader(kMaster);
  for (auto _ : state) {
    void* handle = loader.load(KELVO_BENCH_TRIVIAL_PLUGIN);
    if (handle == nullptr) state.SkipWithError("the trivial plug-in did not load");
    loader.unload(handle);
  }
  loader.shutdown();
}
BENCHMARK(BM_LoaderLoadUnload);

void BM_HandWrittenLoadUnload(benchmark::State& state) {
  PluginContext context;
  for (auto _ : state) {
    void* handle = dlopen(KELVO_BENCH_TRIVIAL_PLUGIN, RTLD_LAZY);
    auto* details = static_cast<PluginDetails*>(dlsym(handle, "exports"));
    PluginActivator* activator = details->create();
    activator->start(&context);
    activator->stop(&context);
    details->destroy(activator);
    dlclose(handle);
  }
  context.shutdown();
}
BENCHMARK(BM_HandWrittenLoadUnload);

constexpr int kServices = 100;

std::vector<std::string> serviceNames() {
  std::vector<std::string> names;
  char name[32];
  for (int i = 0; i < kServices; ++i) {
    std::snprintf(name, sizeof(name), "service.%03d", i);
    names.push_back(name);
  }
  return names;
}

void BM_ContextGetService(benchmark::State& state) {
  const std::vector<std::string> names = serviceNames();
  PluginContext context;
  for (const std::string& name : names) context.RegisterService(name.c_str(), &context);
  size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(context.GetService(names[i].c_str()));
    i = i + 1 == names.size() ? 0 : i + 1;
  }
  context.shutdown();
}
BENCHMARK(BM_ContextGetService);

void BM_UnorderedMapFind(benchmark::State& state) {
  const std::vector<std::string> names = serviceNames();
  std::unordered_map<std::string, void*> services;
  for (const std::string& name : names) services.emplace(name, &services);
  size_t i = 0;
  for (auto _ : state) {
    const auto found = services.find(names[i]);
    benchmark::DoNotOptimize(found == services.end() ? nullptr : found->second);
    i = i + 1 == names.size() ? 0 : i + 1;
  }
}
BENCHMARK(BM_UnorderedMapFind);

}  // namespace
