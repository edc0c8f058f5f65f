#include "ZelkorTURN/DataPlaneLog.h"

namespace zk {

void appendToDataPlaneLog(std::string_view text) {
  static KeptLogFile file("/tmp/zkturnd-dp.log");
  file.append(text);
}

}  // namespace zk
