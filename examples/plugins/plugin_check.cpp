// kelvo-plugin-check: says for each plug-in file what PluginLoader::load would do with it, and
// why, one line per file.
//
//   kelvo-plugin-check [--master X.Y.Z] [--timeout SECONDS] FILE...
//
// load() is silent about a library without an "exports" record, and a library whose functions
// nobody defines loads fine and ends the process later, at the first call of one. This tool
// asks the same questions load() asks, in the same order and with the loader's own rules and
// messages, and adds what the loader cannot know: that a record exists but is hidden, and
// which functions lazy binding leaves unresolved.
//
// Each file is opened in a child process (fork), first with RTLD_NOW so that every function is
// resolved at once, then, if that fails, with load()'s RTLD_LAZY. A library's constructors run
// there, so a crash, an exit or a hang in one of them ends or stalls only the child: the child
// gets --timeout seconds (default 10), then it and everything it started are killed. Nothing
// of the plug-in runs beyond its constructors: no activator is created.
//
// Exit status: 0 when every file would load, 1 when one would not, 2 for a bad argument.
// Functions that nobody defines are reported on the file's line but do not change the status:
// the load itself succeeds, and the host program may define them (the tool is not the host).
#include <dlfcn.h>
#include <elf.h>
#include <fcntl.h>
#include <link.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "mosk/kelvo/perf.h"
#include "mosk/kelvo/plugin.h"
#include "plugin_elf.h"
#include "plugin_record.h"

namespace {

namespace elf = mosk::kelvo::internal::elf;
namespace record = mosk::kelvo::internal::plugin_record;
using mosk::kelvo::PluginDetails;
using mosk::kelvo::versionIntToString;

constexpr char kUsage[] =
    "usage: kelvo-plugin-check [--master X.Y.Z] [--timeout SECONDS] FILE...\n"
    "Says for each plug-in FILE what PluginLoader::load would do with it, and why.\n"
    "  --master X.Y.Z     the host's version, as X.Y.Z or encoded (2003000 for 2.3.0);\n"
    "                     default: this library's version\n"
    "  --timeout SECONDS  how long opening one file may take, 1 to 3600 (default 10)\n"
    "Exit status: 0 when every file would load, 1 when one would not, 2 for a bad argument.\n";

struct Options {
  int master = KELVO_LIBRARY_VERSION;
  bool masterGiven = false;
  int timeoutSeconds = 10;
  std::vector<std::string> files;
};

struct Verdict {
  bool loads;
  std::string text;
};

// ---------------------------------------------------------------------------------------------
// Options
// ---------------------------------------------------------------------------------------------

[[noreturn]] void usageError(const std::string& message) {
  std::fprintf(stderr, "kelvo-plugin-check: %s\n%s", message.c_str(), kUsage);
  std::exit(2);
}

// A whole number of at most `maxDigits` decimal digits, nothing else.
bool parseDigits(const std::string& text, size_t maxDigits, int64_t& value) {
  if (text.empty() || text.size() > maxDigits) return false;
  value = 0;
  for (char c : text) {
    if (c < '0' || c > '9') return false;
    value = value * 10 + (c - '0');
  }
  return true;
}

// "X.Y.Z" (minor and patch below 1000) or an encoded version, within the range of an int.
bool parseVersion(const std::string& text, int& version) {
  int64_t value = 0;
  if (text.find('.') == std::string::npos) {
    if (!parseDigits(text, 10, value) || value > INT_MAX) return false;
    version = static_cast<int>(value);
    return true;
  }
  int64_t parts[3];
  size_t start = 0;
  for (int i = 0; i < 3; ++i) {
    const size_t dot = i < 2 ? text.find('.', start) : text.size();
    if (dot == std::string::npos || !parseDigits(text.substr(start, dot - start), 10, parts[i])) {
      return false;
    }
    start = dot + 1;
  }
  if (start != text.size() + 1 || parts[1] > 999 || parts[2] > 999) return false;
  value = parts[0] * 1000000 + parts[1] * 1000 + parts[2];
  if (value > INT_MAX) return false;
  version = static_cast<int>(value);
  return true;
}

Options parseOptions(int argc, char** argv) {
  Options options;
  bool optionsEnded = false;
  for (int i = 1; i < argc; ++i) {
    std::string argument = argv[i];
    if (optionsEnded || argument.empty() || argument[0] != '-' || argument == "-") {
      options.files.push_back(argument);
      continue;
    }
    if (argument == "--") {
      optionsEnded = true;
      continue;
    }
    if (argument == "-h" || argument == "--help") {
      std::fputs(kUsage, stdout);
      std::exit(0);
    }
    std::string value;
    const size_t equals = argument.find('=');
    const std::string name = argument.substr(0, equals);
    if (name != "--master" && name != "--timeout") usageError("unknown option '" + argument + "'");
    if (equals != std::string::npos) {
      value = argument.substr(equals + 1);
    } else if (i + 1 < argc) {
      value = argv[++i];
    } else {
      usageError("missing value for " + name);
    }
    if (name == "--master") {
      if (!parseVersion(value, options.master)) {
        usageError("bad value for --master: '" + value +
                   "' (expected X.Y.Z with Y and Z below 1000, or an encoded version)");
      }
      options.masterGiven = true;
    } else {
      int64_t seconds = 0;
      if (!parseDigits(value, 4, seconds) || seconds < 1 || seconds > 3600) {
        usageError("bad value for --timeout: '" + value + "' (expected 1 to 3600 seconds)");
      }
      options.timeoutSeconds = static_cast<int>(seconds);
    }
  }
  if (options.files.empty()) usageError("no file given");
  return options;
}

// ---------------------------------------------------------------------------------------------
// The verdicts, worded after what load() does
// ---------------------------------------------------------------------------------------------

std::string quoted(const std::string& text) { return "\"" + text + "\""; }

// A printf-style message of the loader, without its newline.
template <typename... Args>
std::string loaderMessage(const char* format, Args... args) {
  char text[1024];
  std::snprintf(text, sizeof(text), format, args...);
  std::string message = text;
  if (!message.empty() && message.back() == '\n') message.pop_back();
  return message;
}

// What printf's %s makes of a string of the record (glibc prints a null pointer as "(null)").
std::string shown(const char* text) { return text == nullptr ? "(null)" : text; }

std::string masterDescription(const Options& options) {
  const std::string version = versionIntToString(options.master);
  return options.masterGiven
             ? "master " + version + " (--master)"
             : "master " + version + " (this library's version; give the host's with --master)";
}

Verdict openFailure(const std::string& path, const std::string& linkerMessage) {
  std::string text = "does not load: load throws " +
                     quoted(std::string(record::kCannotLoadLibrary) + ": " + linkerMessage);
  if (path.find('/') == std::string::npos && access(path.c_str(), F_OK) == 0) {
    text +=
        "; a name without a slash is looked up in the library search path, not in the "
        "current directory: give ./" +
        path;
  }
  return {false, text};
}

Verdict truncatedFile(const std::string& path) {
  return {false, "does not load: load throws " + quoted(record::truncatedFileError(path)) +
                     " without opening it: its segments reach past the end of the file (a cut "
                     "copy?)"};
}

// Why dlsym found no "exports": what the file's symbol tables say about that name.
Verdict missingExports(const std::string& path) {
  const std::string outcome = "load returns null and prints nothing";
  elf::FileBytes file(path);
  bool referenced = false, hidden = false;
  const auto lookFor = [&](elf::SymbolTable table) {
    return elf::forEachSymbol(file, table, [&](const elf::Symbol& symbol) {
      if (symbol.name != "exports") return true;
      if (!symbol.defined) {
        referenced = true;
      } else if (symbol.binding == STB_LOCAL || symbol.visibility == STV_HIDDEN ||
                 symbol.visibility == STV_INTERNAL) {
        hidden = true;
      }
      return true;
    });
  };
  const elf::WalkResult dynamic = lookFor(elf::SymbolTable::kDynamic);
  const elf::WalkResult all = lookFor(elf::SymbolTable::kStatic);
  if (hidden) {
    return {false,
            "does not load: \"exports\" is defined but hidden (a local symbol), so the dynamic "
            "linker does not see it and " +
                outcome +
                "; export it: build the plug-in with kelvo_add_plugin, define the record with "
                "KELVO_PLUGIN, or mark its definition __attribute__((visibility(\"default\")))"};
  }
  if (referenced) {
    return {false,
            "does not load: it refers to an \"exports\" that it does not define, and " + outcome};
  }
  if (dynamic != elf::WalkResult::kOk || !file.ok()) {
    return {false, "does not load: it exports no \"exports\", and " + outcome +
                       " (its symbol tables cannot be read)"};
  }
  if (all == elf::WalkResult::kNoTable) {
    return {false, "does not load: it exports no \"exports\", and " + outcome +
                       " (the file is stripped: a hidden \"exports\" would not show)"};
  }
  return {false, "does not load: it has no \"exports\" (is it a kelvo plug-in?), and " + outcome};
}

// load()'s steps 4 to 6 on the record, without creating anything.
Verdict fromRecord(const PluginDetails& details, const Options& options) {
  if (details.apiVersion != record::kApiVersion) {
    return {false, "does not load: load prints " +
                       quoted(loaderMessage(record::kApiVersionInvalid, details.apiVersion)) +
                       " and returns null: " + std::to_string(record::kApiVersion) +
                       " is the only API version"};
  }
  const int target = details.targetMasterVersion;
  if (!record::fitsMaster(options.master, target)) {
    const int major = record::majorOf(options.master);
    const int minor = record::minorOf(options.master);
    return {false, "does not load: load prints " +
                       quoted(loaderMessage(
                           record::kMasterMismatch, versionIntToString(options.master).c_str(),
                           shown(details.pluginName).c_str(), versionIntToString(target).c_str())) +
                       " and returns null: " + masterDescription(options) +
                       " takes plug-ins built for " + std::to_string(major) + ".0.0 to " +
                       std::to_string(major) + "." + std::to_string(minor) + ".999"};
  }
  if (!details.create) {
    return {false,
            "does not load: the record's create is empty: load throws "
            "std::bad_function_call"};
  }
  std::string text = "loads: plug-in " + quoted(shown(details.pluginName)) + " " +
                     versionIntToString(details.pluginVersion) + " built for master " +
                     versionIntToString(target) + ", which " + masterDescription(options) +
                     " takes";
  if (!details.destroy) {
    text +=
        "; but the record's destroy is empty: unload throws std::bad_function_call and "
        "leaves the library open";
  }
  return {true, text};
}

// The functions the library calls that neither the process's global scope nor the library's
// own dependencies define: lazy binding leaves them until their first call.
std::vector<std::string> unresolvedFunctions(const std::string& path, void* handle) {
  std::vector<std::string> names;
  elf::FileBytes file(path);
  elf::forEachSymbol(file, elf::SymbolTable::kDynamic, [&](const elf::Symbol& symbol) {
    const bool lazilyBound =
        symbol.type == STT_FUNC || symbol.type == STT_NOTYPE || symbol.type == STT_GNU_IFUNC;
    if (!symbol.defined && symbol.binding == STB_GLOBAL && lazilyBound && !symbol.name.empty() &&
        dlsym(RTLD_DEFAULT, symbol.name.c_str()) == nullptr &&
        dlsym(handle, symbol.name.c_str()) == nullptr) {
      names.push_back(symbol.name);
    }
    return true;
  });
  dlerror();  // the failed lookups leave a message behind
  return names;
}

std::string unresolvedNote(const std::vector<std::string>& names,
                           const std::string& linkerMessage) {
  std::string text;
  if (names.empty()) {
    text = "binding every function at once fails (" + quoted(linkerMessage) + ")";
  } else if (names.size() == 1) {
    text = "it calls " + names[0] + ", which nothing loaded here defines";
  } else {
    text = "it calls " + std::to_string(names.size()) +
           " functions that nothing loaded here defines (";
    for (size_t i = 0; i < names.size(); ++i) text += (i == 0 ? "" : ", ") + names[i];
    text += ")";
  }
  return text +
         ": lazy binding lets the load pass, and the first such call ends the process with "
         "\"symbol lookup error\" unless the host program defines the function";
}

// ---------------------------------------------------------------------------------------------
// The child that opens the library
// ---------------------------------------------------------------------------------------------

// Messages from the child: a kind byte, a 4-byte length, then the text. 'S' names the step the
// child is about to take (so that a crash can be placed), 'V' is the verdict: '1' or '0'
// (loads or not), then its text.
void send(int fd, char kind, const std::string& text) {
  std::string message(1, kind);
  const uint32_t length = static_cast<uint32_t>(text.size());
  message.append(reinterpret_cast<const char*>(&length), sizeof(length));
  message += text;
  const char* bytes = message.data();
  size_t left = message.size();
  while (left > 0) {
    const ssize_t written = write(fd, bytes, left);
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) _exit(3);
    bytes += written;
    left -= static_cast<size_t>(written);
  }
}

// Steps the child takes; what the parent says when the child dies during one.
struct Step {
  char id;
  const char* doing;  // "opening it ..." killed the process
  bool loadDoesIt;    // whether load() takes the same step, and would suffer the same way
};
constexpr Step kSteps[] = {
    {'o', "opening it (which runs its constructors)", true},
    {'r', "reading its record", true},
    {'s', "reading its symbol tables", false},
    {'u', "looking up the functions it calls", false},
};

const Step& stepOf(char id) {
  for (const Step& step : kSteps) {
    if (step.id == id) return step;
  }
  return kSteps[0];
}

std::string pathOf(void* handle, const std::string& fallback) {
  link_map* map = nullptr;
  if (dlinfo(handle, RTLD_DI_LINKMAP, &map) == 0 && map != nullptr && map->l_name != nullptr &&
      map->l_name[0] != '\0') {
    return map->l_name;
  }
  return fallback;
}

[[noreturn]] void probe(const std::string& path, const Options& options, int fd) {
  // A library that crashes here leaves no core file behind.
  const rlimit noCore{0, 0};
  setrlimit(RLIMIT_CORE, &noCore);
  prctl(PR_SET_DUMPABLE, 0);
  send(fd, 'S', "o");
  void* handle = dlopen(path.c_str(), RTLD_NOW);
  std::string bindNowFailure;
  if (handle == nullptr) {
    bindNowFailure = dlerror();
    handle = dlopen(path.c_str(), RTLD_LAZY);
  }
  Verdict verdict;
  if (handle == nullptr) {
    verdict = openFailure(path, dlerror());
  } else {
    send(fd, 'S', "r");
    const auto* details = static_cast<const PluginDetails*>(dlsym(handle, "exports"));
    if (details == nullptr) {
      send(fd, 'S', "s");
      verdict = missingExports(pathOf(handle, path));
    } else {
      verdict = fromRecord(*details, options);
      if (verdict.loads && !bindNowFailure.empty()) {
        send(fd, 'S', "u");
        verdict.text +=
            (verdict.text.find("; but") == std::string::npos ? "; but " : "; and ") +
            unresolvedNote(unresolvedFunctions(pathOf(handle, path), handle), bindNowFailure);
      }
    }
  }
  send(fd, 'V', (verdict.loads ? "1" : "0") + verdict.text);
  _exit(0);  // no static destructors, no dlclose: nothing more of the library runs
}

// ---------------------------------------------------------------------------------------------
// The parent: watch the child, within the time limit
// ---------------------------------------------------------------------------------------------

struct ChildEnd {
  std::string messages;  // what the child sent
  std::string output;    // the last of what it printed
  int status = 0;        // as waitpid reports it
  bool timedOut = false;
};

double now() {
  timespec t;
  clock_gettime(CLOCK_MONOTONIC, &t);
  return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) * 1e-9;
}

// Appends what `fd` has ready; false once it is at its end.
bool drain(int fd, std::string& into, size_t keepLast) {
  char buffer[4096];
  for (;;) {
    const ssize_t got = read(fd, buffer, sizeof(buffer));
    if (got > 0) {
      into.append(buffer, static_cast<size_t>(got));
      if (keepLast != 0 && into.size() > keepLast) into.erase(0, into.size() - keepLast);
      continue;
    }
    if (got < 0 && errno == EINTR) continue;
    return got < 0 && (errno == EAGAIN || errno == EWOULDBLOCK);
  }
}

ChildEnd watch(pid_t child, int resultFd, int outputFd, int timeoutSeconds) {
  ChildEnd end;
  const double deadline = now() + timeoutSeconds;
  pollfd fds[2] = {{resultFd, POLLIN, 0}, {outputFd, POLLIN, 0}};
  for (;;) {
    if (fds[0].fd >= 0 && !drain(fds[0].fd, end.messages, 0)) fds[0].fd = -1;
    if (fds[1].fd >= 0 && !drain(fds[1].fd, end.output, 4096)) fds[1].fd = -1;
    // Seen ended but not yet reaped, so that its process group can still be told apart.
    siginfo_t info{};
    if (waitid(P_PID, static_cast<id_t>(child), &info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
        info.si_pid == child) {
      break;
    }
    const double left = deadline - now();
    if (left <= 0) {
      end.timedOut = true;
      break;
    }
    poll(fds, 2, static_cast<int>(std::min(left * 1000, 100.0)) + 1);
  }
  // Whatever the library started goes with the child.
  kill(-child, SIGKILL);
  kill(child, SIGKILL);
  while (waitpid(child, &end.status, 0) < 0 && errno == EINTR) {
  }
  if (resultFd >= 0) drain(resultFd, end.messages, 0);
  if (outputFd >= 0) drain(outputFd, end.output, 4096);
  return end;
}

// The last line the child printed, shortened for one line of report.
std::string lastLine(std::string output) {
  while (!output.empty() && (output.back() == '\n' || output.back() == ' ')) output.pop_back();
  const size_t newline = output.rfind('\n');
  if (newline != std::string::npos) output.erase(0, newline + 1);
  if (output.size() > 300) output = output.substr(0, 300) + "...";
  return output;
}

// The verdict the child sent, or what its end says.
Verdict judge(const ChildEnd& end, int timeoutSeconds) {
  char step = 'o';
  for (size_t at = 0; at + 5 <= end.messages.size();) {
    uint32_t length;
    std::memcpy(&length, end.messages.data() + at + 1, sizeof(length));
    if (at + 5 + length > end.messages.size()) break;
    const std::string text = end.messages.substr(at + 5, length);
    if (end.messages[at] == 'S' && !text.empty()) step = text[0];
    if (end.messages[at] == 'V' && !text.empty()) return {text[0] == '1', text.substr(1)};
    at += 5 + length;
  }
  const Step& during = stepOf(step);
  std::string what;
  if (end.timedOut) {
    what = std::string(during.doing) + " did not finish within " + std::to_string(timeoutSeconds) +
           " s";
  } else if (WIFSIGNALED(end.status)) {
    what = std::string(during.doing) + " killed the process with signal " +
           std::to_string(WTERMSIG(end.status)) + " (" + strsignal(WTERMSIG(end.status)) + ")";
  } else {
    what = std::string(during.doing) + " ended the process with exit code " +
           std::to_string(WEXITSTATUS(end.status));
  }
  const std::string printed = lastLine(end.output);
  if (!printed.empty()) what += ", after it printed " + quoted(printed);
  if (!during.loadDoesIt) return {false, "cannot tell: " + what};
  return {false, "does not load: " + what + ": load would " +
                     (end.timedOut ? "hang the host there" : "end the host the same way")};
}

Verdict check(const std::string& path, const Options& options) {
  if (elf::isTruncatedElf(path)) return truncatedFile(path);
  int result[2], output[2];
  if (pipe2(result, O_CLOEXEC) != 0)
    return {false, "cannot tell: pipe: " + std::string(strerror(errno))};
  if (pipe2(output, O_CLOEXEC) != 0) {
    close(result[0]);
    close(result[1]);
    return {false, "cannot tell: pipe: " + std::string(strerror(errno))};
  }
  std::fflush(nullptr);
  const pid_t child = fork();
  if (child == 0) {
    setpgid(0, 0);
    close(result[0]);
    close(output[0]);
    const int nothing = open("/dev/null", O_RDONLY);
    if (nothing >= 0) dup2(nothing, STDIN_FILENO);
    dup2(output[1], STDOUT_FILENO);
    dup2(output[1], STDERR_FILENO);
    probe(path, options, result[1]);
  }
  close(result[1]);
  close(output[1]);
  Verdict verdict;
  if (child < 0) {
    verdict = {false, "cannot tell: fork: " + std::string(strerror(errno))};
  } else {
    setpgid(child, child);  // also here: the child may not have run yet
    fcntl(result[0], F_SETFL, O_NONBLOCK);
    fcntl(output[0], F_SETFL, O_NONBLOCK);
    verdict =
        judge(watch(child, result[0], output[0], options.timeoutSeconds), options.timeoutSeconds);
  }
  close(result[0]);
  close(output[0]);
  return verdict;
}

}  // namespace

int main(int argc, char** argv) {
  const Options options = parseOptions(argc, argv);
  int status = 0;
  for (const std::string& path : options.files) {
    const Verdict verdict = check(path, options);
    std::printf("%s: %s\n", path.c_str(), verdict.text.c_str());
    std::fflush(stdout);
    if (!verdict.loads) status = 1;
  }
  return status;
}
