# Warnings are errors on every target of the project.
add_library(krm_warnings INTERFACE)
target_compile_options(krm_warnings INTERFACE
  -Wall -Wextra -Wpedantic -Werror -Wshadow -Wformat=2 -Wundef -Wcast-align
  -Wmissing-declarations -Wvla
  $<$<COMPILE_LANGUAGE:CXX>:-Wnon-virtual-dtor -Woverloaded-virtual>
  $<$<COMPILE_LANGUAGE:C>:-Wstrict-prototypes -Wmissing-prototypes>)
