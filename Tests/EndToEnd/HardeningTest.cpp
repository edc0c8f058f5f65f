// What compiler and linker made of the daemon, as the binary utilities tell. A sanitizer wants
// things its own way; the builds with one are left out.

#include "EndToEnd/Rig.h"

namespace zk::test {
namespace {

TEST(HardeningTest, LeavesNothingToOverwriteAndChecksItsBuffers) {
#ifdef NDEBUG
  const bool isHardened = !sanitized;
#else
  const bool isHardened = false;
#endif
  if (!isHardened || findProgram("readelf").empty()) {
    GTEST_SKIP() << "only the release build is hardened in full";
  }
  const std::string elf = runScript("readelf -lW --dynamic --dyn-syms '" ZK_DAEMON "'");
  // It loads anywhere; all relocated tables are read-only, as every symbol is bound before main();
  // the stack is not for code; stack, calls and containers check.
  for (const char* const sign : {"Flags: NOW PIE", " GNU_RELRO ", " GNU_STACK ",
                                 " __stack_chk_fail@", "_chk@GLIBC", "glibcxx_assert_fail"}) {
    EXPECT_NE(elf.find(sign), std::string::npos) << sign;
  }
  EXPECT_EQ(elf.find(" RWE "), std::string::npos);
#if defined(__x86_64__)
  // Where an indirect call may land there is ENDBR64. The linker drops the note that says so for
  // the whole program when the C library's start files lack it, as the distribution's do.
  const std::string unmarked = runScript(
      "objdump -d --no-show-raw-insn '" ZK_DAEMON
      "' | awk '/^[0-9a-f]+ <_ZN2zk/ && !/[.]|_GLOBAL_/"
      " {name = $2; ++n; getline; if (!/endbr64/) print name} END {if (n < 100) print n}'");
  EXPECT_EQ(unmarked, "");
#endif
}

}  // namespace
}  // namespace zk::test
