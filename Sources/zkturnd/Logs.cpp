#include "zkturnd/Logs.h"

#include <fmt/format.h>

#include "Platform/Clock.h"

namespace zk {

Logs::Logs()
    : writer_("zk.turnd.debuglog"),
      debug_(writer_.open("/tmp/zkturnd.log")),
      dataPlane_(writer_.open("/tmp/zkturnd-dp.log")),
      egress_(writer_.open("/tmp/zk-egress.log", {.bits = 0666, .ignoresUmask = true})) {}

void Logs::appendDebugLog(std::string_view lines) {
  char stamp[timestampLength + 1];
  writeTimestamp(stamp, wallClockMicroseconds());
  stamp[timestampLength] = ' ';
  fmt::memory_buffer stamped;
  while (true) {
    const std::size_t end = lines.find('\n');
    stamped.append(stamp, stamp + sizeof stamp);
    stamped.append(lines.substr(0, end));
    stamped.push_back('\n');
    if (end == std::string_view::npos) {
      break;
    }
    lines.remove_prefix(end + 1);
  }
  writer_.append(debug_, {stamped.data(), stamped.size()});
}

void Logs::zkDPLog(std::string_view lines) {
  fmt::memory_buffer whole;
  whole.append(lines);
  whole.push_back('\n');
  writer_.append(dataPlane_, {whole.data(), whole.size()});
}

void Logs::plog(std::string_view line) {
  writer_.append(egress_,
                 fmt::format("{} [egress-probe] {}\n", dateText(wallClockMicroseconds()), line));
}

}  // namespace zk
