#include "Loopback/Scratch.h"

#include <fstream>
#include <sstream>

#include <unistd.h>

namespace zk::loopback {

namespace fs = std::filesystem;

TemporaryFolder::TemporaryFolder() {
  std::string name = "/tmp/zk-kit-XXXXXX";
  path_ = mkdtemp(name.data());
}

TemporaryFolder::~TemporaryFolder() {
  std::error_code ignored;
  fs::remove_all(path_, ignored);
}

std::string TemporaryFolder::write(const std::string& name, const std::string& text) const {
  std::ofstream(path_ / name) << text;
  return path_ / name;
}

std::string TemporaryFolder::script(const std::string& text) const {
  const std::string file = write("start", "#!/bin/bash\n" + text + "\n");
  fs::permissions(file, fs::perms::owner_all);
  return file;
}

std::string contentOf(const fs::path& file) {
  std::ostringstream text;
  text << std::ifstream(file).rdbuf();
  return text.str();
}

}  // namespace zk::loopback
