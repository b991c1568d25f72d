# cmake -DNODE=<node> -DMANIFEST=<package.json> -P node_version.cmake
# Fails unless NODE runs and is at least the floor of MANIFEST's engines.node (">=X.Y.Z").
file(READ ${MANIFEST} manifest)
string(JSON range ERROR_VARIABLE json_error GET "${manifest}" engines node)
if(json_error OR NOT range MATCHES "^>= *([0-9]+(\\.[0-9]+)*)$")
  message(FATAL_ERROR "cannot read a \">=version\" node range from engines.node in ${MANIFEST}")
endif()
set(floor ${CMAKE_MATCH_1})

execute_process(COMMAND ${NODE} --version RESULT_VARIABLE rc OUTPUT_VARIABLE version ERROR_QUIET
                OUTPUT_STRIP_TRAILING_WHITESPACE)
set(fix "run scripts/setup-deps.sh, which installs the suite's own node in tests/interop/node; the next build picks it up")
if(NOT rc EQUAL 0 OR NOT version MATCHES "^v([0-9]+(\\.[0-9]+)*)$")
  message(FATAL_ERROR "cannot run node (${NODE}) for the interoperability suite: ${fix}")
endif()
if(CMAKE_MATCH_1 VERSION_LESS floor)
  message(FATAL_ERROR "node ${version} (${NODE}) is older than the interoperability suite needs "
                      "(engines.node ${range} in ${MANIFEST}): ${fix}")
endif()
message(STATUS "node ${version} (${NODE}) meets ${range}")
