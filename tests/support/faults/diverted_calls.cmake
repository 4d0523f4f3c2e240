# The calls that tests can count and let fail are those that diverted_calls.def has a row for.
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${CMAKE_CURRENT_LIST_DIR}/diverted_calls.def)
file(STRINGS ${CMAKE_CURRENT_LIST_DIR}/diverted_calls.def rows REGEX "^DIVERTED\\(")
set(diverted_calls)
foreach(row ${rows})
  string(REGEX REPLACE "^DIVERTED\\(([A-Za-z0-9_]+),.*" "\\1" call "${row}")
  list(APPEND diverted_calls ${call})
endforeach()
