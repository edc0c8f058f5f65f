#pragma once

#include <cstddef>
#include <span>
#include <string_view>

namespace zk {

/// What a daemon does first, before there are threads: descriptors 0, 1 and 2 exist and all others
/// are closed (a file opened later must never turn out to be standard output, and nothing that the
/// parent forgot to close is kept alive); as many descriptors as the system permits may be open,
/// since a client costs two; there are no core dumps, which would hold secrets; a reader that went
/// away and a file that got too large are errors of a write and not the end of the process.
void prepareProcess();

/// From now on SIGTERM does nothing but end awaitStop(), whatever the parent had it do. Throws
/// std::system_error when there is no descriptor to be had. Before there are threads.
void takeTerminationSignal();

/// The same for Ctrl-C and for the end of the terminal, for programs that people start. The latter
/// stays ignored where nohup has it so.
void takeInterrupts();

/// Ends awaitStop(). Any thread.
void requestStop();

/// Returns when SIGTERM has arrived or requestStop() was called since takeTerminationSignal().
void awaitStop();

/// What comes next on standard input: how many octets, or 0 at its end or on an error. Waits for
/// them, also where whoever gave us the input made it non-blocking.
std::size_t readInput(std::span<char> into);

/// Writes to standard output, unbuffered; waits for room there until it is time to stop. Whether
/// anybody reads it shows nowhere.
void writeOutput(std::string_view text);

/// Ends the process at once, without destructors: threads may still run.
[[noreturn]] void endProcess(int status);

/// From now on the files that this process and its children make are for this user alone.
void keepFilesPrivate();

/// Gives memory that was freed back to the system, after a structure has shrunk by much.
void returnFreedMemory();

}  // namespace zk
