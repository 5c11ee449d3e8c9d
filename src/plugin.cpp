// Plug-ins: the loader, the context with its service registry and its pool thread.
#include "mosk/kelvo/plugin.h"

#include <dlfcn.h>
#include <time.h>

#include <cstddef>
#include <cstdio>
#include <exception>
#include <list>
#include <sstream>
#include <stdexcept>

#include "mosk/kelvo/perf.h"
#include "mosk/kelvo/thread.h"
#include "plugin_elf.h"
#include "plugin_record.h"
#include "plugin_service_table.h"

namespace mosk {
namespace kelvo {

PluginActivator::~PluginActivator() = default;

namespace {

// A string made from a C string, failing for a null pointer as the standard library's
// constructor does (with its message), rather than leaving it undefined.
// Kept: a null service name throws std::logic_error with the standard library's own words.
std::string stringFrom(const char* text) {
  if (text == nullptr) throw std::logic_error("basic_string::_M_construct null not valid");
  return std::string(text);
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// PluginContext
// ---------------------------------------------------------------------------------------------

struct PluginContext::PrivateData {
  std::list<std::shared_ptr<PeriodicThread>> threadPool;
  internal::ServiceTable services;
  // What each added task became, by name, so that removeThreadTask can wait until the task is
  // really gone. Only observed, never owned.
  std::unordered_multimap<std::string, std::weak_ptr<RealTimeTask>> addedTasks;
};

PluginContext::PluginContext() : d_(new PrivateData) {
  d_->threadPool.push_back(std::make_shared<PeriodicThread>(5000, "ThreadInPoolWithPeriodOf5ms",
                                                            ScheduleMethod::Sequential, -1, 80));
  for (const auto& thread : d_->threadPool) thread->start(0);
}

PluginContext::~PluginContext() {
  for (const auto& thread : d_->threadPool) thread->join();
  delete d_;
}

void PluginContext::RegisterService(const char* name, void* service) {
  // Kept: the first registration of a name wins; a later one is dropped without a word.
  d_->services.insert(stringFrom(name), service);
}

void PluginContext::UnregisterService(const char* name) { d_->services.erase(stringFrom(name)); }

void* PluginContext::GetService(const char* name) {
  if (name == nullptr) return nullptr;
  void** service = d_->services.find(name);
  return service == nullptr ? nullptr : *service;
}

std::vector<std::string> PluginContext::dumpSerivces() { return d_->services.names(); }

bool PluginContext::addThreadTask(const std::string& name, std::function<void()>&& task) {
  if (name.empty()) return false;
  if (d_->threadPool.empty()) {
    std::function<void()> dropped(std::move(task));
    return true;
  }
  std::weak_ptr<RealTimeTask> added =
      d_->threadPool.back()->addTask(name, std::move(task), -1, 0, false);
  // Forget tasks that are gone already, so that the bookkeeping cannot grow without bound.
  for (auto it = d_->addedTasks.begin(); it != d_->addedTasks.end();) {
    it = it->second.expired() ? d_->addedTasks.erase(it) : std::next(it);
  }
  d_->addedTasks.emplace(name, std::move(added));
  return true;
}

int PluginContext::removeThreadTask(const std::string& name) {
  if (d_->threadPool.empty()) return 0;
  PeriodicThread& pool = *d_->threadPool.back();
  const auto range = d_->addedTasks.equal_range(name);
  int removed = 0;
  for (auto it = range.first; it != range.second; ++it) removed += it->second.expired() ? 0 : 1;
  // deleteTask flags the first task of that name that the loop has not purged yet; the loop
  // purges flagged tasks at its next pass. Once none is left, the snapshot that still refers
  // to them is freed by a later registry call (deleteTask is one): poll until every task of
  // that name has been destroyed.
  const timespec pause{0, 1000000};
  while (pool.deleteTask(name) == 1) nanosleep(&pause, nullptr);
  for (auto it = range.first; it != range.second; ++it) {
    while (!it->second.expired()) {
      nanosleep(&pause, nullptr);
      pool.deleteTask(name);
    }
  }
  d_->addedTasks.erase(name);
  return removed;
}

void PluginContext::shutdown() {
  for (const auto& thread : d_->threadPool) thread->stop();
  for (const auto& thread : d_->threadPool) thread->join();
  d_->threadPool.clear();  // destroys the threads with their tasks
  d_->addedTasks.clear();
}

std::shared_ptr<PeriodicThread> PluginContext::getPoolThread() const {
  return d_->threadPool.empty() ? nullptr : d_->threadPool.back();
}

// ---------------------------------------------------------------------------------------------
// PluginLoader
// ---------------------------------------------------------------------------------------------

PluginLoader::PluginLoader(const int& version) : masterVersion(version) {}

// Kept: never finishes while the map holds the empty entry of an unknown handle (unload() leaves
// it there); shutdown() is the way around, and callers pass only handles that load() returned.
PluginLoader::~PluginLoader() {
  while (!plugins.empty()) unload(plugins.begin()->first);
  std::puts("All the plugins have been unloaded.");
}

void* PluginLoader::load(const std::string& path) {
  // A 64-bit ELF file whose segments reach past its end would be mapped by the dynamic linker,
  // which then dies of SIGBUS touching the missing pages: such a file is refused before the
  // linker sees it, in the linker's own words for a short file.
  if (internal::elf::isTruncatedElf(path)) {
    errorText = internal::plugin_record::truncatedFileError(path);
    throw std::runtime_error(errorText);
  }
  void* handle = dlopen(path.c_str(), RTLD_LAZY);
  if (handle == nullptr) setError(internal::plugin_record::kCannotLoadLibrary);
  // Kept: the early returns below leave the library open; only libraries whose plug-in was
  // started are closed by the loader.
  auto* details = static_cast<PluginDetails*>(dlsym(handle, "exports"));
  if (details == nullptr) return nullptr;
  if (details->apiVersion != internal::plugin_record::kApiVersion) {
    std::printf(internal::plugin_record::kApiVersionInvalid, details->apiVersion);
    return nullptr;
  }
  if (!internal::plugin_record::fitsMaster(masterVersion, details->targetMasterVersion)) {
    std::printf(internal::plugin_record::kMasterMismatch, versionIntToString(masterVersion).c_str(),
                details->pluginName, versionIntToString(details->targetMasterVersion).c_str());
    return nullptr;
  }
  PluginActivator* activator = details->create();
  activator->start(&context);
  plugins[handle] = {details, activator};
  return handle;
}

void PluginLoader::unload(void* handle) {
  // Kept: an unknown handle gains an empty entry, which stays (see the destructor).
  auto& entry = plugins[handle];
  PluginActivator* activator = entry.second;
  if (activator == nullptr) return;
  activator->stop(&context);
  entry.first->destroy(activator);
  // The record and the destroy code live in the library: close it only after both are used.
  if (handle != nullptr) dlclose(handle);
  plugins.erase(handle);
}

std::string PluginLoader::dump() {
  std::ostringstream text;
  for (const auto& entry : plugins) {
    const PluginDetails* details = entry.second.first;
    if (details == nullptr) continue;  // the empty entry of an unknown handle: nothing to show
    text << "fileName: " << details->fileName << ", className: " << details->className
         << ", pluginName: " << details->pluginName
         << ", pluginVersion: " << versionIntToString(details->pluginVersion) << " \n";
  }
  const std::vector<std::string> names = context.dumpSerivces();
  text << "services: " << names.size() << " \n";
  for (size_t i = 0; i < names.size(); ++i) text << (i == 0 ? "" : ", ") << names[i];
  text << " \n";
  return text.str();
}

std::string PluginLoader::error() const { return errorText; }

PluginContext& PluginLoader::getContext() { return context; }

void PluginLoader::setError(const std::string& what) {
  const std::string linkerMessage = stringFrom(dlerror());
  errorText = what + ": " + linkerMessage;
  throw std::runtime_error(errorText);
}

void PluginLoader::shutdown() {
  context.shutdown();
  std::exception_ptr firstFailure;
  while (!plugins.empty()) {
    const auto first = plugins.begin();
    if (first->second.second == nullptr) {
      plugins.erase(first);
      continue;
    }
    void* handle = first->first;
    try {
      unload(handle);
    } catch (...) {
      if (!firstFailure) firstFailure = std::current_exception();
      plugins.erase(handle);
    }
  }
  if (firstFailure) std::rethrow_exception(firstFailure);
}

}  // namespace kelvo
}  // namespace mosk
