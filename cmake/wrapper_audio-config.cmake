# A host links the shared objects alone, so nothing else has to be found.
include(${CMAKE_CURRENT_LIST_DIR}/wrapper_audio-targets.cmake)
