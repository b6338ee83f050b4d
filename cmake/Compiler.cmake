# A compiler that knows C++20; release builds unless asked otherwise; hidden symbols; warnings, which
# are errors only where CMAKE_COMPILE_WARNING_AS_ERROR says so, as the presets do.

include(CheckLanguage)
check_language(CXX)
set(wanted "decision_bounds needs g++ 12 or clang++ 16, or newer")
if(NOT CMAKE_CXX_COMPILER)
  message(FATAL_ERROR " ${wanted}; found none.")
endif()
enable_language(CXX)
if((CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 12)
   OR (CMAKE_CXX_COMPILER_ID STREQUAL "Clang" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 16))
  message(FATAL_ERROR " ${wanted}; found ${CMAKE_CXX_COMPILER_ID} ${CMAKE_CXX_COMPILER_VERSION}.")
endif()

if(NOT CMAKE_BUILD_TYPE)
  set(CMAKE_BUILD_TYPE Release CACHE STRING "Debug, Release, RelWithDebInfo or MinSizeRel" FORCE)
endif()

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_CXX_VISIBILITY_PRESET hidden)
set(CMAKE_VISIBILITY_INLINES_HIDDEN ON)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)

set(DECISION_BOUNDS_WARNINGS -Wall -Wextra -Wpedantic -Wconversion -Wshadow
  $<$<CXX_COMPILER_ID:Clang>:-Wthread-safety>)

include(CheckIPOSupported)
check_ipo_supported(RESULT DECISION_BOUNDS_LTO OUTPUT ignored LANGUAGES CXX)

# Loading the shared C++ library takes a third of the import, and the module needs little of it:
# where a static one is installed, that little is linked in and stays the module's own. What nothing
# calls is left out: it would need a newer C library than the rest does.
include(CheckLinkerFlag)
set(own_library -static-libstdc++ LINKER:--exclude-libs,ALL LINKER:--gc-sections)
check_linker_flag(CXX "${own_library}" DECISION_BOUNDS_HAS_OWN_LIBRARY)
if(DECISION_BOUNDS_HAS_OWN_LIBRARY)
  set(DECISION_BOUNDS_LINK ${own_library})
endif()
