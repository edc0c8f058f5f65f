#pragma once

#include <span>

#include "zkturn/Check.h"
#include "zkturn/ProxyOptions.h"
#include "zkturn/Run.h"
#include "zkturn/Serve.h"

namespace CLI {
class App;
}

namespace zk {

/// All that a command line can say. A verb reads its own part, and `proxy`.
struct CommandLine {
  ProxyOptions proxy;
  CheckOptions check;
  ServeOptions serve;
  RunOptions run;
};

/// One thing that the program does for people.
struct Verb {
  const char* name;
  const char* help;                                   // one line
  void (*declare)(CLI::App& app, CommandLine& line);  // its own options; null for none
  int (*perform)(const CommandLine& line);            // the status to end with
};

void declareCheck(CLI::App& app, CommandLine& line);
void declareRun(CLI::App& app, CommandLine& line);

/// Reads the command line into `line` and returns its verb; null when it asked for nothing but help
/// or the version, which is printed then. Throws UsageError.
const Verb* readCommandLine(std::span<const Verb> verbs, int argc, const char* const* argv,
                            CommandLine& line);

}  // namespace zk
