# One warnings block for every target of the project. It is build-only: the
# installed client library exports it (a static library carries its private
# links), and a client project keeps its own warnings.
add_library(tesk_warnings INTERFACE)
target_compile_options(tesk_warnings INTERFACE $<BUILD_INTERFACE:
  -Wall -Wextra -Wpedantic -Werror
  -Wshadow -Wformat=2 -Wcast-align -Wmissing-declarations -Wundef
  $<$<COMPILE_LANGUAGE:CXX>:-Wnon-virtual-dtor -Woverloaded-virtual>>)
add_library(tesk::warnings ALIAS tesk_warnings)
