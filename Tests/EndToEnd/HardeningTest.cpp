// What compiler and linker made of the daemon, read from its file. A sanitizer wants things its own
// way; the builds with one are left out.

#include <algorithm>
#include <cstring>
#include <set>
#include <string>
#include <vector>

#include <elf.h>
#include <gtest/gtest.h>

#include "Rig.h"

namespace zk {
namespace {

#ifdef NDEBUG
constexpr bool isHardened = !test::sanitized;
#else
constexpr bool isHardened = false;
#endif

class HardeningTest : public testing::Test {
 protected:
  void SetUp() override {
    if (!isHardened) {
      GTEST_SKIP() << "only the release build is hardened in full";
    }
    content_ = test::contentOf(ZK_DAEMON);
    ASSERT_GT(content_.size(), sizeof header_);
    header_ = at<Elf64_Ehdr>(0);
    ASSERT_EQ(std::memcmp(header_.e_ident, ELFMAG, SELFMAG), 0);
    ASSERT_EQ(header_.e_ident[EI_CLASS], ELFCLASS64);
  }

  template <typename T>
  T at(std::size_t offset) const {
    T value{};
    std::memcpy(&value, &content_.at(offset + sizeof value - 1) - (sizeof value - 1), sizeof value);
    return value;
  }

  std::vector<Elf64_Phdr> segments(std::uint32_t type) const {
    return entriesOf<Elf64_Phdr>(header_.e_phoff, header_.e_phnum,
                                 [&](const Elf64_Phdr& entry) { return entry.p_type == type; });
  }

  std::vector<Elf64_Shdr> sections(std::uint32_t type) const {
    return entriesOf<Elf64_Shdr>(header_.e_shoff, header_.e_shnum,
                                 [&](const Elf64_Shdr& entry) { return entry.sh_type == type; });
  }

  template <typename Entry, typename Wanted>
  std::vector<Entry> entriesOf(std::size_t offset, std::size_t count, const Wanted& wanted) const {
    std::vector<Entry> found;
    for (std::size_t i = 0; i < count; ++i) {
      const auto entry = at<Entry>(offset + i * sizeof(Entry));
      if (wanted(entry)) {
        found.push_back(entry);
      }
    }
    return found;
  }

  /// The value of an entry of the dynamic section; 0 when there is none.
  std::uint64_t dynamic(std::int64_t tag) const {
    for (const Elf64_Shdr& section : sections(SHT_DYNAMIC)) {
      for (std::size_t offset = 0; offset < section.sh_size; offset += sizeof(Elf64_Dyn)) {
        const auto entry = at<Elf64_Dyn>(section.sh_offset + offset);
        if (entry.d_tag == tag) {
          return entry.d_un.d_val;
        }
      }
    }
    return 0;
  }

  /// What the daemon takes from libraries.
  std::set<std::string> imports() const {
    std::set<std::string> names;
    for (const Elf64_Shdr& section : sections(SHT_DYNSYM)) {
      const auto strings =
          at<Elf64_Shdr>(header_.e_shoff + section.sh_link * sizeof(Elf64_Shdr)).sh_offset;
      for (std::size_t offset = 0; offset < section.sh_size; offset += sizeof(Elf64_Sym)) {
        const auto symbol = at<Elf64_Sym>(section.sh_offset + offset);
        if (symbol.st_shndx == SHN_UNDEF) {
          names.insert(&content_.at(strings + symbol.st_name));
        }
      }
    }
    return names;
  }

  std::string content_;
  Elf64_Ehdr header_{};
};

TEST_F(HardeningTest, LoadsAnywhereAndLeavesNothingToOverwrite) {
  EXPECT_EQ(header_.e_type, ET_DYN);
  EXPECT_TRUE(dynamic(DT_FLAGS_1) & DF_1_PIE);
  // All of the relocated tables read-only: RELRO, and every symbol bound before main().
  EXPECT_EQ(segments(PT_GNU_RELRO).size(), 1U);
  EXPECT_TRUE(dynamic(DT_FLAGS_1) & DF_1_NOW);
  const auto stack = segments(PT_GNU_STACK);
  ASSERT_EQ(stack.size(), 1U);
  EXPECT_FALSE(stack[0].p_flags & PF_X);
  for (const Elf64_Phdr& segment : segments(PT_LOAD)) {
    EXPECT_FALSE(segment.p_flags & PF_W && segment.p_flags & PF_X);
  }
}

TEST_F(HardeningTest, ChecksItsStackAndItsBuffers) {
  const auto names = imports();
  EXPECT_TRUE(names.contains("__stack_chk_fail"));
  EXPECT_TRUE(std::any_of(names.begin(), names.end(), [](const std::string& name) {
    return name.starts_with("__") && name.ends_with("_chk");
  })) << "no call was fortified";
  EXPECT_TRUE(std::any_of(names.begin(), names.end(), [](const std::string& name) {
    return name.find("glibcxx_assert_fail") != std::string::npos;
  })) << "the containers do not check";
}

#if defined(__x86_64__)
// Where an indirect call may land there is ENDBR64. The linker drops the note that says so for the
// whole program when the C library's start files lack it, as the distribution's do.
TEST_F(HardeningTest, MarksWhereIndirectCallsMayLand) {
  constexpr std::string_view endbr64 = "\xF3\x0F\x1E\xFA";
  std::size_t functions = 0;
  std::size_t marked = 0;
  for (const Elf64_Shdr& section : sections(SHT_SYMTAB)) {
    const auto strings =
        at<Elf64_Shdr>(header_.e_shoff + section.sh_link * sizeof(Elf64_Shdr)).sh_offset;
    for (std::size_t offset = 0; offset < section.sh_size; offset += sizeof(Elf64_Sym)) {
      const auto symbol = at<Elf64_Sym>(section.sh_offset + offset);
      const std::string_view name = &content_.at(strings + symbol.st_name);
      if (ELF64_ST_TYPE(symbol.st_info) != STT_FUNC || symbol.st_shndx == SHN_UNDEF ||
          !name.starts_with("_ZN2zk") || name.find(".cold") != name.npos ||
          ELF64_ST_BIND(symbol.st_info) == STB_LOCAL) {
        continue;
      }
      ++functions;
      const auto code = at<Elf64_Shdr>(header_.e_shoff + symbol.st_shndx * sizeof(Elf64_Shdr));
      const auto from = code.sh_offset + symbol.st_value - code.sh_addr;
      marked += std::string_view(content_).substr(from, endbr64.size()) == endbr64 ? 1 : 0;
    }
  }
  EXPECT_GT(functions, 100U);
  EXPECT_EQ(marked, functions);
}
#endif

}  // namespace
}  // namespace zk
