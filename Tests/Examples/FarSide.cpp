// What the examples need on the other side of the daemon: a SOCKS5 proxy, and a STUN responder that
// it reaches. Says where they are in one line of JSON, and serves until its standard input ends.

#include <iostream>
#include <string>

#include "Loopback/SOCKS5Server.h"
#include "Loopback/STUNResponder.h"

int main() {
  const zk::loopback::SOCKS5Server proxy;
  const zk::loopback::STUNResponder stun;
  std::cout << R"({"proxyPort":)" << proxy.port() << R"(,"stun":")" << stun.target() << "\"}\n"
            << std::flush;
  std::string ignored;
  while (std::getline(std::cin, ignored)) {
  }
}
