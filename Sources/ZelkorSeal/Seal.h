#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <sys/types.h>

#include "Platform/Descriptor.h"
#include "Platform/EventLoop.h"

namespace zk {

/// The network that a sealed program sees, the same in every seal and in most homes: who reads it
/// there has learnt nothing.
namespace SealNetwork {
inline constexpr std::uint32_t address = 0xC0A80164;  // 192.168.1.100/24 on eth0, which is the tun
inline constexpr std::uint32_t gateway = 0xC0A80101;  // 192.168.1.1
inline constexpr unsigned mtu = 65520;
// Where the listener is, at `address`. No program in the seal may bind a port so low, so that none
// is ever in the way, or mistaken for it.
inline constexpr std::uint16_t listenerPort = 1023;
inline constexpr std::uint32_t nameServers[] = {0x7F000001, 0x7F000035};  // 127.0.0.1, 127.0.0.53
inline constexpr std::uint16_t namePort = 53;
}  // namespace SealNetwork

/// What a seal hands out. All were made in its network, and stay there, whoever holds them; all are
/// close-on-exec and do not block.
struct SealDescriptors {
  /// One IP packet for each read and each write, with nothing before it. All that leaves the seal
  /// comes out here, but for what its programs send to themselves.
  Descriptor tun;
  /// TCP, listening at address:listenerPort, to what comes by the tun only.
  Descriptor listener;
  /// Bound at SealNetwork::nameServers, in that order; the ones for TCP listen.
  std::array<Descriptor, 2> namesUDP;
  std::array<Descriptor, 2> namesTCP;

  /// All of them, always in the same order.
  std::array<Descriptor*, 6> all() {
    return {&tun, &listener, &namesUDP[0], &namesUDP[1], &namesTCP[0], &namesTCP[1]};
  }
};

enum class SealMessageKind;

/// Why there is no seal: one sentence for people, with what to try.
class SealFailure : public std::runtime_error {
  using std::runtime_error::runtime_error;
};

/// Namespaces for one command (user, network, mount, process numbers), made without any privilege.
/// Whatever runs in them can send nothing, and ask for no name, but by what SealDescriptors holds.
/// Where any step of the making fails, the command does not run.
///
/// One thread, which must be the first one of the process and outlive this: the seal ends with it.
class Seal final : private EventLoop::Source {
 public:
  struct Plan {
    std::vector<std::string> command;      // at least its name, which is looked up in PATH
    std::vector<std::string> environment;  // NAME=VALUE, on top of this process's own
    bool keepsBus = false;                 // the session bus shows in it
  };

  /// Begins the making, in a process of its own. Before there is another thread, a socket, or a
  /// secret in memory: what that process never had nobody can take from it. Throws SealFailure.
  explicit Seal(const Plan& plan);
  /// Ends all that runs in it.
  ~Seal();
  Seal(const Seal&) = delete;
  Seal& operator=(const Seal&) = delete;

  /// Waits until all is made and locked. Once. Throws SealFailure.
  SealDescriptors takeDescriptors();

  /// The status of the command as env(1) and timeout(1) have it: its own, 128 + n for a signal, 126
  /// and 127 where it cannot be run.
  using Ended = std::function<void(int status)>;
  /// Starts the command, and looks after it on the loop until it has ended, with all else in the
  /// seal. From now on the terminal's signals are the command's; SIGTERM and SIGHUP are passed on
  /// to it, and this process stops when it is stopped and has it go on afterwards. Once, after
  /// takeDescriptors(). `ended` is called on the loop.
  void start(EventLoop& loop, Ended ended);

 private:
  // Who hears the signals of this process, once they are the command's.
  class Signals;

  void onReadable() override;
  void tell(SealMessageKind kind);
  void stopAsWell(int signal);
  int waitForEnd();

  pid_t process_ = -1;  // process 1 of the seal, until its status is known
  Descriptor pair_;     // to it
  EventLoop* loop_ = nullptr;
  Ended ended_;
  std::unique_ptr<Signals> signals_;
};

}  // namespace zk
