#include "ZelkorTURN/DataPlaneLog.h"

namespace zk {

void appendToDataPlaneLog(std::string_view lines) {
  static KeptLogFile file("/tmp/zkturnd-dp.log");
  file.append(lines);
}

}  // namespace zk
