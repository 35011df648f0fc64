# Makes a bug in the library or the devkit harder to exploit: checked copies, guarded stacks and branches, relocations
# that are read-only once the program runs, and no executable stack. Only optimised builds have it: the checked copies
# need the optimiser, and the sanitizers bring checks of their own.
include(CheckCXXCompilerFlag)

option(SCC_HARDENING "Harden optimised builds" ON)

if(SCC_HARDENING AND NOT SCC_SANITIZE AND NOT SCC_FUZZ AND NOT SCC_COVERAGE)
  # Level 2 is the highest that the switch's C library has the checked functions for.
  set(hardening_options -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2 -fstack-protector-strong)
  # Branch protection depends on the processor: this is the x86 form.
  check_cxx_compiler_flag(-fcf-protection SCC_HAS_CF_PROTECTION)
  if(SCC_HAS_CF_PROTECTION)
    list(APPEND hardening_options -fcf-protection)
  endif()
  add_compile_options("$<$<CONFIG:Release,RelWithDebInfo,MinSizeRel>:${hardening_options}>")
  add_link_options("$<$<CONFIG:Release,RelWithDebInfo,MinSizeRel>:-Wl,-z,relro;-Wl,-z,now;-Wl,-z,noexecstack>")
  # Programs are position-independent, so their addresses are not known beforehand.
  include(CheckPIESupported)
  check_pie_supported()
endif()
