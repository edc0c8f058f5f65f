// A socket file that shows in the seal is a door to the program behind it. Hiding files one by one
// is not enough: a service that starts anew makes them anew. So the folders where services put them
// begin empty, and what programs need of them is let in by name.

#include "ZelkorSeal/Mounts.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <set>

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Platform/Descriptor.h"
#include "ZelkorSeal/Steps.h"

namespace zk {
namespace {

namespace fs = std::filesystem;

// What may show of /run, and why.
constexpr const char* shownOfRun[] = {
    "/run/udev/data",         // which device is a game pad, a camera
    "/run/media",             // the user's disks
    "/run/opengl-driver",     // drivers of graphics, where a distribution keeps them there
    "/run/opengl-driver-32",  //
    "/run/current-system",    // and all programs, where one keeps those there
};

std::string variable(const char* name, const char* otherwise = "") {
  const char* const value = std::getenv(name);
  return value == nullptr || *value == '\0' ? otherwise : value;
}

bool isBelow(const std::string& path, const std::string& folder) {
  return !folder.empty() && (path == folder || path.starts_with(folder + "/"));
}

void mountAt(const std::string& target, const char* source, const char* type, unsigned long flags,
             const char* options = nullptr, SealStep step = SealStep::mounts) {
  requireStep(mount(source, target.c_str(), type, flags, options) == 0, step, "mount " + target);
}

// The user's folder of sockets; empty when he has none.
std::string runtimeFolder() {
  std::error_code absent;
  const fs::path real = fs::canonical(variable("XDG_RUNTIME_DIR"), absent);
  return absent ? std::string() : real.string();
}

// What may show of the user's folder, and elsewhere, and why.
std::vector<std::string> shownPaths(const std::string& runtime, bool keepsBus) {
  std::vector<std::string> shown(std::begin(shownOfRun), std::end(shownOfRun));
  const auto add = [&](const std::string& name) {
    if (!name.empty() && (name.front() == '/' || !runtime.empty())) {
      shown.push_back(name.front() == '/' ? name : runtime + "/" + name);
      std::error_code absent;  // a link shows what it leads to
      shown.push_back(fs::canonical(shown.back(), absent));
    }
  };
  add(variable("WAYLAND_DISPLAY", "wayland-0"));  // windows
  add(variable("XAUTHORITY"));                    // the key to X11's, often kept there
  add("pulse/native");                            // sound, by its two servers
  add("pipewire-0");
  if (keepsBus) {
    add("bus");
    const std::string address = variable("DBUS_SESSION_BUS_ADDRESS");
    constexpr std::string_view kind = "unix:path=";
    if (address.starts_with(kind)) {
      add(address.substr(kind.size(), address.find_first_of(",;") - kind.size()));
    }
  }
  return shown;
}

// A file or folder that lies under a mount to come, and is to show above it.
struct Kept {
  std::string path;
  Descriptor file;
  struct stat status {};

  static std::optional<Kept> of(const std::string& path) {
    Kept kept{path, Descriptor(open(path.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC))};
    if (!kept.file || fstat(kept.file.get(), &kept.status) != 0) {
      return std::nullopt;
    }
    return kept;
  }

  void show() const {
    fs::create_directories(fs::path(path).parent_path());
    if (S_ISLNK(status.st_mode)) {
      std::string target(PATH_MAX, '\0');
      const ssize_t length = readlinkat(file.get(), "", target.data(), target.size() - 1);
      requireStep(length > 0 && symlink(target.c_str(), path.c_str()) == 0, SealStep::mounts,
                  "link " + path);
      return;
    }
    if (S_ISDIR(status.st_mode)) {
      fs::create_directory(path);
    } else {
      std::ofstream{path};
    }
    mountAt(path, fmt::format("/proc/self/fd/{}", file.get()).c_str(), nullptr, MS_BIND | MS_REC);
  }
};

void coverFolders(const std::string& runtime, const std::vector<std::string>& shown) {
  std::vector<std::string> covered{"/run"};
  if (!runtime.empty() && !isBelow(runtime, "/run")) {
    covered.push_back(runtime);
  }
  std::vector<Kept> kept;
  for (const std::string& path : shown) {
    const bool isCovered = std::any_of(covered.begin(), covered.end(),
                                       [&](const auto& folder) { return isBelow(path, folder); });
    if (auto file = isCovered ? Kept::of(path) : std::nullopt) {
      kept.push_back(std::move(*file));
    }
  }
  for (const std::string& folder : covered) {
    mountAt(folder, "tmpfs", "tmpfs", MS_NOSUID | MS_NODEV, "mode=0755");
  }
  if (!runtime.empty()) {
    fs::create_directories(runtime);
    fs::permissions(runtime, fs::perms::owner_all);
  }
  for (const Kept& file : kept) {
    file.show();
  }
}

bool isSocket(const std::string& path) {
  struct stat status {};
  return stat(path.c_str(), &status) == 0 && S_ISSOCK(status.st_mode);
}

// Whether a folder is for nothing but sockets: what is made anew there is hidden with it.
bool holdsSocketsOnly(const fs::path& folder) {
  std::error_code failure;
  if ((fs::status(folder, failure).permissions() & fs::perms::sticky_bit) != fs::perms::none) {
    return false;  // /tmp and its like are everybody's
  }
  fs::directory_iterator entries(folder, failure);
  return !failure &&
         std::all_of(begin(entries), end(entries), [](const fs::directory_entry& entry) {
           std::error_code gone;
           return entry.is_socket(gone) || entry.is_symlink(gone);
         });
}

void coverSockets(const std::vector<std::string>& files, const std::vector<std::string>& shown) {
  for (const std::string& path : files) {
    const bool mayShow = isBelow(path, "/tmp/.X11-unix") ||
                         std::find(shown.begin(), shown.end(), path) != shown.end();
    if (mayShow || !isSocket(path)) {
      continue;  // what this user cannot look at he cannot connect to
    }
    const fs::path folder = fs::path(path).parent_path();
    if (holdsSocketsOnly(folder)) {
      mountAt(folder, "tmpfs", "tmpfs", MS_NOSUID | MS_NODEV, "mode=0700");
    } else {
      mountAt(path, "/dev/null", nullptr, MS_BIND);
    }
  }
}

}  // namespace

std::vector<std::string> boundSocketFiles() {
  std::set<std::string> files;     // a connection to one shows it again
  std::set<std::string> networks;  // each lists its own only, and files are everybody's
  for (const fs::directory_entry& process : fs::directory_iterator("/proc")) {
    std::error_code denied;
    const std::string network = fs::read_symlink(process.path() / "ns/net", denied).string();
    if (denied || !networks.insert(network).second) {
      continue;
    }
    std::ifstream list(process.path() / "net/unix");
    for (std::string line; std::getline(list, line);) {
      if (const auto path = line.find(" /"); path != std::string::npos) {
        files.insert(line.substr(path + 1));
      }
    }
  }
  requireStep(!networks.empty(), SealStep::process, "read /proc");
  return {files.begin(), files.end()};
}

void makeSealMounts(const SealMounts& plan) {
  constexpr unsigned long plain = MS_NOSUID | MS_NODEV | MS_NOEXEC;
  mountAt("/", "none", nullptr, MS_REC | MS_PRIVATE);
  mountAt("/proc", "proc", "proc", plain, nullptr, SealStep::proc);
  // The old one lists the interfaces outside, with their addresses.
  mountAt("/sys", "sysfs", "sysfs", plain | MS_RDONLY, nullptr, SealStep::sys);
  const std::string runtime = runtimeFolder();
  const std::vector<std::string> shown = shownPaths(runtime, plan.keepsBus);
  try {
    coverFolders(runtime, shown);
    coverSockets(plan.socketFiles, shown);
  } catch (const fs::filesystem_error& error) {
    throw SealStepFailure{SealStep::mounts, error.what(), error.code().value()};
  }
  // The old one may lie under a mount: names relative to it would lead past that.
  if (chdir(plan.workingFolder.c_str()) != 0) {
    throw SealStepFailure{SealStep::mounts,
                          "the working folder does not show in the seal; change to another one, "
                          "such as your home, and try again: " +
                              plan.workingFolder,
                          0};
  }
}

}  // namespace zk
