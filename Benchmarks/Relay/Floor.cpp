#include "Floor.h"

#include <cstdio>
#include <thread>

#include <sys/socket.h>
#include <unistd.h>

#include "Platform/IPv4.h"
#include "Platform/Sockets.h"

namespace zk::bench {
namespace {

int boundSocket() {
  const int fd = openUDPSocket();
  bindSocket(fd, socketAddress("127.0.0.1", 0));
  return fd;
}

[[noreturn]] void forward(int from, int to, const sockaddr_in* fixedTarget, sockaddr_in* learned) {
  static thread_local std::uint8_t buffer[65536];
  while (true) {
    sockaddr_in sender{};
    socklen_t length = sizeof sender;
    const ssize_t n =
        recvfrom(from, buffer, sizeof buffer, 0, reinterpret_cast<sockaddr*>(&sender), &length);
    if (n < 0) {
      _exit(1);
    }
    if (learned != nullptr) {
      *learned = sender;
    }
    sendto(to, buffer, static_cast<std::size_t>(n), 0,
           reinterpret_cast<const sockaddr*>(fixedTarget), sizeof *fixedTarget);
  }
}

}  // namespace

void runFloor(std::uint16_t farPort) {
  const int nearSocket = boundSocket();
  const int farSocket = boundSocket();
  std::printf("%u\n", portNumber(localAddress(nearSocket)));
  std::fflush(stdout);
  const sockaddr_in far = socketAddress("127.0.0.1", farPort);
  // Written with the same value for every datagram of the one client, before any answer to it.
  static sockaddr_in client{};
  std::thread([=] { forward(farSocket, nearSocket, &client, nullptr); }).detach();
  forward(nearSocket, farSocket, &far, &client);
}

}  // namespace zk::bench
