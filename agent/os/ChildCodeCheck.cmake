# Checks the object code of the child's side of ChildLaunchLinux.cpp (the
# function `childMain`, which runs in the agent's memory until it execs):
# it must make system calls, call no function, branch nowhere outside
# itself, and refer to no symbol but read-only data. Instrumentation shows
# as exactly such references: calls into a sanitizer's runtime, coverage
# counters, profiling hooks.
#
#   cmake -DOBJDUMP=objdump -DOBJECT=ChildLaunchLinux.cpp.o -P ChildCodeCheck.cmake
#
# Reads `objdump -dr` (GNU or LLVM) for x86-64 and arm64. Fails, naming what
# it found, when the code breaks the rule or when `childMain` is not there.
cmake_minimum_required(VERSION 3.22)
foreach(variable OBJDUMP OBJECT)
  if(NOT DEFINED ${variable})
    message(FATAL_ERROR "ChildCodeCheck.cmake: ${variable} is not given")
  endif()
endforeach()

execute_process(COMMAND ${OBJDUMP} -dr ${OBJECT}
                OUTPUT_VARIABLE listing ERROR_VARIABLE errors RESULT_VARIABLE result)
if(NOT result EQUAL 0)
  message(FATAL_ERROR "${OBJDUMP} -dr ${OBJECT} failed (${result}): ${errors}")
endif()

# One list element a line. The listing's own semicolons would split lines,
# and square brackets (arm64 addressing) would join them.
string(REPLACE ";" "," listing "${listing}")
string(REPLACE "[" "(" listing "${listing}")
string(REPLACE "]" ")" listing "${listing}")
string(REPLACE "\n" ";" lines "${listing}")

set(symbol "")
set(inside OFF)
set(syscalls 0)
set(reached "")  # the symbols the code refers to, calls or branches to
set(faults "")   # the lines that break the rule
foreach(line IN LISTS lines)
  if(line MATCHES "^[0-9a-f]+ <([^>]+)>:")
    set(name "${CMAKE_MATCH_1}")
    set(inside OFF)
    if(name MATCHES "childMain")
      if(symbol)
        list(APPEND faults "more than one function named childMain: ${symbol}, ${name}")
      endif()
      set(symbol "${name}")
      set(inside ON)
    endif()
    continue()
  endif()
  if(NOT inside)
    continue()
  endif()
  string(STRIP "${line}" code)
  if(code STREQUAL "")
    set(inside OFF)
  elseif(code MATCHES "R_(X86_64|AARCH64)_[A-Z0-9_]+[ \t]+([^ \t+-]+)")
    set(name "${CMAKE_MATCH_2}")
    # Read-only data (a compiler's constants) is no one's state.
    if(NOT name MATCHES "^\\.rodata")
      list(APPEND reached "${name}")
      list(APPEND faults "${code}")
    endif()
  elseif(code MATCHES "[ \t](callq?|bl|blr)([ \t]|$)")
    # A call out of the object shows its target in the relocation line after
    # it; a call within it, here.
    if(code MATCHES "<([^>+]+)" AND NOT CMAKE_MATCH_1 STREQUAL symbol)
      list(APPEND reached "${CMAKE_MATCH_1}")
    endif()
    list(APPEND faults "${code}")
  elseif(code MATCHES "[ \t](jmpq?|br)[ \t]+\\*" OR code MATCHES "[ \t]br[ \t]")
    list(APPEND reached "a pointer")
    list(APPEND faults "${code}")
  elseif(code MATCHES "<([^>+]+)(\\+0x[0-9a-f]+)?>" AND NOT CMAKE_MATCH_1 STREQUAL symbol)
    list(APPEND reached "${CMAKE_MATCH_1}")
    list(APPEND faults "${code}")
  elseif(code MATCHES "[ \t](syscall|svc)([ \t]|$)")
    math(EXPR syscalls "${syscalls} + 1")
  endif()
endforeach()

if(NOT symbol)
  message(FATAL_ERROR "${OBJECT}: no function named childMain in the object code")
endif()
if(syscalls EQUAL 0)
  message(FATAL_ERROR "${OBJECT}: ${symbol} makes no system call: not the child's code, "
                      "or the listing is not read right")
endif()
if(faults)
  list(REMOVE_DUPLICATES reached)
  list(LENGTH faults count)
  list(SUBLIST faults 0 8 shown)
  list(JOIN reached ", " names)
  list(JOIN shown "\n    " lines)
  message(FATAL_ERROR "${OBJECT}: the child's code (${symbol}) must call nothing and carry no "
                      "instrumentation, but it refers to ${names}; ${count} such lines, as\n"
                      "    ${lines}")
endif()
