# Compile options shared by every target of the project.
add_library(vx_warnings INTERFACE)
target_compile_options(vx_warnings INTERFACE
  -Wall -Wextra -Wshadow -Wconversion -Wno-sign-conversion
  $<$<COMPILE_LANG_AND_ID:CXX,GNU>:-Wclobbered>
  $<$<COMPILE_LANG_AND_ID:C,GNU>:-Wclobbered>
  $<$<BOOL:${VX_WERROR}>:-Werror>)

# Floating-point results are part of the contract: never fuse multiply-adds.
add_compile_options(-ffp-contract=off)
