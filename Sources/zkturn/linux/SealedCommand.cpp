#include "zkturn/linux/SealedCommand.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <string_view>

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/file.h>
#include <unistd.h>

#include "Platform/Sockets.h"
#include "ZelkorSeal/Seal.h"

namespace zk {
namespace {

namespace fs = std::filesystem;

// Browsers of one make take the same arguments, whatever they are called.
struct Family {
  std::vector<std::string_view> names;       // how the name of such a program begins
  std::vector<std::string_view> ownProfile;  // the arguments that name a profile
  std::vector<std::string_view> arguments;   // {} stands for the profile's folder
};

const Family families[] = {
    {{"firefox", "librewolf", "waterfox", "floorp", "icecat", "iceweasel", "zen-browser"},
     {"-P", "-p", "--profile", "-profile", "--ProfileManager", "-ProfileManager"},
     {"--no-remote", "--profile", "{}"}},
    {{"chrom", "google-chrome", "ungoogled-chromium", "brave", "vivaldi", "microsoft-edge",
      "opera"},
     {"--user-data-dir"},
     {"--user-data-dir={}"}},
};

bool beginsWithOneOf(std::string_view text, const std::vector<std::string_view>& beginnings) {
  return std::any_of(beginnings.begin(), beginnings.end(),
                     [&](std::string_view beginning) { return text.starts_with(beginning); });
}

// Where the command is found, with what it is a link to resolved; empty when it is not.
fs::path programOf(const std::string& command) {
  std::error_code absent;
  if (command.find('/') != std::string::npos) {
    return fs::canonical(command, absent);
  }
  const char* const folders = std::getenv("PATH");
  std::string_view rest = folders == nullptr ? "/usr/local/bin:/usr/bin:/bin" : folders;
  while (true) {
    const std::size_t end = rest.find(':');
    const fs::path candidate = fs::path(rest.substr(0, end)) / command;
    if (access(candidate.c_str(), X_OK) == 0) {
      return fs::canonical(candidate, absent);
    }
    if (end == rest.npos) {
      return {};
    }
    rest.remove_prefix(end + 1);
  }
}

// "snap" or "flatpak" where the program is one, or a script that starts one; else nothing.
std::string_view containerOf(const fs::path& program) {
  const std::string path = program.string();
  if (program.filename() == "snap" || path.starts_with("/snap/")) {
    return "snap";
  }
  if (program.filename() == "flatpak") {
    return "flatpak";
  }
  std::string head(4096, '\0');
  std::ifstream file(program, std::ios::binary);
  file.read(head.data(), static_cast<std::streamsize>(head.size()));
  if (!head.starts_with("#!")) {
    return {};
  }
  return head.find("/snap/bin/") != head.npos                                   ? "snap"
         : head.find("flatpak") != head.npos && head.find(" run ") != head.npos ? "flatpak"
                                                                                : "";
}

fs::path profilesFolder() {
  const char* const data = std::getenv("XDG_DATA_HOME");
  const char* const home = std::getenv("HOME");
  if (data != nullptr && *data == '/') {
    return fs::path(data) / "zkturn";
  }
  return home != nullptr && *home == '/' ? fs::path(home) / ".local/share/zkturn" : fs::path();
}

Descriptor locked(const fs::path& folder) {
  Descriptor lock(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!lock || flock(lock.get(), LOCK_EX | LOCK_NB) != 0) {
    return {};
  }
  return lock;
}

}  // namespace

SealedCommand::SealedCommand(std::vector<std::string> arguments)
    : arguments_(std::move(arguments)) {
  const std::string name = fs::path(arguments_.front()).filename();
  if (const std::string_view container = containerOf(programOf(arguments_.front()));
      !container.empty()) {
    throw SealFailure(fmt::format(
        "{0} is a {1}, which cannot start without privileges, and a seal gives none; install it as "
        "a plain package (the distribution's or the maker's) and name that",
        name, container));
  }
  const auto family =
      std::find_if(std::begin(families), std::end(families),
                   [&](const Family& one) { return beginsWithOneOf(name, one.names); });
  const auto namesProfile = [&](std::string_view argument) {
    argument = argument.substr(0, argument.find('='));
    return std::find(family->ownProfile.begin(), family->ownProfile.end(), argument) !=
           family->ownProfile.end();
  };
  const bool isGiven = family == std::end(families) ||
                       std::any_of(arguments_.begin() + 1, arguments_.end(), namesProfile);
  if (isGiven) {
    return;
  }
  takeProfile(name);
  std::vector<std::string> added;
  for (const std::string_view argument : family->arguments) {
    added.push_back(fmt::format(fmt::runtime(argument), profile_.string()));
  }
  arguments_.insert(arguments_.begin() + 1, added.begin(), added.end());
  remark_ = fmt::format("{} gets a profile of its own, {}{}", name, profile_.string(),
                        isTemporary_ ? ", for this once" : "");
}

void SealedCommand::takeProfile(const std::string& name) {
  std::error_code failure;
  if (const fs::path profiles = profilesFolder(); !profiles.empty()) {
    profile_ = profiles / name;
    fs::create_directories(profile_, failure);
    fs::permissions(profile_, fs::perms::owner_all, failure);
    lock_ = locked(profile_);
  }
  if (lock_) {
    return;
  }
  // Another seal has it, or there is no home.
  std::string path = fs::temp_directory_path(failure) / ("zkturn-" + name + "-XXXXXX");
  if (mkdtemp(path.data()) == nullptr) {
    throw SealFailure(
        fmt::format("cannot make a profile for {} in {}: {}", name, path, errorText(errno)));
  }
  profile_ = path;
  isTemporary_ = true;
}

SealedCommand::~SealedCommand() {
  if (isTemporary_) {
    std::error_code failure;
    fs::remove_all(profile_, failure);
  }
}

}  // namespace zk
