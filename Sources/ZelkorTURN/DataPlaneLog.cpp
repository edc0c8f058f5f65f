#include "ZelkorTURN/DataPlaneLog.h"

#include "Platform/LogFile.h"

namespace zk {

void DataPlaneLog::append(std::string_view text) {
  static KeptLogFile file("/tmp/zkturnd-dp.log");
  file.append(text);
}

}  // namespace zk
