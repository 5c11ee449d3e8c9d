// kelvo-plugin-check on the test plug-ins: one line per file that says what load() does with
// it, in the loader's own words, and an exit status; checked against what load() really does
// with the same files in this process.
#include <dlfcn.h>
#include <fcntl.h>
#include <glob.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include "mosk/kelvo/plugin.h"
#include "plugin_test_support.h"

// The test plug-ins report their life cycle through this hook; here nobody listens.
extern "C" void kelvo_test_record(const char*, const char*, const void*, const void*) {}

namespace mosk::kelvo {
namespace {

using test_support::closeCompletely;
using test_support::pluginPath;
using test_support::readFile;
using test_support::ScratchFile;

constexpr int kMaster = 2003000;
constexpr char kMasterOption[] = "--master=2.3.0";

struct CheckRun {
  int status = -1;  // the exit status, or -1 if the tool did not exit normally
  std::string out;
  std::string err;
  std::vector<std::string> lines;  // of `out`
};

// Runs kelvo-plugin-check with `arguments`, in `directory` if one is given. A tool that does not
// finish within a minute is killed and the test fails.
CheckRun runCheck(const std::vector<std::string>& arguments, const std::string& directory = "") {
  CheckRun run;
  int out[2], err[2];
  if (pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0) {
    ADD_FAILURE() << "pipe";
    return run;
  }
  std::vector<char*> argv{const_cast<char*>(KELVO_PLUGIN_CHECK)};
  for (const std::string& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
  argv.push_back(nullptr);
  const pid_t child = fork();
  if (child == 0) {
    dup2(out[1], STDOUT_FILENO);
    dup2(err[1], STDERR_FILENO);
    if (!directory.empty() && chdir(directory.c_str()) != 0) _exit(126);
    execv(argv[0], argv.data());
    _exit(127);
  }
  close(out[1]);
  close(err[1]);
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::minutes(1);
  pollfd fds[2] = {{out[0], POLLIN, 0}, {err[0], POLLIN, 0}};
  std::string* into[2] = {&run.out, &run.err};
  while ((fds[0].fd >= 0 || fds[1].fd >= 0) && std::chrono::steady_clock::now() < deadline) {
    if (poll(fds, 2, 100) <= 0) continue;
    for (int i = 0; i < 2; ++i) {
      if (fds[i].fd < 0 || fds[i].revents == 0) continue;
      char buffer[4096];
      const ssize_t got = read(fds[i].fd, buffer, sizeof(buffer));
      if (got > 0) {
        into[i]->append(buffer, static_cast<size_t>(got));
      } else {
        fds[i].fd = -1;
      }
    }
  }
  if (fds[0].fd >= 0 || fds[1].fd >= 0) {
    ADD_FAILURE() << "kelvo-plugin-check did not finish within a minute";
    kill(child, SIGKILL);
  }
  int status = 0;
  waitpid(child, &status, 0);
  close(out[0]);
  close(err[0]);
  run.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  size_t start = 0;
  for (size_t end; (end = run.out.find('\n', start)) != std::string::npos; start = end + 1) {
    run.lines.push_back(run.out.substr(start, end - start));
  }
  return run;
}

// The verdict on `file` alone: its line without the "<file>: " in front.
std::string verdictOn(const std::string& file, std::vector<std::string> options = {kMasterOption}) {
  options.push_back(file);
  const CheckRun run = runCheck(options);
  EXPECT_EQ(run.lines.size(), 1u) << run.out << run.err;
  EXPECT_EQ(run.err, "");
  if (run.lines.empty()) return "";
  const std::string prefix = file + ": ";
  EXPECT_EQ(run.lines[0].compare(0, prefix.size(), prefix), 0) << run.lines[0];
  EXPECT_EQ(run.status, run.lines[0].compare(prefix.size(), 6, "loads:") == 0 ? 0 : 1)
      << run.lines[0];
  return run.lines[0].substr(std::min(prefix.size(), run.lines[0].size()));
}

bool contains(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

bool startsWith(const std::string& text, const std::string& start) {
  return text.compare(0, start.size(), start) == 0;
}

// What load() does with `path` in this process: "loads", "null" (with what it printed) or
// "throws" (with the message). Libraries that load leaves open are closed again.
struct LoadOutcome {
  std::string result;
  std::string text;
};

LoadOutcome loadInThisProcess(const std::string& path) {
  LoadOutcome outcome;
  {
    test_support::ShutDownLoader loader(kMaster);
    testing::internal::CaptureStdout();
    try {
      outcome.result = loader->load(path) == nullptr ? "null" : "loads";
    } catch (const std::exception& e) {
      outcome.result = "throws";
      outcome.text = e.what();
    }
    std::fflush(stdout);
    const std::string printed = testing::internal::GetCapturedStdout();
    if (outcome.result == "null") outcome.text = printed;
  }
  closeCompletely(path);
  return outcome;
}

// ---------------------------------------------------------------------------------------------
// What load() does, file by file
// ---------------------------------------------------------------------------------------------

TEST(PluginCheckTest, PluginsThatFitTheMasterLoad) {
  for (const char* name : {"good", "plain", "target_2002009", "target_2003999"}) {
    const std::string verdict = verdictOn(pluginPath(name));
    EXPECT_TRUE(
        startsWith(verdict, std::string("loads: plug-in \"") + name + "\" 1.2.3 built for "))
        << verdict;
  }
  EXPECT_EQ(verdictOn(pluginPath("good")),
            "loads: plug-in \"good\" 1.2.3 built for master 2.3.0, which master 2.3.0 "
            "(--master) takes; but it calls kelvo_test_record, which nothing loaded here "
            "defines: lazy binding lets the load pass, and the first such call ends the process "
            "with \"symbol lookup error\" unless the host program defines the function");
}

TEST(PluginCheckTest, ApiVersionIsRejectedWithTheLoadersMessage) {
  EXPECT_EQ(verdictOn(pluginPath("api2")),
            "does not load: load prints \"Api version 2 is invalid!\" and returns null: 1 is the "
            "only API version");
}

TEST(PluginCheckTest, MasterVersionMismatchIsRejectedWithTheLoadersMessage) {
  EXPECT_EQ(verdictOn(pluginPath("target_2004000")),
            "does not load: load prints \"Master version 2.3.0 does not match target_2004000 "
            "with version 2.4.0!\" and returns null: master 2.3.0 (--master) takes plug-ins "
            "built for 2.0.0 to 2.3.999");
  EXPECT_TRUE(contains(verdictOn(pluginPath("target_1003000")),
                       "\"Master version 2.3.0 does not match target_1003000 with version "
                       "1.3.0!\""));
}

TEST(PluginCheckTest, MasterIsThisLibrarysVersionUnlessGiven) {
  const std::string verdict = verdictOn(pluginPath("good"), {});
  EXPECT_TRUE(startsWith(verdict, std::string("does not load: load prints \"Master version ") +
                                      KELVO_TEST_LIBRARY_VERSION +
                                      " does not match good with "
                                      "version 2.3.0!\" and returns null: master " +
                                      KELVO_TEST_LIBRARY_VERSION +
                                      " (this library's version; give the host's with --master)"))
      << verdict;
}

TEST(PluginCheckTest, MasterMayBeGivenEncoded) {
  for (const char* master : {"2003000", "2.3.0"}) {
    EXPECT_TRUE(startsWith(verdictOn(pluginPath("good"), {"--master", master}), "loads:"))
        << master;
  }
  EXPECT_EQ(verdictOn(pluginPath("good"), {"--master", "2002999"}),
            verdictOn(pluginPath("good"), {"--master=2.2.999"}));
}

TEST(PluginCheckTest, MissingFileQuotesTheLinker) {
  EXPECT_EQ(verdictOn("/nonexistent/kelvo/libnothing.so"),
            "does not load: load throws \"Cannot load library: /nonexistent/kelvo/libnothing.so: "
            "cannot open shared object file: No such file or directory\"");
}

TEST(PluginCheckTest, FileThatIsNotElfQuotesTheLinker) {
  ScratchFile text(std::string(100, 'x'));
  const std::string verdict = verdictOn(text.path());
  EXPECT_TRUE(startsWith(verdict, "does not load: load throws \"Cannot load library: " +
                                      text.path() + ": invalid ELF header\""))
      << verdict;
}

TEST(PluginCheckTest, TruncatedFilesAreRefusedAsLoadRefusesThem) {
  const std::string whole = readFile(pluginPath("good"));
  ScratchFile header(whole.substr(0, 16));  // the linker's own refusal
  EXPECT_EQ(verdictOn(header.path()), "does not load: load throws \"Cannot load library: " +
                                          header.path() + ": file too short\"");
  ScratchFile segments(whole.substr(0, 1024));  // the loader's refusal, before the linker
  EXPECT_EQ(verdictOn(segments.path()),
            "does not load: load throws \"Cannot load library: " + segments.path() +
                ": file too short\" without opening it: its segments reach past the end of the "
                "file (a cut copy?)");
}

TEST(PluginCheckTest, LibraryWithoutARecordSaysSo) {
  EXPECT_EQ(verdictOn(pluginPath("no_exports")),
            "does not load: it has no \"exports\" (is it a kelvo plug-in?), and load returns "
            "null and prints nothing");
}

TEST(PluginCheckTest, HiddenRecordIsExplainedWithTheWaysToExportIt) {
  EXPECT_EQ(verdictOn(pluginPath("hidden_exports")),
            "does not load: \"exports\" is defined but hidden (a local symbol), so the dynamic "
            "linker does not see it and load returns null and prints nothing; export it: build "
            "the plug-in with kelvo_add_plugin, define the record with KELVO_PLUGIN, or mark its "
            "definition __attribute__((visibility(\"default\")))");
}

TEST(PluginCheckTest, StrippedLibraryWithoutARecordSaysAHiddenOneWouldNotShow) {
  ScratchFile copy(readFile(pluginPath("hidden_exports")));
  const std::string stripped = copy.path() + ".so";
  if (std::system(("strip -o " + stripped + " " + copy.path() + " 2>/dev/null").c_str()) != 0) {
    GTEST_SKIP() << "strip (binutils) is not available";
  }
  const std::string verdict = verdictOn(stripped);
  unlink(stripped.c_str());
  EXPECT_EQ(verdict,
            "does not load: it exports no \"exports\", and load returns null and prints nothing "
            "(the file is stripped: a hidden \"exports\" would not show)");
}

TEST(PluginCheckTest, EmptyCreateAndEmptyDestroy) {
  EXPECT_EQ(verdictOn(pluginPath("empty_create")),
            "does not load: the record's create is empty: load throws std::bad_function_call");
  const std::string destroy = verdictOn(pluginPath("empty_destroy"));
  EXPECT_TRUE(startsWith(destroy, "loads: ")) << destroy;
  EXPECT_TRUE(contains(destroy,
                       "; but the record's destroy is empty: unload throws "
                       "std::bad_function_call and leaves the library open; and it calls "))
      << destroy;
}

TEST(PluginCheckTest, FunctionsNobodyDefinesAreNamedButTheFileLoads) {
  const std::string verdict = verdictOn(pluginPath("unresolved"));
  EXPECT_TRUE(startsWith(verdict, "loads: ")) << verdict;
  EXPECT_TRUE(contains(verdict, "; but it calls 2 functions that nothing loaded here defines ("))
      << verdict;
  EXPECT_TRUE(contains(verdict, "kelvo_test_missing_function")) << verdict;
  EXPECT_TRUE(contains(verdict, "kelvo_test_record")) << verdict;
  EXPECT_TRUE(contains(verdict, "\"symbol lookup error\"")) << verdict;
}

// A name without a slash is searched for in the library path, as dlopen searches for it. (The
// hint for a file that sits in the current directory is checked on the installed tool: a tool
// in the build tree also searches the current directory, through the empty entry CMake leaves
// at the end of its build-tree RUNPATH.)
TEST(PluginCheckTest, NameWithoutASlashIsSearchedForAsLoadSearchesForIt) {
  const CheckRun run = runCheck({kMasterOption, "libkelvo_no_such_plugin.so"}, "/");
  ASSERT_EQ(run.lines.size(), 1u) << run.out << run.err;
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.lines[0],
            "libkelvo_no_such_plugin.so: does not load: load throws \"Cannot load library: "
            "libkelvo_no_such_plugin.so: cannot open shared object file: No such file or "
            "directory\"");
  const CheckRun dotted = runCheck({kMasterOption, "./good.so"}, KELVO_TEST_PLUGIN_DIR);
  EXPECT_EQ(dotted.status, 0) << dotted.out;
}

// ---------------------------------------------------------------------------------------------
// Libraries that misbehave while they are opened
// ---------------------------------------------------------------------------------------------

// Whether any process still has `path` mapped.
bool mappedAnywhere(const std::string& path) {
  glob_t maps;
  if (glob("/proc/[0-9]*/maps", 0, nullptr, &maps) != 0) return false;
  bool found = false;
  for (size_t i = 0; i < maps.gl_pathc && !found; ++i) {
    std::ifstream file(maps.gl_pathv[i]);
    std::string line;
    while (!found && std::getline(file, line)) found = contains(line, path);
  }
  globfree(&maps);
  return found;
}

TEST(PluginCheckTest, CrashWhileOpeningIsReportedAndTheNextFileIsChecked) {
  const std::string crash = pluginPath("crash_on_open");
  const CheckRun run = runCheck({kMasterOption, crash, pluginPath("good")});
  ASSERT_EQ(run.lines.size(), 2u) << run.out << run.err;
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.lines[0],
            crash +
                ": does not load: opening it (which runs its constructors) killed the process "
                "with signal 11 (Segmentation fault), after it printed \"test plug-in: crashing "
                "while it is opened\": load would end the host the same way");
  EXPECT_TRUE(startsWith(run.lines[1], pluginPath("good") + ": loads: ")) << run.lines[1];
  EXPECT_EQ(run.err, "");
}

TEST(PluginCheckTest, HangWhileOpeningIsCutOffAtTheTimeLimit) {
  const std::string hang = pluginPath("hang_on_open");
  const CheckRun run = runCheck({"--timeout", "1", kMasterOption, hang});
  ASSERT_EQ(run.lines.size(), 1u) << run.out << run.err;
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.lines[0], hang +
                              ": does not load: opening it (which runs its constructors) did not "
                              "finish within 1 s: load would hang the host there");
  EXPECT_FALSE(mappedAnywhere(hang)) << "the child that hung is gone";
}

// ---------------------------------------------------------------------------------------------
// The verdict agrees with load()
// ---------------------------------------------------------------------------------------------

TEST(PluginCheckTest, VerdictsAgreeWithWhatLoadDoes) {
  REQUIRE_POOL_THREAD();
  const std::string whole = readFile(pluginPath("good"));
  ScratchFile notElf("not a shared object\n");
  ScratchFile shortHeader(whole.substr(0, 16));
  ScratchFile cutSegments(whole.substr(0, 1024));
  std::vector<std::string> files = {notElf.path(), shortHeader.path(), cutSegments.path(),
                                    "/nonexistent/kelvo/libnothing.so"};
  for (const char* name :
       {"good", "plain", "no_exports", "hidden_exports", "api2", "target_2002009", "target_2003999",
        "target_2004000", "target_1003000", "empty_create", "provider", "consumer", "unresolved"}) {
    files.push_back(pluginPath(name));
  }
  std::vector<std::string> arguments = {kMasterOption};
  arguments.insert(arguments.end(), files.begin(), files.end());
  const CheckRun run = runCheck(arguments);
  ASSERT_EQ(run.lines.size(), files.size()) << run.out << run.err;
  EXPECT_EQ(run.status, 1);
  for (size_t i = 0; i < files.size(); ++i) {
    const std::string verdict = run.lines[i].substr(files[i].size() + 2);
    const LoadOutcome load = loadInThisProcess(files[i]);
    if (load.result == "loads") {
      EXPECT_TRUE(startsWith(verdict, "loads: ")) << files[i] << ": " << verdict;
    } else if (load.result == "throws") {
      EXPECT_TRUE(startsWith(verdict, "does not load: ")) << files[i] << ": " << verdict;
      EXPECT_TRUE(contains(verdict, "load throws \"" + load.text + "\"") ||
                  (load.text == "bad_function_call" &&
                   contains(verdict, "load throws std::bad_function_call")))
          << files[i] << ": load threw \"" << load.text << "\"; the tool says " << verdict;
    } else if (load.text.empty()) {
      EXPECT_TRUE(contains(verdict, "load returns null and prints nothing"))
          << files[i] << ": " << verdict;
    } else {
      const std::string printed = load.text.substr(0, load.text.size() - 1);  // no newline
      EXPECT_TRUE(contains(verdict, "load prints \"" + printed + "\" and returns null"))
          << files[i] << ": load printed \"" << printed << "\"; the tool says " << verdict;
    }
  }
}

// ---------------------------------------------------------------------------------------------
// The command line
// ---------------------------------------------------------------------------------------------

TEST(PluginCheckTest, BadArgumentsExitTwoAndNameTheArgument) {
  const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
      {{}, "no file given"},
      {{"--master", "2.3"}, "bad value for --master: '2.3'"},
      {{"--master", "2.1000.0", "x.so"}, "bad value for --master: '2.1000.0'"},
      {{"--master=2.3.0.1", "x.so"}, "bad value for --master: '2.3.0.1'"},
      {{"--master", "-1", "x.so"}, "bad value for --master: '-1'"},
      {{"--master", "3000000000", "x.so"}, "bad value for --master: '3000000000'"},
      {{"--master", "v2.3.0", "x.so"}, "bad value for --master: 'v2.3.0'"},
      {{"--master"}, "missing value for --master"},
      {{"--timeout", "0", "x.so"}, "bad value for --timeout: '0'"},
      {{"--timeout=1s", "x.so"}, "bad value for --timeout: '1s'"},
      {{"--timeout", "3601", "x.so"}, "bad value for --timeout: '3601'"},
      {{"--verbose", "x.so"}, "unknown option '--verbose'"},
      {{"-m", "x.so"}, "unknown option '-m'"},
  };
  for (const auto& [arguments, message] : cases) {
    const CheckRun run = runCheck(arguments);
    EXPECT_EQ(run.status, 2) << message;
    EXPECT_EQ(run.out, "") << message;
    EXPECT_TRUE(startsWith(run.err, "kelvo-plugin-check: " + message)) << run.err;
    EXPECT_TRUE(contains(run.err, "\nusage: kelvo-plugin-check ")) << run.err;
  }
}

TEST(PluginCheckTest, HelpPrintsTheUsageAndExitsZero) {
  const CheckRun run = runCheck({"--help"});
  EXPECT_EQ(run.status, 0);
  EXPECT_TRUE(startsWith(run.out, "usage: kelvo-plugin-check [--master X.Y.Z]")) << run.out;
}

TEST(PluginCheckTest, FileNamesAfterADoubleDashMayStartWithADash) {
  const CheckRun run = runCheck({kMasterOption, "--", "-weird.so"}, "/tmp");
  ASSERT_EQ(run.lines.size(), 1u) << run.out << run.err;
  EXPECT_TRUE(startsWith(run.lines[0],
                         "-weird.so: does not load: load throws \"Cannot load "
                         "library: -weird.so: cannot open shared object file"))
      << run.lines[0];
  EXPECT_EQ(run.status, 1);
}

TEST(PluginCheckTest, EveryFileGetsOneLineInOrderAndTheStatusIsZeroOnlyIfAllLoad) {
  const std::vector<std::string> loading = {pluginPath("good"), pluginPath("plain"),
                                            pluginPath("good")};
  std::vector<std::string> arguments = {kMasterOption};
  arguments.insert(arguments.end(), loading.begin(), loading.end());
  CheckRun run = runCheck(arguments);
  EXPECT_EQ(run.status, 0);
  ASSERT_EQ(run.lines.size(), 3u);
  for (size_t i = 0; i < loading.size(); ++i) {
    EXPECT_TRUE(startsWith(run.lines[i], loading[i] + ": loads: ")) << run.lines[i];
  }
  arguments.insert(arguments.begin() + 2, pluginPath("api2"));
  run = runCheck(arguments);
  EXPECT_EQ(run.status, 1);
  ASSERT_EQ(run.lines.size(), 4u);
  EXPECT_TRUE(startsWith(run.lines[1], pluginPath("api2") + ": does not load: "));
  EXPECT_TRUE(startsWith(run.lines[3], pluginPath("good") + ": loads: "));
}

}  // namespace
}  // namespace mosk::kelvo
