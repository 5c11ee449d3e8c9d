// Plug-ins: shared objects that a host program loads at run time, and the context through
// which they meet the host and each other.
//
// A plug-in library defines one PluginDetails record under the exported, unmangled symbol
// "exports": the KELVO_PLUGIN macro at the end of this header writes it in one line, and a plain
// `extern "C" { PluginDetails exports{...}; }` works as well in a plug-in built with the CMake
// function kelvo_add_plugin, which exports the record unless the source itself marks it hidden. A
// library without an exported "exports" is refused silently (load returns null and prints nothing):
// the tool kelvo-plugin-check FILE says why a file would not load. PluginLoader opens the library
// (dlopen, lazy binding, local scope), checks the record's API version and the master version it
// was built for, creates the plug-in's PluginActivator and starts it with the loader's
// PluginContext. Through the context a plug-in publishes and looks up services by name and adds
// tasks to one shared pool thread, a PeriodicThread with a 5 ms period
// ("ThreadInPoolWithPeriodOf5ms", SCHED_FIFO priority 80, not pinned) that the context starts when
// it is built.
//
//   PluginLoader loader(2003000);              // the host's version, 2.3.0
//   void* handle = loader.load("./libmy_plugin.so");
//   std::printf("%s", loader.dump().c_str());
//   loader.getContext().GetService("my.service");  // what the plug-in published
//   ...
//   loader.shutdown();                         // then destruction returns at once
//
// Shutting down: the destructors of PluginContext and PluginLoader join the pool thread
// without stopping it, so on their own they never return while the process runs. Call
// shutdown() first: it stops the pool thread, joins it, releases its tasks and (on the loader)
// unloads every plug-in; destruction afterwards returns at once.
//
// Unloading one plug-in while the pool runs: the library is closed right after the plug-in's
// stop() and destroy, so stop() must take back every task the plug-in added (removeThreadTask,
// which returns once the task can no longer run and its callable is destroyed); a task left behind
// would run code that is no longer mapped. Services are not removed for the plug-in either:
// unregister them in stop().
//
// Threading rules:
// - The loader and the service registry take no lock: load, unload, dump, shutdown and the
//   registry calls (RegisterService, UnregisterService, GetService, dumpSerivces) come from one
//   thread at a time, normally the host's control thread (plug-ins make registry calls in
//   their start() and stop(), which run there). Pool tasks must not call the registry: look
//   services up in start() and keep the pointer.
// - addThreadTask and removeThreadTask may be called while the pool thread runs; the task
//   registry of PeriodicThread hands tasks over safely.
// - Plug-ins run inside the host process, with its privileges and the pool thread's real-time
//   priority. Load only trusted files.
#ifndef MOSK_KELVO_PLUGIN_H_
#define MOSK_KELVO_PLUGIN_H_

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "mosk/kelvo/export.h"

namespace mosk {
namespace kelvo {

class PeriodicThread;
class PluginContext;

// The life-cycle object of a plug-in. The loader calls start() once right after creating it
// and stop() once before destroying it, both on the thread that calls load/unload; their
// results are ignored. The loader never deletes an activator itself: PluginDetails::destroy
// does.
class KELVO_EXPORT PluginActivator {
 public:
  virtual ~PluginActivator();
  virtual int start(PluginContext* context) = 0;
  virtual int stop(PluginContext* context) = 0;
};

// The record a plug-in library exports under the plain symbol name "exports". It is a binary
// contract between separately built objects: the field order, types and offsets below are
// checked at compile time and must never change.
struct PluginDetails {
  int32_t apiVersion;           // revision of this record; only 1 is accepted
  int32_t pluginVersion;        // the plug-in's own version (major*1000000+minor*1000+patch)
  int32_t targetMasterVersion;  // the host version the plug-in was built for
  const char* fileName;         // for display
  const char* className;        // for display
  const char* pluginName;       // for display and the version-mismatch message
  std::function<PluginActivator*()> create;
  std::function<void(PluginActivator*)> destroy;
};

// std::function members make the record non-standard-layout, where offsetof is only
// conditionally supported; GCC and Clang support it and lay the record out as checked here.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Winvalid-offsetof"
static_assert(offsetof(PluginDetails, apiVersion) == 0, "PluginDetails layout");
static_assert(offsetof(PluginDetails, pluginVersion) == 4, "PluginDetails layout");
static_assert(offsetof(PluginDetails, targetMasterVersion) == 8, "PluginDetails layout");
static_assert(offsetof(PluginDetails, fileName) == 16, "PluginDetails layout");
static_assert(offsetof(PluginDetails, className) == 24, "PluginDetails layout");
static_assert(offsetof(PluginDetails, pluginName) == 32, "PluginDetails layout");
static_assert(offsetof(PluginDetails, create) == 40, "PluginDetails layout");
static_assert(offsetof(PluginDetails, destroy) == 72, "PluginDetails layout");
static_assert(sizeof(PluginDetails) == 104, "PluginDetails layout");
#pragma GCC diagnostic pop

// Services by name and the shared pool thread. Not copyable.
class KELVO_EXPORT PluginContext {
 public:
  // Creates the pool thread and starts it (limit 0). Without permission for SCHED_FIFO
  // threads the thread cannot be created (PeriodicThread prints why): addThreadTask then
  // waits for ever, so check privileges before building a context.
  PluginContext();
  // Joins the pool thread without stopping it: returns only once shutdown() has been called
  // (or the thread was stopped some other way). Call shutdown() first.
  ~PluginContext();
  PluginContext(const PluginContext&) = delete;
  PluginContext& operator=(const PluginContext&) = delete;

  // Publishes `service` under `name`. The first registration of a name wins: registering a
  // taken name keeps the old pointer and drops the new one silently. A null name throws
  // std::logic_error. The pointer is stored as given and never read or freed.
  void RegisterService(const char* name, void* service);
  // Removes `name` if it is registered. A null name throws std::logic_error.
  void UnregisterService(const char* name);
  // The pointer registered under `name`, or null (also for a null name).
  void* GetService(const char* name);
  // Every registered name, in no particular order.
  // Kept: the method's name is spelt as the interface has always spelt it.
  std::vector<std::string> dumpSerivces();

  // Adds `task` to the pool thread (priority -1, expected run time 0 us, so every run counts
  // as an overshoot in the pool thread's counters; not run-once). False, and nothing added,
  // for an empty name; true otherwise, whatever the thread did with the task. After
  // shutdown() the task is dropped (destroyed here) and the result is still true.
  bool addThreadTask(const std::string& name, std::function<void()>&& task);

  // Additions for a clean unload and a clean exit:

  // Takes every pool task named `name` away and returns once none of them can run again and
  // their callables have been destroyed (normally within two periods), also tasks of that
  // name added to the pool thread directly. Returns how many tasks added with addThreadTask
  // under that name were removed. Call it from a plug-in's stop() for each task it added. Returns 0
  // at once after shutdown().
  int removeThreadTask(const std::string& name);
  // Stops and joins the pool thread, then releases it with its tasks (their callables are
  // destroyed here, on the caller's thread). Afterwards the destructor returns at once. Safe
  // to call more than once.
  void shutdown();
  // The pool thread, for diagnostics (getErrorString, getWakeStatistics, ...); null after
  // shutdown(). Do not pause or stop it (removeThreadTask waits for its passes), and drop the
  // pointer before shutdown(): a thread kept alive keeps its tasks, and with them code of
  // plug-ins that are about to be closed.
  std::shared_ptr<PeriodicThread> getPoolThread() const;

 private:
  struct PrivateData;
  PrivateData* d_;
};

// Loads, starts, stops and closes plug-ins. Not copyable. One thread uses it at a time.
class KELVO_EXPORT PluginLoader {
 public:
  // `masterVersion`: the host's own version, major*1000000+minor*1000+patch.
  explicit PluginLoader(const int& masterVersion);
  // Unloads every plug-in still loaded, prints "All the plugins have been unloaded.", then
  // joins the pool thread without stopping it: call shutdown() first, or this never returns.
  // Kept: an unload() of a handle the loader did not hold leaves an empty entry that also keeps
  // this destructor from finishing; shutdown() drops such entries.
  ~PluginLoader();
  PluginLoader(const PluginLoader&) = delete;
  PluginLoader& operator=(const PluginLoader&) = delete;

  // Opens `path` and starts its plug-in (kelvo-plugin-check says beforehand what this will do
  // with a file, and why). Returns the dlopen handle, or null when the library
  // has no "exports" record, an API version other than 1 ("Api version %d is invalid!\n" on
  // standard output) or a master version that does not fit ("Master version %s does not match
  // %s with version %s!\n"); in those three cases the library stays open. A library that
  // cannot be opened throws std::runtime_error "Cannot load library: <linker message>" (see
  // setError). A path (with a slash) naming a 64-bit ELF file whose loadable segments reach
  // past the end of the file is refused the same way, as "Cannot load library: <path>: file
  // too short", before the dynamic linker maps it (the linker would die of SIGBUS touching
  // the missing pages). An empty create throws std::bad_function_call; a throwing start
  // propagates and the plug-in is not entered (its library stays open).
  // The master version M accepts a plug-in built for T when their majors are equal and the
  // minor of M is at least that of T; patch levels are ignored.
  void* load(const std::string& path);
  // Stops and destroys the plug-in, closes its library and forgets the handle. A handle the
  // loader does not hold gains an empty entry and nothing else happens. An empty destroy
  // throws std::bad_function_call and leaves the plug-in's entry and library in place.
  void unload(void* handle);
  // One line per plug-in ("fileName: f, className: c, pluginName: p, pluginVersion: 1.2.3 \n"),
  // then "services: <count> \n", then the service names joined by ", " and " \n". Empty
  // entries left by unload() of an unknown handle are skipped (they have no record). A null
  // string in a record puts the stream in its failed state: the text ends there.
  std::string dump();
  std::string error() const;
  // Records `what` + ": " + the dynamic linker's pending message as the error text and throws
  // std::runtime_error with it. With no pending linker message, throws std::logic_error and
  // leaves the error text as it was.
  [[noreturn]] void setError(const std::string& what);

  // Addition: the loader's own context, the one every plug-in it loads gets in start() and
  // stop(). Through it the host publishes services for plug-ins and looks up theirs, and adds
  // tasks to the same pool thread, instead of building a second context (which would have a
  // registry of its own and a second pool thread). It lives as long as the loader; the
  // registry's threading rules apply (the host's control thread, not pool tasks).
  PluginContext& getContext();

  // Addition: stops and joins the pool thread (no pool task runs after this), then unloads
  // every plug-in (stop, destroy, close) and drops empty entries. A plug-in whose stop or
  // destroy throws is dropped with its library left open; the first such exception is
  // rethrown once all the others are unloaded. Afterwards destruction returns at once. Plug-ins
  // loaded after shutdown() get a context whose tasks never run.
  void shutdown();

 private:
  int masterVersion;
  std::string errorText;
  PluginContext context;
  std::unordered_map<void*, std::pair<PluginDetails*, PluginActivator*>> plugins;
};

}  // namespace kelvo
}  // namespace mosk

// Defines the "exports" record of a plug-in library for an activator class with a public
// default constructor, in one line at namespace scope of one source file:
//
//   KELVO_PLUGIN(MyActivator, "my-plugin", 1000000, 2003000);
//
// `pluginVersion` and `targetMasterVersion` are encoded versions (major*1000000+minor*1000+
// patch); the record's API version is 1. create() is `new Activator`, destroy() deletes it.
// The file name shown by dump() is KELVO_PLUGIN_FILE_NAME when defined (kelvo_add_plugin
// defines it as the module's file name), else the source file's name. The record is exported
// with default visibility even when the rest of the plug-in is hidden.
#ifndef KELVO_PLUGIN_FILE_NAME
#define KELVO_PLUGIN_FILE_NAME __FILE__
#endif
#define KELVO_PLUGIN(Activator, pluginName, pluginVersion, targetMasterVersion) \
  extern "C" {                                                                  \
  __attribute__((visibility("default"))) ::mosk::kelvo::PluginDetails exports{  \
      1,                                                                        \
      (pluginVersion),                                                          \
      (targetMasterVersion),                                                    \
      KELVO_PLUGIN_FILE_NAME,                                                   \
      #Activator,                                                               \
      (pluginName),                                                             \
      []() -> ::mosk::kelvo::PluginActivator* { return new Activator(); },      \
      [](::mosk::kelvo::PluginActivator* activator) { delete activator; }};     \
  }                                                                             \
  static_assert(true, "KELVO_PLUGIN ends with a semicolon")

#endif  // MOSK_KELVO_PLUGIN_H_
