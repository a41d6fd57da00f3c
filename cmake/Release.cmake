# Release flags (ZEPH_RELEASE, preset mingw-release, scripts/release): the
# plug-in hardened, without dead code, and the same bytes whichever folder
# and whenever it is built. scripts/release moves the debug information into
# a file of its own and signs the DLL.
if(MSVC)
    message(FATAL_ERROR "ZEPH_RELEASE is a mingw-w64 configuration")
endif()

# No path of the build machine inside: sources are named from the repository
# root, and the build folder (the debug information's compilation folder and
# the linked header folder) becomes ".". The build folder's map comes last so
# that it wins when the build folder lies inside the sources. Header paths are
# kept as given: canonical ones would follow the .deps and header links to
# wherever they point whenever that path is the shorter one.
add_compile_options(-ffile-prefix-map=${PROJECT_SOURCE_DIR}/= -ffile-prefix-map=${CMAKE_BINARY_DIR}=.
                    -fno-canonical-system-headers)

# Stack protection, libssp linked in statically like the rest of the runtime,
# and the mingw-w64 headers' checked string and stdio functions (from libssp).
add_compile_options(-fstack-protector-strong)
add_compile_definitions(_FORTIFY_SOURCE=2)
add_link_options(-fstack-protector-strong)

# Every function and datum in a section of its own, so the linker drops what
# nothing reaches (the .def file's exports are the roots).
add_compile_options(-ffunction-sections -fdata-sections)
add_link_options(LINKER:--gc-sections)

# The linker writes SOURCE_DATE_EPOCH as the PE time stamp (file header and
# export directory): taken from the environment, else the commit's time.
if(DEFINED ENV{SOURCE_DATE_EPOCH})
    set(ZEPH_SOURCE_DATE_EPOCH $ENV{SOURCE_DATE_EPOCH})
else()
    execute_process(COMMAND git log -1 --format=%ct
                    WORKING_DIRECTORY ${PROJECT_SOURCE_DIR}
                    OUTPUT_VARIABLE ZEPH_SOURCE_DATE_EPOCH
                    OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
endif()
if(NOT ZEPH_SOURCE_DATE_EPOCH MATCHES "^[0-9]+$")
    message(FATAL_ERROR "No commit time for the PE time stamp: set SOURCE_DATE_EPOCH")
endif()
message(STATUS "PE time stamp (SOURCE_DATE_EPOCH): ${ZEPH_SOURCE_DATE_EPOCH}")
foreach(lang C CXX)
    set(CMAKE_${lang}_LINKER_LAUNCHER ${CMAKE_COMMAND} -E env SOURCE_DATE_EPOCH=${ZEPH_SOURCE_DATE_EPOCH})
endforeach()
