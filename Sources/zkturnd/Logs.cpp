#include "zkturnd/Logs.h"

#include "Platform/Clock.h"

namespace zk {

Logs::Logs()
    : writer_("zk.turnd.debuglog"),
      debug_(writer_.open("/tmp/zkturnd.log")),
      dataPlane_(writer_.open("/tmp/zkturnd-dp.log")),
      egress_(writer_.open("/tmp/zk-egress.log", /*ignoresUmask=*/true)) {}

void Logs::appendDebugLog(std::string_view lines) {
  char stamp[timestampLength + 1];
  writeTimestamp(stamp, wallClockMicroseconds());
  stamp[timestampLength] = ' ';
  writer_.append(debug_, lines, {stamp, sizeof stamp});
}

void Logs::zkDPLog(std::string_view lines) {
  writer_.append(dataPlane_, lines);
}

void Logs::plog(std::string_view lines) {
  writer_.append(egress_, lines, dateText(wallClockMicroseconds()) + " [egress-probe] ");
}

}  // namespace zk
