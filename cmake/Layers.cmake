# Layers as libraries. Each layer of the library is an OBJECT library (or, for a layer of
# headers only, an INTERFACE library) that sees its own headers and those of the layers it
# declares, nothing else: an #include that reaches upward does not compile.
#
# A layer's headers are collected in its own include directory under the build tree (its
# "slice", symbolic links to the real files): the public headers it owns, listed by name,
# at QueltLibrary/<name>, and the internal headers of its source folder at <folder>/<name>.
# A layer's slice is on the include path of the layer and of every layer above it; neither
# include/ nor src/ is. Every public header belongs to exactly one layer (checked by
# qlt_check_layers), so a new header must be given a place.
#
# The layers' objects make up the library users link, QueltLibrary (shared) and
# QueltLibraryStatic (qlt_layer_objects).

set(QLT_LAYER_SLICES ${CMAKE_BINARY_DIR}/layers)

function(qlt_slice_link real link)
  get_filename_component(parent ${link} DIRECTORY)
  file(MAKE_DIRECTORY ${parent})
  file(CREATE_LINK ${real} ${link} SYMBOLIC)
endfunction()

# qlt_layer(<name> [FOLDER <folder under src>] [HEADERS <public headers...>]
#           [DEPENDS <layers...>])
# Makes qlt_<name> from src/<folder>/*.cpp (not recursive); a layer without sources is an
# INTERFACE library. HEADERS are paths under include/QueltLibrary.
function(qlt_layer name)
  cmake_parse_arguments(ARG "" "FOLDER" "HEADERS;DEPENDS" ${ARGN})
  set(slice ${QLT_LAYER_SLICES}/${name})
  file(REMOVE_RECURSE ${slice})
  file(MAKE_DIRECTORY ${slice})
  foreach(header ${ARG_HEADERS})
    set(real ${PROJECT_SOURCE_DIR}/include/QueltLibrary/${header})
    if(NOT EXISTS ${real})
      message(FATAL_ERROR "Layer ${name}: no public header include/QueltLibrary/${header}")
    endif()
    qlt_slice_link(${real} ${slice}/QueltLibrary/${header})
    set_property(GLOBAL APPEND PROPERTY QLT_LAYERED_HEADERS ${header})
  endforeach()
  set(sources "")
  if(ARG_FOLDER)
    set(folder ${PROJECT_SOURCE_DIR}/src/${ARG_FOLDER})
    file(GLOB internal CONFIGURE_DEPENDS ${folder}/*.h)
    foreach(header ${internal})
      get_filename_component(file ${header} NAME)
      qlt_slice_link(${header} ${slice}/${ARG_FOLDER}/${file})
    endforeach()
    file(GLOB sources CONFIGURE_DEPENDS ${folder}/*.cpp)
  endif()
  list(TRANSFORM ARG_DEPENDS PREPEND qlt_)
  if(sources)
    add_library(qlt_${name} OBJECT ${sources})
    target_include_directories(qlt_${name} PUBLIC ${slice})
    target_link_libraries(qlt_${name} PUBLIC ${ARG_DEPENDS} Threads::Threads)
    set_property(GLOBAL APPEND PROPERTY QLT_OBJECT_LAYERS qlt_${name})
  else()
    add_library(qlt_${name} INTERFACE)
    target_include_directories(qlt_${name} INTERFACE ${slice})
    target_link_libraries(qlt_${name} INTERFACE ${ARG_DEPENDS})
  endif()
endfunction()

# Fails the configuration when a public header belongs to no layer.
function(qlt_check_layers)
  file(GLOB_RECURSE headers CONFIGURE_DEPENDS RELATIVE ${PROJECT_SOURCE_DIR}/include/QueltLibrary
       ${PROJECT_SOURCE_DIR}/include/QueltLibrary/*.h)
  get_property(layered GLOBAL PROPERTY QLT_LAYERED_HEADERS)
  foreach(header ${headers})
    if(NOT header IN_LIST layered)
      message(FATAL_ERROR "include/QueltLibrary/${header} belongs to no layer: add it to the "
                          "HEADERS of its layer in src/CMakeLists.txt")
    endif()
  endforeach()
endfunction()

# The objects of every layer, for the one library.
function(qlt_layer_objects target)
  get_property(layers GLOBAL PROPERTY QLT_OBJECT_LAYERS)
  foreach(layer ${layers})
    target_sources(${target} PRIVATE $<TARGET_OBJECTS:${layer}>)
  endforeach()
endfunction()

# qlt_layer_probe(<layer> <header> FAILS|COMPILES)
# A translation unit that includes <header> with the include path of <layer>, built only on
# request (scripts/check-layers.sh): an upward include must fail, a control must compile.
function(qlt_layer_probe layer header expect)
  string(MAKE_C_IDENTIFIER "${layer}_${header}" id)
  if(TARGET qlt_probe_${id})
    return()
  endif()
  set(source ${CMAKE_BINARY_DIR}/layer-probes/${id}.cpp)
  file(WRITE ${source} "#include \"${header}\"\n")
  add_library(qlt_probe_${id} OBJECT EXCLUDE_FROM_ALL ${source})
  target_link_libraries(qlt_probe_${id} PRIVATE qlt_${layer})
  file(APPEND ${CMAKE_BINARY_DIR}/layer-probes.txt "qlt_probe_${id} ${expect} ${layer} ${header}\n")
endfunction()
