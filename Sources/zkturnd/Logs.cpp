#include "zkturnd/Logs.h"

#include <fmt/format.h>

#include "Platform/Clock.h"

namespace zk {

Logs::Logs()
    : writer_("zk.turnd.debuglog"),
      debug_(writer_.open("/tmp/zkturnd.log")),
      dataPlane_(writer_.open("/tmp/zkturnd-dp.log")),
      egress_(writer_.open("/tmp/zk-egress.log", {.bits = 0666, .ignoresUmask = true})) {}

void Logs::appendDebugLog(std::string_view message) {
  char stamp[timestampLength + 1];
  writeTimestamp(stamp, wallClockMicroseconds());
  stamp[timestampLength] = ' ';
  fmt::memory_buffer line;
  line.append(stamp, stamp + sizeof stamp);
  line.append(message);
  line.push_back('\n');
  writer_.append(debug_, {line.data(), line.size()});
}

void Logs::zkDPLog(std::string_view line) {
  fmt::memory_buffer whole;
  whole.append(line);
  whole.push_back('\n');
  writer_.append(dataPlane_, {whole.data(), whole.size()});
}

void Logs::plog(std::string_view line) {
  writer_.append(egress_,
                 fmt::format("{} [egress-probe] {}\n", dateText(wallClockMicroseconds()), line));
}

}  // namespace zk
