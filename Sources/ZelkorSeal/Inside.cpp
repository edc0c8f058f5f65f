#include "ZelkorSeal/Inside.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>

#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/wait.h>
#include <unistd.h>

#include "Platform/Sockets.h"
#include "ZelkorSeal/Lock.h"
#include "ZelkorSeal/Network.h"
#include "ZelkorSeal/Steps.h"

namespace zk {
namespace {

constexpr int notFound = 127;  // as env(1) has it
constexpr int notRunnable = 126;
constexpr int ours = 125;

// Names of variables by which programs find others that would speak in their place.
constexpr const char* doors[] = {"DBUS_SESSION_BUS_ADDRESS", "SESSION_MANAGER"};

void closeInherited(int kept) {
  const auto number = static_cast<unsigned>(kept);
  const bool isClosed =
      (number == STDERR_FILENO + 1 || close_range(STDERR_FILENO + 1, number - 1, 0) == 0) &&
      close_range(number + 1, ~0U, 0) == 0;
  requireStep(isClosed, SealStep::process, "close inherited descriptors");
}

void writeMap(const char* file, const std::string& text) {
  const std::string path = std::string("/proc/self/") + file;
  const Descriptor map(open(path.c_str(), O_WRONLY | O_CLOEXEC));
  requireStep(map && write(map.get(), text.data(), text.size()) == ssize_t(text.size()),
              SealStep::maps, "write " + path);
}

void tell(int outside, const SealMessage& message, SealDescriptors* made = nullptr) {
  iovec content{const_cast<SealMessage*>(&message), sizeof message};
  alignas(cmsghdr) SealRights control{};
  msghdr header{};
  header.msg_iov = &content;
  header.msg_iovlen = 1;
  if (made != nullptr) {
    SealNumbers numbers{};
    const auto all = made->all();
    std::transform(all.begin(), all.end(), numbers.begin(),
                   [](const Descriptor* descriptor) { return descriptor->get(); });
    header.msg_control = control.data();
    header.msg_controllen = control.size();
    cmsghdr* const rights = CMSG_FIRSTHDR(&header);
    rights->cmsg_level = SOL_SOCKET;
    rights->cmsg_type = SCM_RIGHTS;
    rights->cmsg_len = CMSG_LEN(sizeof numbers);
    std::memcpy(CMSG_DATA(rights), numbers.data(), sizeof numbers);
  }
  requireStep(sendmsg(outside, &header, MSG_NOSIGNAL) == ssize_t(sizeof message), SealStep::process,
              "talk to zkturn");
}

// In the order that leaves nothing open: who made it can be attached to until it cannot be
// dumped, and what it may do ends before it lets anything in.
void make(const SealInside& inside) {
  const int outside = inside.outside.get();
  closeInherited(outside);
  requireStep(prctl(PR_SET_PDEATHSIG, SIGKILL) == 0, SealStep::process, "end with zkturn");
  writeMap("setgroups", "deny");
  writeMap("uid_map", fmt::format("{0} {0} 1", inside.user));
  writeMap("gid_map", fmt::format("{0} {0} 1", inside.group));
  requireStep(prctl(PR_SET_DUMPABLE, 0) == 0, SealStep::process, "keep debuggers away");
  makeSealMounts(inside.mounts);
  SealDescriptors made = makeSealNetwork();
  lockProcess();
  tell(outside, {.kind = SealMessage::Kind::made}, &made);
}

[[noreturn]] void become(const SealInside& inside) {
  const Seal::Plan& plan = inside.plan;
  if (!plan.keepsBus) {
    for (const char* const name : doors) {
      unsetenv(name);
    }
  }
  for (const std::string& setting : plan.environment) {
    putenv(const_cast<char*>(setting.c_str()));
  }
  std::vector<char*> arguments;
  for (const std::string& argument : plan.command) {
    arguments.push_back(const_cast<char*>(argument.c_str()));
  }
  arguments.push_back(nullptr);
  sigaction(SIGCHLD, &inside.childAction, nullptr);
  sigprocmask(SIG_SETMASK, &inside.signals, nullptr);
  execvp(arguments[0], arguments.data());
  const int error = errno;
  const std::string text =
      fmt::format("zkturn: cannot run {}: {}\n", arguments[0], errorText(error));
  [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, text.data(), text.size());
  _exit(error == ENOENT ? notFound : notRunnable);
}

class ProcessOne {
 public:
  explicit ProcessOne(const SealInside& inside) : inside_(inside) {}

  [[noreturn]] void serve() {
    sigset_t taken;
    sigemptyset(&taken);
    for (const int signal : {SIGCHLD, SIGTERM, SIGHUP, SIGINT, SIGQUIT}) {
      sigaddset(&taken, signal);
    }
    const Descriptor signals(signalfd(-1, &taken, SFD_CLOEXEC));
    requireStep(bool(signals), SealStep::process, "listen to signals");
    pollfd waiting[] = {{inside_.outside.get(), POLLIN, 0}, {signals.get(), POLLIN, 0}};
    while (true) {
      if (poll(waiting, std::size(waiting), -1) < 0) {
        _exit(ours);
      }
      if (waiting[0].revents != 0) {
        hearOutside();
      }
      if (waiting[1].revents != 0) {
        hearSignal(signals.get());
      }
    }
  }

 private:
  void hearOutside() {
    SealMessage message;
    if (recv(inside_.outside.get(), &message, sizeof message, 0) != ssize_t(sizeof message)) {
      _exit(ours);  // nobody is left to carry anything
    }
    if (message.kind == SealMessage::Kind::start) {
      command_ = fork();
      if (command_ < 0) {
        _exit(ours);
      }
      if (command_ == 0) {
        become(inside_);
      }
    } else if (command_ > 0) {
      kill(command_, SIGCONT);
    }
  }

  void hearSignal(int signals) {
    signalfd_siginfo heard{};
    if (read(signals, &heard, sizeof heard) != ssize_t(sizeof heard)) {
      return;
    }
    if (heard.ssi_signo == SIGCHLD) {
      reap();
    } else if (heard.ssi_code <= 0 && command_ > 0) {
      kill(command_, static_cast<int>(heard.ssi_signo));  // the terminal's reach it by themselves
    }
  }

  void reap() {
    int status = 0;
    pid_t child = 0;
    while ((child = waitpid(-1, &status, WNOHANG | WUNTRACED)) > 0) {
      if (child != command_) {
        continue;
      }
      if (WIFSTOPPED(status)) {
        tell(inside_.outside.get(),
             {.kind = SealMessage::Kind::stopped, .signal = WSTOPSIG(status)});
      } else {
        _exit(WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status));
      }
    }
  }

  const SealInside& inside_;
  pid_t command_ = -1;
};

}  // namespace

void runInside(const SealInside& inside) {
  std::string why;
  try {
    make(inside);
    ProcessOne(inside).serve();
  } catch (const SealStepFailure& failure) {
    why = adviceFor(failure);
  } catch (const std::exception& error) {
    why = error.what();
  }
  SealMessage message;
  why.copy(message.text, sizeof message.text - 1);
  send(inside.outside.get(), &message, sizeof message, MSG_NOSIGNAL);
  _exit(ours);
}

}  // namespace zk
