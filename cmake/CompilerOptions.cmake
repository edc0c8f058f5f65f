# Warnings, sanitizers and hardening for every target of the project.

add_compile_options(-Wall -Wextra -Wpedantic -Wshadow -Wconversion)
# Who may touch what is shared between threads is written beside it, and clang checks it.
add_compile_options($<$<CXX_COMPILER_ID:Clang>:-Wthread-safety>)
if(ZK_WARNINGS_AS_ERRORS)
  add_compile_options(-Werror)
endif()

if(ZK_SANITIZE)
  # The check of vptr reads memory through descriptors, and takes it for a fault when there are none.
  add_compile_options(-fsanitize=${ZK_SANITIZE} -fno-sanitize=vptr -fno-sanitize-recover=all
    -fno-omit-frame-pointer)
  add_link_options(-fsanitize=${ZK_SANITIZE})
endif()

# The daemon reads what strangers send: whatever the compiler and the linker can make harder to
# abuse, they do. _FORTIFY_SOURCE needs optimisation and gets in the sanitizers' way.
add_compile_options(-fPIE -fstack-protector-strong)
add_link_options(-pie)
if(NOT APPLE)  # where the linker does these by itself
  add_link_options(-Wl,-z,relro,-z,now,-z,noexecstack)
endif()
include(CheckCXXCompilerFlag)
check_cxx_compiler_flag(-fcf-protection=full ZK_HAS_CF_PROTECTION)
if(ZK_HAS_CF_PROTECTION)
  add_compile_options(-fcf-protection=full)
endif()
if(NOT ZK_SANITIZE)
  add_compile_options($<$<CONFIG:Release>:-U_FORTIFY_SOURCE>
                      $<$<CONFIG:Release>:-D_FORTIFY_SOURCE=2>
                      $<$<CONFIG:Release>:-D_GLIBCXX_ASSERTIONS>
                      $<$<CONFIG:Release>:-U_LIBCPP_HARDENING_MODE>
                      $<$<CONFIG:Release>:-D_LIBCPP_HARDENING_MODE=_LIBCPP_HARDENING_MODE_FAST>)
endif()
