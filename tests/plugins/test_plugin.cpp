// One source for every test plug-in; the variant is chosen with compile definitions:
//   TEST_PLUGIN_NAME         the plug-in's name (also the name it reports events under)
//   TEST_API_VERSION         apiVersion of the record (default 1)
//   TEST_TARGET_MASTER       targetMasterVersion (default 2003000)
//   TEST_NO_EXPORTS          no "exports" record at all
//   TEST_PLAIN_EXPORTS       the record defined the plain way, without a visibility attribute
//   TEST_EMPTY_CREATE        an empty create
//   TEST_EMPTY_DESTROY       an empty destroy
//   TEST_NULL_FILE_NAME      a null fileName
//   TEST_THROWING_START      start throws std::runtime_error("start failed")
//   TEST_CRASH_ON_OPEN       a constructor of the library prints a line and dies of SIGSEGV
//   TEST_HANG_ON_OPEN        a constructor of the library never returns
//   (these two are for kelvo-plugin-check, which opens libraries in a child process)
//   TEST_UNRESOLVED          publishes as "test.call_missing" a function that calls a function
//                            nobody defines
//   TEST_PROVIDER            publishes "test.counter" and a pool task that increments it
//   TEST_CONSUMER            looks "test.counter" up in start and copies it from a pool task
//                            into the service "test.consumer.seen"
// Every life-cycle step is reported to the host through kelvo_test_record, which the test
// program exports; "unmapped" comes from the library's own static destructor, at dlclose.
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <stdexcept>

#include "mosk/kelvo/plugin.h"

#ifndef TEST_API_VERSION
#define TEST_API_VERSION 1
#endif
#ifndef TEST_TARGET_MASTER
#define TEST_TARGET_MASTER 2003000
#endif

using mosk::kelvo::PluginActivator;
using mosk::kelvo::PluginContext;

extern "C" void kelvo_test_record(const char* plugin, const char* event, const void* activator,
                                  const void* context);
#ifdef TEST_UNRESOLVED
extern "C" void kelvo_test_missing_function();  // defined nowhere
#endif

namespace {

#if defined(TEST_CRASH_ON_OPEN)
__attribute__((constructor)) void crashOnOpen() {
  std::fputs("test plug-in: crashing while it is opened\n", stderr);
  raise(SIGSEGV);
}
#elif defined(TEST_HANG_ON_OPEN)
__attribute__((constructor)) void hangOnOpen() {
  for (;;) pause();
}
#endif

struct UnmapReporter {
  ~UnmapReporter() { kelvo_test_record(TEST_PLUGIN_NAME, "unmapped", nullptr, nullptr); }
} unmapReporter;

#ifdef TEST_PROVIDER
std::atomic<long> counter{0};
#endif
#ifdef TEST_CONSUMER
std::atomic<long> seen{-1};
std::atomic<long>* providedCounter = nullptr;
#endif
#ifdef TEST_UNRESOLVED
void callMissing() { kelvo_test_missing_function(); }
#endif

class TestActivator : public PluginActivator {
 public:
  TestActivator() { kelvo_test_record(TEST_PLUGIN_NAME, "create", this, nullptr); }
  ~TestActivator() override { kelvo_test_record(TEST_PLUGIN_NAME, "destroy", this, nullptr); }

  int start(PluginContext* context) override {
    kelvo_test_record(TEST_PLUGIN_NAME, "start", this, context);
#ifdef TEST_THROWING_START
    throw std::runtime_error("start failed");
#endif
#ifdef TEST_PROVIDER
    context->RegisterService("test.counter", &counter);
    context->addThreadTask("provider.tick", [] { counter.fetch_add(1); });
#endif
#ifdef TEST_CONSUMER
    providedCounter = static_cast<std::atomic<long>*>(context->GetService("test.counter"));
    context->RegisterService("test.consumer.seen", &seen);
    context->addThreadTask("consumer.copy", [] {
      if (providedCounter != nullptr) seen.store(providedCounter->load());
    });
#endif
#ifdef TEST_UNRESOLVED
    context->RegisterService("test.call_missing", reinterpret_cast<void*>(&callMissing));
#endif
    return 0;
  }

  int stop(PluginContext* context) override {
    kelvo_test_record(TEST_PLUGIN_NAME, "stop", this, context);
#ifdef TEST_PROVIDER
    context->removeThreadTask("provider.tick");
    context->UnregisterService("test.counter");
#endif
#ifdef TEST_CONSUMER
    context->removeThreadTask("consumer.copy");
    context->UnregisterService("test.consumer.seen");
#endif
#ifdef TEST_UNRESOLVED
    context->UnregisterService("test.call_missing");
#endif
    return 0;
  }
};

#ifdef TEST_EMPTY_CREATE
const std::function<PluginActivator*()> createActivator;
#else
const std::function<PluginActivator*()> createActivator = [] { return new TestActivator; };
#endif

#ifdef TEST_EMPTY_DESTROY
const std::function<void(PluginActivator*)> destroyActivator;
#else
const std::function<void(PluginActivator*)> destroyActivator = [](PluginActivator* activator) {
  kelvo_test_record(TEST_PLUGIN_NAME, "destroy-call", activator, nullptr);
  delete activator;
};
#endif

#ifdef TEST_NULL_FILE_NAME
const char* const fileName = nullptr;
#else
const char* const fileName = "test_plugin_" TEST_PLUGIN_NAME ".so";
#endif

}  // namespace

#define TEST_RECORD                                                                             \
  {                                                                                             \
    TEST_API_VERSION, 1002003, TEST_TARGET_MASTER, fileName, "TestActivator", TEST_PLUGIN_NAME, \
        createActivator, destroyActivator                                                       \
  }

#if defined(TEST_PLAIN_EXPORTS)
// Written the plain way: whether the dynamic linker sees it depends on how the plug-in is built.
// (In braces: GCC warns about an initialised `extern "C" T name{...};` without them.)
extern "C" {
mosk::kelvo::PluginDetails exports TEST_RECORD;
}
#elif !defined(TEST_NO_EXPORTS)
extern "C" {
__attribute__((visibility("default"))) mosk::kelvo::PluginDetails exports TEST_RECORD;
}
#endif
