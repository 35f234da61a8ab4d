# Prints the flash and RAM of the core and of the device layer for Cortex-M0, built for the
# classic window only (QLT_SW_WIDE=0) and with the wide window, and fails when an object calls
# malloc, free, printf or a floating-point helper, or the classic build needs the wide code.
#   cmake -DSIZE=... -DNM=... -DCORE=<obj> -DLAYER=<obj> -DLINK=<obj>   (classic)
#         -DWIDE=<obj;obj...> -DWIDE_LINK=<obj>   (core, wide code and layer; its link)
#         -DOBJECTS=<obj|obj...> -P size-report.cmake
function(sizes object out_text out_data out_bss)
  execute_process(COMMAND ${SIZE} ${object} OUTPUT_VARIABLE text RESULT_VARIABLE rc)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "${SIZE} ${object} failed")
  endif()
  string(REGEX MATCH "\n *([0-9]+)[ \t]+([0-9]+)[ \t]+([0-9]+)" row "${text}")
  set(${out_text} ${CMAKE_MATCH_1} PARENT_SCOPE)
  set(${out_data} ${CMAKE_MATCH_2} PARENT_SCOPE)
  set(${out_bss} ${CMAKE_MATCH_3} PARENT_SCOPE)
endfunction()

sizes(${CORE} core_text core_data core_bss)
sizes(${LAYER} layer_text layer_data layer_bss)
set(wide_flash 0)
foreach(object ${WIDE})
  sizes(${object} text data bss)
  math(EXPR wide_flash "${wide_flash} + ${text} + ${data}")
endforeach()
sizes(${LINK} link_text link_data link_bss)
sizes(${WIDE_LINK} wide_link_text wide_link_data wide_link_bss)
math(EXPR flash "${core_text} + ${core_data} + ${layer_text} + ${layer_data}")
math(EXPR ram "${link_data} + ${link_bss}")
math(EXPR wide_ram "${wide_link_data} + ${wide_link_bss}")
message("Cortex-M0 -Os, classic window only: core ${core_text} B flash, layer ${layer_text} B"
        " flash, together ${flash} B (goal 4096); RAM per link (window 3, 120-byte segments,"
        " buffers included) ${ram} B (goal 1024). With the wide window: ${wide_flash} B flash,"
        " ${wide_ram} B RAM per link before the wide storage")

# The classic build links without the wide window's code.
foreach(object ${CORE} ${LAYER})
  execute_process(COMMAND ${NM} -u ${object} OUTPUT_VARIABLE undefined RESULT_VARIABLE rc)
  if(undefined MATCHES "qlt_swi_|qlt_sw_(take_delivery|consume|get_wide_info|link_)")
    message(FATAL_ERROR "${object} built with QLT_SW_WIDE=0 still calls the wide window")
  endif()
endforeach()

set(forbidden "^(malloc|calloc|realloc|free|printf|sprintf|snprintf|vprintf|puts|__aeabi_([fd]|i2|ui2|l2|ul2).*|__(add|sub|mul|div)[sd]f3|__float.*|__fix.*|__extend.*|__trunc.*)$")
string(REPLACE "|" ";" OBJECTS "${OBJECTS}")
foreach(object ${OBJECTS})
  execute_process(COMMAND ${NM} -u ${object} OUTPUT_VARIABLE undefined RESULT_VARIABLE rc)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "${NM} -u ${object} failed")
  endif()
  string(REGEX MATCHALL "[^ \t\n]+\n" lines "${undefined}")
  foreach(line ${lines})
    string(STRIP "${line}" symbol)
    if(symbol MATCHES "${forbidden}")
      message(FATAL_ERROR "${object} calls ${symbol}: the core and the layer use no heap, "
                          "no printf and no floating point")
    endif()
  endforeach()
endforeach()
if(flash GREATER 4096 OR ram GREATER 1024)
  message(WARNING "over the size goal: ${flash} B flash, ${ram} B RAM")
endif()
