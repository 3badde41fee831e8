# The module, libtape.so: one object library per area, so that the unit tests link the same objects,
# and a link step that exports what include/zul declares with ZUL_API and nothing else.
set(MODULE_AREAS base drive net tape replication mrepl fanout)
set(MODULE_OBJECTS "")
foreach(area ${MODULE_AREAS})
  file(GLOB sources CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/${area}/*.cpp)
  if(sources)
    add_library(area_${area} OBJECT ${sources})
    list(APPEND MODULE_OBJECTS $<TARGET_OBJECTS:area_${area}>)
  endif()
endforeach()

# The export list is read from the headers: a declaration is the one place that makes a name public.
set(exported "")
foreach(header module tape net replication mrepl fanout)
  set(path ${CMAKE_SOURCE_DIR}/include/zul/${header}.h)
  set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${path})
  file(STRINGS ${path} lines REGEX "^ZUL_API ")
  foreach(line ${lines})
    string(REGEX REPLACE "^ZUL_API [^(]*[ *]([A-Za-z_0-9]+) *([[(;].*)?$" "\\1" name "${line}")
    list(APPEND exported "${name}")
  endforeach()
endforeach()
list(SORT exported)
list(JOIN exported ";\n    " exportText)
file(CONFIGURE OUTPUT ${CMAKE_BINARY_DIR}/exports.map
     CONTENT "{\n  global:\n    @exportText@;\n  local: *;\n};\n" @ONLY)

add_library(tape SHARED ${MODULE_OBJECTS})
set_target_properties(tape PROPERTIES LINK_DEPENDS ${CMAKE_BINARY_DIR}/exports.map
                      LIBRARY_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/bin)
target_link_options(tape PRIVATE -Wl,-Bsymbolic-functions
                    -Wl,--version-script=${CMAKE_BINARY_DIR}/exports.map)
target_link_libraries(tape PRIVATE dl)
