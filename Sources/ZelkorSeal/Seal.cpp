// The process outside: it makes process 1, takes what that hands out, and looks after the command
// as a shell would if the command were its own child.

#include "ZelkorSeal/Seal.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>

#include <fcntl.h>
#include <fmt/format.h>
#include <sched.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include "Platform/Sockets.h"
#include "ZelkorSeal/Inside.h"
#include "ZelkorSeal/Steps.h"

namespace zk {
namespace {

constexpr const char* streamNames[] = {"standard input", "standard output", "standard error"};

// 0, 1 and 2 are the command's as well. What is missing there would be taken by the next one that
// is opened; a socket there goes past every seal, and a folder leads past its mounts.
void checkStandardStreams() {
  int opened = open("/dev/null", O_RDWR | O_CLOEXEC);
  while (opened >= 0 && opened <= STDERR_FILENO) {
    opened = dup(opened);
  }
  close(opened);
  for (int number = 0; number <= STDERR_FILENO; ++number) {
    int family = AF_UNIX;
    socklen_t length = sizeof family;
    struct stat status {};
    getsockopt(number, SOL_SOCKET, SO_DOMAIN, &family, &length);
    fstat(number, &status);
    if (family != AF_UNIX || S_ISDIR(status.st_mode)) {
      throw SealFailure(fmt::format(
          "{} is a {}, which leads out of the seal; redirect it to a file or a pipe, as with "
          "\"| cat\"",
          streamNames[number], S_ISDIR(status.st_mode) ? "folder" : "socket of the network"));
    }
  }
}

// A fork into new namespaces: memory is copied, this thread goes on twice.
pid_t cloneIntoNamespaces() {
  constexpr unsigned long namespaces = CLONE_NEWUSER | CLONE_NEWNET | CLONE_NEWNS | CLONE_NEWPID;
  return static_cast<pid_t>(syscall(SYS_clone, namespaces | SIGCHLD, 0, 0, 0, 0));
}

SealInside learn(const Seal::Plan& plan) {
  SealInside inside;
  inside.plan = plan;
  inside.user = getuid();
  inside.group = getgid();
  inside.mounts = {boundSocketFiles(), std::filesystem::current_path(), plan.keepsBus};
  return inside;
}

// Where a signal handler writes what it heard.
std::atomic<int> signalWriter{-1};

extern "C" void noteSignal(int number, siginfo_t* about, void* /*context*/) {
  const int savedErrno = errno;
  // The command hears the terminal's by itself.
  const std::uint8_t heard = about->si_code <= 0 ? static_cast<std::uint8_t>(number) : 0;
  [[maybe_unused]] const ssize_t written = write(signalWriter, &heard, sizeof heard);
  errno = savedErrno;
}

}  // namespace

class Seal::Signals final : private EventLoop::Source {
 public:
  // Those that are sent to this process by somebody are passed on to `process`.
  Signals(EventLoop& loop, pid_t process) : loop_(loop), process_(process), pipe_(openPipe()) {
    fcntl(pipe_.writer.get(), F_SETFL, O_NONBLOCK);
    signalWriter = pipe_.writer.get();
    for (const int number : {SIGTERM, SIGHUP, SIGINT, SIGQUIT, SIGTSTP}) {
      take(number);
    }
    loop_.watch(pipe_.reader.get(), *this);
  }
  ~Signals() {
    loop_.unwatch(pipe_.reader.get());
    for (const int number : {SIGTERM, SIGHUP, SIGINT, SIGQUIT, SIGTSTP}) {
      std::signal(number, SIG_DFL);  // whoever does not want to wait for the rest need not
    }
    signalWriter = -1;
  }

  static void take(int number) {
    struct sigaction action {};
    action.sa_sigaction = noteSignal;
    action.sa_flags = SA_RESTART | SA_SIGINFO;
    sigfillset(&action.sa_mask);
    sigaction(number, &action, nullptr);
  }

 private:
  void onReadable() override {
    std::uint8_t number = 0;
    if (read(pipe_.reader.get(), &number, sizeof number) == 1 && number != 0 && number != SIGTSTP) {
      kill(process_, number);
    }
  }

  EventLoop& loop_;
  const pid_t process_;
  const Pipe pipe_;
};

Seal::Seal(const Plan& plan) {
  checkStandardStreams();
  try {
    SealInside inside = learn(plan);
    int pair[2];
    requireStep(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair) == 0, SealStep::process,
                "open a pair of sockets");
    pair_ = Descriptor(pair[0]);
    inside.outside = Descriptor(pair[1]);
    sigset_t all;
    sigfillset(&all);
    struct sigaction plain {};
    plain.sa_handler = SIG_DFL;
    sigaction(SIGCHLD, &plain, &inside.childAction);
    sigprocmask(SIG_BLOCK, &all, &inside.signals);
    process_ = cloneIntoNamespaces();
    if (process_ == 0) {
      runInside(inside);
    }
    const int error = errno;
    sigprocmask(SIG_SETMASK, &inside.signals, nullptr);
    errno = error;
    requireStep(process_ > 0, SealStep::namespaces, "make namespaces");
  } catch (const SealStepFailure& failure) {
    throw SealFailure(adviceFor(failure));
  } catch (const std::filesystem::filesystem_error& error) {
    throw SealFailure(error.what());
  }
}

Seal::~Seal() {
  if (loop_ != nullptr) {
    loop_->unwatch(pair_.get());
  }
  if (process_ > 0) {
    kill(process_, SIGKILL);
    waitForEnd();
  }
}

SealDescriptors Seal::takeDescriptors() {
  SealMessage message;
  iovec content{&message, sizeof message};
  alignas(cmsghdr) SealRights control{};
  msghdr header{};
  header.msg_iov = &content;
  header.msg_iovlen = 1;
  header.msg_control = control.data();
  header.msg_controllen = control.size();
  ssize_t received = 0;
  do {
    received = recvmsg(pair_.get(), &header, MSG_CMSG_CLOEXEC);
  } while (received < 0 && errno == EINTR);
  const cmsghdr* const rights = CMSG_FIRSTHDR(&header);
  if (received != ssize_t(sizeof message) || message.kind == SealMessage::Kind::failed) {
    throw SealFailure(message.text[0] != '\0' ? message.text
                                              : "the seal has ended while it was being made");
  }
  SealNumbers numbers{};
  if (rights == nullptr || rights->cmsg_len != CMSG_LEN(sizeof numbers)) {
    throw SealFailure("the seal's descriptors were not let through: too many are open");
  }
  std::memcpy(numbers.data(), CMSG_DATA(rights), sizeof numbers);
  SealDescriptors made;
  const auto places = made.all();
  for (std::size_t i = 0; i < numbers.size(); ++i) {
    *places[i] = Descriptor(numbers[i]);
  }
  return made;
}

void Seal::start(EventLoop& loop, Ended ended) {
  ended_ = std::move(ended);
  signals_ = std::make_unique<Signals>(loop, process_);
  loop.watch(pair_.get(), *this);
  loop_ = &loop;
  tell(SealMessage::Kind::start);
}

// A process 1 that is gone shows as the end of the pair.
void Seal::tell(SealMessageKind kind) {
  const SealMessage message{.kind = kind};
  send(pair_.get(), &message, sizeof message, MSG_NOSIGNAL);
}

void Seal::onReadable() {
  SealMessage message;
  const ssize_t received = recv(pair_.get(), &message, sizeof message, MSG_DONTWAIT);
  if (received > 0) {
    stopAsWell(message.signal);
  } else if (received == 0 || errno != EAGAIN) {
    loop_->unwatch(pair_.get());
    loop_ = nullptr;
    signals_.reset();
    ended_(waitForEnd());
  }
}

// As the shell sees it, this process is the command.
void Seal::stopAsWell(int signal) {
  std::signal(signal, SIG_DFL);
  raise(signal);  // returns when this process is to go on
  if (signal == SIGTSTP) {
    Signals::take(SIGTSTP);
  }
  tell(SealMessage::Kind::goOn);
}

int Seal::waitForEnd() {
  int status = 0;
  while (waitpid(process_, &status, 0) < 0 && errno == EINTR) {
  }
  process_ = -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

}  // namespace zk
