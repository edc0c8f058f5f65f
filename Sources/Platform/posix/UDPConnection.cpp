#include "Platform/UDPConnection.h"

#include <cerrno>
#include <mutex>
#include <system_error>
#include <thread>

#include <sys/socket.h>

#include "Platform/Resolver.h"
#include "Platform/Sockets.h"
#include "Platform/Thread.h"

namespace zk {
namespace {

constexpr std::size_t largestDatagram = 65536;

}  // namespace

struct UDPConnection::Shared {
  std::string host;
  std::uint16_t port = 0;
  std::shared_ptr<SerialQueue> queue;  // set by start(), before anything else runs

  std::mutex lock;
  int socket = -1;         // guarded by lock
  bool cancelled = false;  // guarded by lock
  std::thread receiver;    // guarded by lock

  Error connect();
  bool isCancelled() {
    const std::lock_guard guard(lock);
    return cancelled;
  }
};

UDPConnection::Error UDPConnection::Shared::connect() {
  const Resolution resolution = resolveUDPv4(host, std::to_string(port));
  if (resolution.addresses.empty()) {
    return resolution.error;
  }
  const ResolvedAddress& to = resolution.addresses.front();
  const int opened = openUDPSocket();
  if (opened < 0) {
    return errorText(errno);
  }
  if (::connect(opened, reinterpret_cast<const sockaddr*>(&to.address), to.length) != 0) {
    const int error = errno;
    closeSocket(opened);
    return errorText(error);
  }
  const std::lock_guard guard(lock);
  if (cancelled) {
    closeSocket(opened);
    return errorText(ECANCELED);
  }
  socket = opened;
  return std::nullopt;
}

UDPConnection::UDPConnection(std::string host, std::uint16_t port)
    : shared_(std::make_shared<Shared>()) {
  shared_->host = std::move(host);
  shared_->port = port;
}

UDPConnection::~UDPConnection() {
  cancel();
}

void UDPConnection::start(std::shared_ptr<SerialQueue> queue, StateHandler handler) {
  shared_->queue = std::move(queue);
  shared_->queue->async([shared = shared_, report = std::move(handler)] {
    const Error error = shared->connect();
    report(error ? State::failed : State::ready, error);
  });
}

void UDPConnection::send(Bytes datagram, SendHandler completion) {
  shared_->queue->async(
      [shared = shared_, bytes = std::move(datagram), report = std::move(completion)] {
        Error error;
        {
          // Held across the send, which does not block, so that cancel() cannot close the socket
          // under it.
          const std::lock_guard guard(shared->lock);
          if (shared->cancelled) {
            error = errorText(ECANCELED);
          } else if (::send(shared->socket, bytes.data(), bytes.size(), MSG_NOSIGNAL) < 0) {
            error = errorText(errno);
          }
        }
        report(error);
      });
}

void UDPConnection::receive(ReceiveHandler handler) {
  const std::lock_guard guard(shared_->lock);
  if (shared_->cancelled) {
    shared_->queue->async(
        [report = std::move(handler)] { report(std::nullopt, errorText(ECANCELED)); });
    return;
  }
  // The thread borrows what it needs: it is joined before any of it goes.
  const int socket = shared_->socket;
  try {
    shared_->receiver = startThread("zk.udp.receive", [borrowed = shared_.get(), socket,
                                                       queue = shared_->queue, report = handler] {
      Bytes datagram(largestDatagram);
      ssize_t received = 0;
      do {
        received = recv(socket, datagram.data(), datagram.size(), 0);
      } while (received < 0 && errno == EINTR);
      Error error;
      std::optional<Bytes> data;
      if (received < 0) {
        error = errorText(errno);
      } else if (received == 0 && borrowed->isCancelled()) {
        error = errorText(ECANCELED);  // a shut-down socket gives an empty datagram
      } else {
        datagram.resize(static_cast<std::size_t>(received));
        data = std::move(datagram);
      }
      queue->async(
          [report, data = std::move(data), error = std::move(error)] { report(data, error); });
    });
  } catch (const std::system_error& error) {
    shared_->queue->async([report = std::move(handler), text = errorText(error.code().value())] {
      report(std::nullopt, text);
    });
  }
}

void UDPConnection::cancel() {
  std::thread receiver;
  int socket = -1;
  {
    const std::lock_guard guard(shared_->lock);
    shared_->cancelled = true;
    std::swap(socket, shared_->socket);
    std::swap(receiver, shared_->receiver);
  }
  if (socket >= 0) {
    shutdownSocket(socket);
  }
  if (receiver.joinable()) {
    receiver.join();
  }
  if (socket >= 0) {
    closeSocket(socket);
  }
}

}  // namespace zk
