# Layers whose dependencies the compiler enforces.
#
# Every header, public or private, is included by a path relative to an
# include root ("tsappinstall/platform/opc/Package.hpp",
# "platform/zip/Inflater.hpp"). If a layer could see include/ or src/ as
# a whole, any layer could include any other and the dependency graph would
# only be a convention. So no target below sees either folder: each layer
# gets include roots of its own in the build folder, filled with symbolic
# links to exactly the headers it owns, and reaches another layer's headers
# only through the roots that layer hands to what links it. An #include of
# a layer that is not linked then fails with "No such file or directory".
#
# Each layer has three roots, under ${TSAPP_LAYER_ROOTS}/<target>/:
#   public/   its headers under include/ (PUBLIC: every layer that links it);
#   siblings/ the private headers it deliberately shares with the layers
#             that link it (PUBLIC too, but the shared library never hands
#             them on: it links the layers PRIVATE);
#   own/      its whole source folder, for its own sources only (PRIVATE).
# The public headers keep their installed paths, so a folder of include/
# may hold headers of several layers (tsappinstall/platform/opc/ holds the
# base layer's Exception.hpp and the zip layer's ZipPhysicalPackage.hpp):
# ownership is what the layer lists, not where the file lies.

set(TSAPP_LAYER_ROOTS ${PROJECT_BINARY_DIR}/layers)
# Links are made afresh on every configure run, so a header taken off a
# list stops being reachable at once. Their targets keep their times, so
# nothing is rebuilt for it.
file(REMOVE_RECURSE ${TSAPP_LAYER_ROOTS})

# Compiler warnings, for every target built here; sanitizers and fuzzing
# instrumentation stay global (CMakeLists.txt): they are build modes, and a
# target left out of one would break the link.
add_library(tsapp_warnings INTERFACE)
target_compile_options(tsapp_warnings INTERFACE
  -Wall -Wextra -Wshadow -Wnon-virtual-dtor -Wpedantic $<$<BOOL:${TSAPP_WERROR}>:-Werror>)

function(tsapp_link_into_root file link)
  get_filename_component(folder ${link} DIRECTORY)
  file(MAKE_DIRECTORY ${folder})
  file(CREATE_LINK ${file} ${link} SYMBOLIC)
endfunction()

# tsapp_add_layer(<target> FOLDER <folder under src/>
#                 SOURCES <files of the folder, or absolute generated files>...
#                 [HEADER_DIR <folder under include/>]
#                 [PUBLIC_HEADERS <headers under include/, or under HEADER_DIR>...]
#                 [SIBLING_HEADERS <headers of the folder>...]
#                 [PUBLIC <libraries>...] [PRIVATE <libraries>...])
#
# An object library rather than a static one: the shared library must hold
# every object (a static archive would drop the ones nothing inside it
# calls, exported functions among them, unless linked whole), and the
# internal static library for the tests is made of the very same objects,
# compiled once. Object libraries linking each other pass on exactly what
# this needs: include roots, compile definitions and the third-party
# libraries to link.
function(tsapp_add_layer target)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "FOLDER;HEADER_DIR"
    "SOURCES;PUBLIC_HEADERS;SIBLING_HEADERS;PUBLIC;PRIVATE")
  set(folder ${PROJECT_SOURCE_DIR}/src/${arg_FOLDER})
  set(root ${TSAPP_LAYER_ROOTS}/${target})
  file(MAKE_DIRECTORY ${root}/public ${root}/siblings)

  set(sources "")
  foreach(source IN LISTS arg_SOURCES)
    if(IS_ABSOLUTE ${source})
      list(APPEND sources ${source})
    else()
      list(APPEND sources ${folder}/${source})
    endif()
  endforeach()
  foreach(header IN LISTS arg_PUBLIC_HEADERS)
    if(arg_HEADER_DIR)
      set(header ${arg_HEADER_DIR}/${header})
    endif()
    list(APPEND sources ${PROJECT_SOURCE_DIR}/include/${header})
    tsapp_link_into_root(${PROJECT_SOURCE_DIR}/include/${header} ${root}/public/${header})
  endforeach()
  foreach(header IN LISTS arg_SIBLING_HEADERS)
    tsapp_link_into_root(${folder}/${header} ${root}/siblings/${arg_FOLDER}/${header})
  endforeach()
  tsapp_link_into_root(${folder} ${root}/own/${arg_FOLDER})

  add_library(${target} OBJECT ${sources})
  target_include_directories(${target} PRIVATE ${root}/own)
  target_include_directories(${target} PUBLIC
    $<BUILD_INTERFACE:${root}/public> $<BUILD_INTERFACE:${root}/siblings>)
  target_link_libraries(${target} PUBLIC ${arg_PUBLIC} PRIVATE ${arg_PRIVATE} tsapp_warnings)
  # Kept for tsapp_add_layer_probe, which compiles a file as if it were one
  # of this layer's.
  set_target_properties(${target} PROPERTIES
    TSAPP_LAYER_OWN_ROOT ${root}/own TSAPP_LAYER_PRIVATE "${arg_PRIVATE}")
endfunction()

# tsapp_add_layer_probe(<target> <header>)
#
# A test that a source of <target> (a layer, or any program linking the
# shared library when <target> is tsappinstall) cannot include <header>: it
# compiles a one-line file as such a source is compiled and passes only
# when the compiler reports the header missing. Each probe is a target of
# its own, outside `all`.
function(tsapp_add_layer_probe layer header)
  string(MAKE_C_IDENTIFIER "${layer}_${header}" name)
  set(source ${PROJECT_BINARY_DIR}/layer-probes/${name}.cpp)
  file(CONFIGURE OUTPUT ${source} CONTENT "#include \"${header}\"\n")
  add_library(probe_${name} OBJECT EXCLUDE_FROM_ALL ${source})
  target_link_libraries(probe_${name} PRIVATE ${layer})
  # A layer's own sources also see its own folder and what it links
  # privately; any other target (the shared library) only its interface.
  get_target_property(own ${layer} TSAPP_LAYER_OWN_ROOT)
  if(own)
    get_target_property(private ${layer} TSAPP_LAYER_PRIVATE)
    target_include_directories(probe_${name} PRIVATE ${own})
    target_link_libraries(probe_${name} PRIVATE ${private})
  endif()
  string(REPLACE "." "\\." pattern "${header}")
  add_test(NAME "Layers.${layer}.cannot_include.${header}"
           COMMAND ${CMAKE_COMMAND} --build ${PROJECT_BINARY_DIR} --target probe_${name})
  # GCC and clang word it differently; any other failure does not count.
  set_tests_properties("Layers.${layer}.cannot_include.${header}" PROPERTIES
    PASS_REGULAR_EXPRESSION "${pattern}: No such file or directory|'${pattern}' file not found"
    RESOURCE_LOCK tsapp_build_folder)
endfunction()
