#pragma once

#include <cstddef>
#include <span>
#include <string_view>

namespace zk {

/// What a daemon does first, before it starts threads. Descriptors 0, 1 and 2 are made to exist and
/// all others are closed: a file opened later must never turn out to be standard output, and
/// nothing that the parent forgot to close stays open. The limit on descriptors is raised as far as
/// the system permits, since a client costs two. Core dumps, which would hold secrets, are off.
/// Writing to a pipe without a reader, or past the limit on file sizes, is an error instead of a
/// signal.
void prepareProcess();

/// Raises the limit on descriptors as far as the system permits.
void raiseDescriptorLimit();

/// From now on SIGTERM only ends awaitStop(), whatever the parent had set. Throws std::system_error
/// when no descriptor is left. To be called before there are threads.
void takeTerminationSignal();

/// The same for Ctrl-C and for the end of the terminal, for programs that people start. The latter
/// stays ignored under nohup.
void takeInterrupts();

/// Ends awaitStop(). Any thread.
void requestStop();

/// Returns once SIGTERM has arrived or requestStop() has been called.
void awaitStop();

/// Reads from standard input: returns how many octets, or 0 at its end or on an error. Waits for
/// them even if the parent made the input non-blocking.
std::size_t readInput(std::span<char> into);

/// Writes all of `text` to standard output, unbuffered. Where a non-blocking pipe has no room it
/// waits for some until a stop is requested. Errors are ignored: there is nobody to tell.
void writeOutput(std::string_view text);

/// Ends the process at once, without destructors: threads may still run.
[[noreturn]] void endProcess(int status);

/// From now on the files that this process and its children make are for this user alone.
void keepFilesPrivate();

/// Returns freed memory to the system, for after a structure has shrunk a lot.
void returnFreedMemory();

}  // namespace zk
