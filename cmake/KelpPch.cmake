# Precompiled standard headers for the runtime and the agent's libraries. At
# -O0 (the development build) reading the standard headers is most of a
# compile; a precompiled set halves a fresh build of what `make run` needs.
#
# ccache caches nothing compiled against a precompiled header unless its
# sloppiness is set for it, so the headers are precompiled only when no
# compiler launcher is configured (-DCMAKE_CXX_COMPILER_LAUNCHER=ccache keeps
# every object cacheable instead). KELP_PCH=ON or OFF decides explicitly.
if(CMAKE_CXX_COMPILER_LAUNCHER)
  set(kelp_pch_default OFF)
else()
  set(kelp_pch_default ON)
endif()
option(KELP_PCH "Precompile the standard headers of kelp's libraries" ${kelp_pch_default})

# kelp_precompile_std(target... [REUSE target from]...): the standard headers
# most of kelp's sources include, precompiled for each target with its own
# flags; a target after REUSE takes the precompiled headers of the target
# that follows it (the same compile flags, one compile fewer).
function(kelp_precompile_std)
  if(NOT KELP_PCH)
    return()
  endif()
  cmake_parse_arguments(P "" "" "REUSE" ${ARGN})
  foreach(target ${P_UNPARSED_ARGUMENTS})
    target_precompile_headers(${target} PRIVATE
      <algorithm> <array> <atomic> <chrono> <condition_variable> <cstdint> <cstdio> <cstdlib>
      <cstring> <deque> <functional> <map> <memory> <mutex> <optional> <span> <string>
      <string_view> <thread> <unordered_map> <utility> <vector>)
  endforeach()
  while(P_REUSE)
    list(POP_FRONT P_REUSE target from)
    target_precompile_headers(${target} REUSE_FROM ${from})
  endwhile()
endfunction()
