# CPython 3.13 with headers: the one named by Python_EXECUTABLE, else the one the script finds.

execute_process(
  COMMAND ${CMAKE_SOURCE_DIR}/scripts/find-python ${Python_EXECUTABLE}
  OUTPUT_VARIABLE Python_EXECUTABLE OUTPUT_STRIP_TRAILING_WHITESPACE
  ERROR_VARIABLE sentence ERROR_STRIP_TRAILING_WHITESPACE
  RESULT_VARIABLE failed)
if(failed)
  message(FATAL_ERROR " ${sentence}")
endif()

find_package(Python 3.13 EXACT REQUIRED COMPONENTS Interpreter Development.Module)
