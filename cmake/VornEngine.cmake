# Builds vorn-engine with cargo (release profile) and puts it next to the vorn executable,
# with the llama.cpp libraries and backend modules it loads from its own folder.
# Cargo keeps its own incremental state; its target folder lives outside the source tree
# (override with CARGO_TARGET_DIR) so fresh clones reuse the compiled llama.cpp.
find_program(CARGO_PROGRAM cargo HINTS $ENV{HOME}/.cargo/bin REQUIRED)

if(DEFINED ENV{CARGO_TARGET_DIR})
  set(VORN_CARGO_TARGET_DIR $ENV{CARGO_TARGET_DIR})
else()
  set(VORN_CARGO_TARGET_DIR $ENV{HOME}/.cache/vorn/cargo-target)
endif()
set(VORN_CARGO_TARGET_DIR ${VORN_CARGO_TARGET_DIR} CACHE PATH "Cargo target folder for vorn-engine")

set(VORN_ENGINE_MANIFEST ${CMAKE_SOURCE_DIR}/vorn-engine/Cargo.toml)
set(VORN_ENGINE_CARGO ${CMAKE_COMMAND} -E env CARGO_TARGET_DIR=${VORN_CARGO_TARGET_DIR}
    ${CMAKE_SOURCE_DIR}/scripts/engine-cargo)
set(VORN_ENGINE_CARGO_FLAGS "")
if(VORN_ENGINE_FEATURES)
  list(APPEND VORN_ENGINE_CARGO_FLAGS --features ${VORN_ENGINE_FEATURES})
endif()

if(EXISTS ${VORN_ENGINE_MANIFEST})
  add_custom_target(vorn-engine ALL
    COMMAND ${VORN_ENGINE_CARGO} build ${VORN_ENGINE_CARGO_FLAGS}
    COMMAND ${CMAKE_COMMAND} -E make_directory ${VORN_BIN_DIR}
    COMMAND ${CMAKE_COMMAND} -E copy_if_different
            ${VORN_CARGO_TARGET_DIR}/release/vorn-engine${CMAKE_EXECUTABLE_SUFFIX}
            ${VORN_BIN_DIR}/vorn-engine${CMAKE_EXECUTABLE_SUFFIX}
    # llama.cpp's libraries and backend modules (CPU variants, GPU backends) go beside it.
    COMMAND ${CMAKE_COMMAND} -DFROM=${VORN_CARGO_TARGET_DIR}/release -DTO=${VORN_BIN_DIR}
            -P ${CMAKE_SOURCE_DIR}/cmake/CopyEngineRuntime.cmake
    WORKING_DIRECTORY ${CMAKE_SOURCE_DIR}/vorn-engine
    USES_TERMINAL
    COMMENT "Building vorn-engine with cargo")
else()
  message(WARNING "vorn-engine/Cargo.toml is missing; the engine is not built")
endif()
