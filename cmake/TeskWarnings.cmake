# One warnings block for every target of the project.
add_library(tesk_warnings INTERFACE)
target_compile_options(tesk_warnings INTERFACE
  -Wall -Wextra -Wpedantic -Werror
  -Wshadow -Wnon-virtual-dtor -Woverloaded-virtual -Wformat=2
  -Wcast-align -Wmissing-declarations -Wundef)
add_library(tesk::warnings ALIAS tesk_warnings)
