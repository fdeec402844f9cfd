# Every target of ours links tandor_warnings privately; third-party headers come in as system headers.
add_library(tandor_warnings INTERFACE)
target_compile_options(tandor_warnings INTERFACE
  -Wall -Wextra -Wpedantic -Wconversion -Wsign-conversion -Wshadow -Wnon-virtual-dtor
  -Woverloaded-virtual -Wold-style-cast -Wcast-align -Wnull-dereference -Werror)
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  # GCC 12 reports these inside libstdc++'s own inlined code (std::variant, std::string), not ours.
  target_compile_options(tandor_warnings INTERFACE -Wno-maybe-uninitialized -Wno-restrict
                         -Wno-null-dereference -Wno-free-nonheap-object -Wno-array-bounds -Wno-stringop-overflow -Wno-stringop-overread)
endif()
